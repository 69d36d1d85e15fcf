// A triangle mesh in the layout the library reads: three floats per vertex,
// four ints per triangle (three vertex indices and an unused fourth, 0).
#pragma once

#include <vector>

namespace qelr_example {

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> indices;

    int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
    int triangleCount() const { return static_cast<int>(indices.size() / 4); }
    int addVertex(float x, float y, float z) {
        vertices.push_back(x);
        vertices.push_back(y);
        vertices.push_back(z);
        return vertexCount() - 1;
    }
    void addTriangle(int a, int b, int c) {
        indices.push_back(a);
        indices.push_back(b);
        indices.push_back(c);
        indices.push_back(0);
    }
};

}  // namespace qelr_example
