// The scene generator and mesh loader that the benchmarks and examples share.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "mesh_io.h"
#include "scene_gen.h"

namespace {

using qelr_example::Mesh;

TEST(ExampleScene, DeterministicAndNearTheRequestedSize) {
    for (int n : {2000, 30000}) {
        const Mesh a = qelr_example::makeProceduralScene(n, 5);
        const Mesh b = qelr_example::makeProceduralScene(n, 5);
        EXPECT_EQ(a.vertices, b.vertices);
        EXPECT_EQ(a.indices, b.indices);
        EXPECT_NEAR(a.triangleCount(), n, 0.1 * n);
        for (size_t i = 0; i < a.indices.size(); ++i) ASSERT_TRUE(i % 4 == 3 || a.indices[i] < a.vertexCount()) << i;
    }
    EXPECT_NE(qelr_example::makeProceduralScene(2000, 1).vertices, qelr_example::makeProceduralScene(2000, 2).vertices);
}

// `content` written to a temporary file called `name`, loaded; `ok` says whether the loader must accept it.
Mesh loaded(const char* name, const std::string& content, bool ok = true) {
    const std::string path = std::string(::testing::TempDir()) + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    Mesh m;
    std::string error;
    EXPECT_EQ(qelr_example::loadMesh(path, m, error), ok) << name << ": " << error;
    EXPECT_EQ(error.empty(), ok) << name;
    std::remove(path.c_str());
    return m;
}

template <class T>
std::string raw(const T& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

// OBJ polygons fan out from their first corner, negative indices count back; the two PLY encodings of one mesh
// (a colour byte per vertex and a quality per face to skip) give the same triangles.
TEST(ExampleMeshIo, ObjAndPlyFilesGiveTheirTriangles) {
    const std::string plyHeader =
        "element vertex 4\nproperty float x\nproperty float y\nproperty float z\nproperty uchar red\n"
        "element face 2\nproperty list uchar int vertex_indices\nproperty float quality\nend_header\n";
    std::string binary = "ply\nformat binary_little_endian 1.0\n" + plyHeader;
    const float v[4][3] = {{0, 0, 0}, {2, 0, 0}, {2, 3, 0}, {0, 3, 1}};
    for (const auto& p : v) binary += raw(p) + '\x09';
    const int32_t f0[4] = {0, 1, 2, 3}, f1[3] = {3, 2, 1};
    binary += '\x04' + raw(f0) + raw(0.5f) + '\x03' + raw(f1) + raw(0.5f);
    const std::vector<float> plyVertices = {0, 0, 0, 2, 0, 0, 2, 3, 0, 0, 3, 1};
    const std::vector<int> plyIndices = {0, 1, 2, 0, 0, 2, 3, 0, 3, 2, 1, 0};
    const struct {
        const char* name;
        std::string content;
        std::vector<float> vertices;
        std::vector<int> indices;
    } cases[] = {
        {"quad.obj",
         "# quad and triangle\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nf 1/1 2/1 3/1 4/1\nf -4//1 -2//1 -1//1\n",
         {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0},
         {0, 1, 2, 0, 0, 2, 3, 0, 0, 2, 3, 0}},
        {"m.ply",
         "ply\nformat ascii 1.0\n" + plyHeader + "0 0 0 9\n2 0 0 9\n2 3 0 9\n0 3 1 9\n4 0 1 2 3 0.5\n3 3 2 1 0.5\n",
         plyVertices, plyIndices},
        {"b.PLY", binary, plyVertices, plyIndices},
    };
    for (const auto& c : cases) {
        const Mesh m = loaded(c.name, c.content);
        EXPECT_EQ(m.vertices, c.vertices) << c.name;
        EXPECT_EQ(m.indices, c.indices) << c.name;
    }
}

TEST(ExampleMeshIo, SubdivisionSharesMidpointsAndKeepsTheArea) {
    const Mesh m{{0, 0, 0, 4, 0, 0, 0, 4, 0, 4, 4, 0}, {0, 1, 2, 0, 1, 3, 2, 0}};  // a 4 x 4 square
    const Mesh s = qelr_example::subdivideToAtLeast(m, 20);
    EXPECT_EQ(s.triangleCount(), 32);
    EXPECT_EQ(s.vertexCount(), 25);  // a 5 x 5 grid: shared edges give shared midpoints
    double area = 0;
    for (int t = 0; t < s.triangleCount(); ++t) {
        const float* p[3];
        for (int c = 0; c < 3; ++c) p[c] = &s.vertices[3 * s.indices[4 * t + c]];
        area += 0.5 * ((p[1][0] - p[0][0]) * (p[2][1] - p[0][1]) - (p[2][0] - p[0][0]) * (p[1][1] - p[0][1]));
    }
    EXPECT_DOUBLE_EQ(area, 16.0);
}

TEST(ExampleMeshIo, ErrorsAreReported) {
    Mesh m;
    std::string error;
    EXPECT_FALSE(qelr_example::loadMesh(std::string(::testing::TempDir()) + "/missing.obj", m, error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(qelr_example::loadMesh("mesh.stl", m, error));
    loaded("bad.obj", "v 0 0 0\nf 1 2 3\n", false);
}

}  // namespace
