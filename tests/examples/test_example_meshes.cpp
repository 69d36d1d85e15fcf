// The scene generator and mesh loader that the benchmarks and examples share.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "mesh_io.h"
#include "scene_gen.h"

namespace {

using qelr_example::Mesh;

std::string tempPath(const char* name) { return std::string(::testing::TempDir()) + "/" + name; }

TEST(ExampleScene, DeterministicAndNearTheRequestedSize) {
    for (int n : {2000, 30000}) {
        const Mesh a = qelr_example::makeProceduralScene(n, 5);
        const Mesh b = qelr_example::makeProceduralScene(n, 5);
        EXPECT_EQ(a.vertices, b.vertices);
        EXPECT_EQ(a.indices, b.indices);
        EXPECT_NEAR(a.triangleCount(), n, 0.1 * n);
        for (size_t i = 0; i < a.indices.size(); ++i)
            if (i % 4 != 3) {
                ASSERT_LT(a.indices[i], a.vertexCount());
            }
    }
    EXPECT_NE(qelr_example::makeProceduralScene(2000, 1).vertices,
              qelr_example::makeProceduralScene(2000, 2).vertices);
}

TEST(ExampleMeshIo, ObjPolygonsAndNegativeIndices) {
    const std::string path = tempPath("quad.obj");
    std::ofstream(path) << "# quad and triangle\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                           "vt 0 0\nf 1/1 2/1 3/1 4/1\nf -4//1 -2//1 -1//1\n";
    Mesh m;
    std::string error;
    ASSERT_TRUE(qelr_example::loadMesh(path, m, error)) << error;
    EXPECT_EQ(m.vertexCount(), 4);
    EXPECT_EQ(m.indices, (std::vector<int>{0, 1, 2, 0, 0, 2, 3, 0, 0, 2, 3, 0}));
    std::remove(path.c_str());
}

TEST(ExampleMeshIo, PlyAsciiAndBinaryGiveTheSameMesh) {
    const std::string header =
        "element vertex 4\nproperty float x\nproperty float y\nproperty float z\nproperty uchar "
        "red\n"
        "element face 2\nproperty list uchar int vertex_indices\nproperty float "
        "quality\nend_header\n";
    const std::string ascii = tempPath("m.ply"), binary = tempPath("b.PLY");
    std::ofstream(ascii) << "ply\nformat ascii 1.0\n"
                         << header
                         << "0 0 0 9\n2 0 0 9\n2 3 0 9\n0 3 1 9\n4 0 1 2 3 0.5\n3 3 2 1 0.5\n";
    {
        std::ofstream out(binary, std::ios::binary);
        out << "ply\nformat binary_little_endian 1.0\n" << header;
        const float v[4][3] = {{0, 0, 0}, {2, 0, 0}, {2, 3, 0}, {0, 3, 1}};
        for (const auto& p : v) {
            out.write(reinterpret_cast<const char*>(p), 12);
            out.put(9);
        }
        const int32_t f0[4] = {0, 1, 2, 3}, f1[3] = {3, 2, 1};
        const float q = 0.5f;
        out.put(4);
        out.write(reinterpret_cast<const char*>(f0), 16);
        out.write(reinterpret_cast<const char*>(&q), 4);
        out.put(3);
        out.write(reinterpret_cast<const char*>(f1), 12);
        out.write(reinterpret_cast<const char*>(&q), 4);
    }
    Mesh a, b;
    std::string error;
    ASSERT_TRUE(qelr_example::loadMesh(ascii, a, error)) << error;
    ASSERT_TRUE(qelr_example::loadMesh(binary, b, error)) << error;
    EXPECT_EQ(a.vertices, (std::vector<float>{0, 0, 0, 2, 0, 0, 2, 3, 0, 0, 3, 1}));
    EXPECT_EQ(a.indices, (std::vector<int>{0, 1, 2, 0, 0, 2, 3, 0, 3, 2, 1, 0}));
    EXPECT_EQ(a.vertices, b.vertices);
    EXPECT_EQ(a.indices, b.indices);
    std::remove(ascii.c_str());
    std::remove(binary.c_str());
}

TEST(ExampleMeshIo, SubdivisionSharesMidpointsAndKeepsTheArea) {
    Mesh m;
    m.addVertex(0, 0, 0);
    m.addVertex(4, 0, 0);
    m.addVertex(0, 4, 0);
    m.addVertex(4, 4, 0);
    m.addTriangle(0, 1, 2);
    m.addTriangle(1, 3, 2);
    const Mesh s = qelr_example::subdivideToAtLeast(m, 20);
    EXPECT_EQ(s.triangleCount(), 32);
    EXPECT_EQ(s.vertexCount(), 25);  // a 5 x 5 grid: shared edges give shared midpoints
    double area = 0;
    for (int t = 0; t < s.triangleCount(); ++t) {
        const float* p[3];
        for (int c = 0; c < 3; ++c) p[c] = &s.vertices[3 * s.indices[4 * t + c]];
        area += 0.5 * ((p[1][0] - p[0][0]) * (p[2][1] - p[0][1]) -
                       (p[2][0] - p[0][0]) * (p[1][1] - p[0][1]));
    }
    EXPECT_DOUBLE_EQ(area, 16.0);
}

TEST(ExampleMeshIo, ErrorsAreReported) {
    Mesh m;
    std::string error;
    EXPECT_FALSE(qelr_example::loadMesh(tempPath("missing.obj"), m, error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(qelr_example::loadMesh("mesh.stl", m, error));
    const std::string path = tempPath("bad.obj");
    std::ofstream(path) << "v 0 0 0\nf 1 2 3\n";
    EXPECT_FALSE(qelr_example::loadMesh(path, m, error));
    std::remove(path.c_str());
}

}  // namespace
