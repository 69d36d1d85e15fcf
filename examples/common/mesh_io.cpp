#include "mesh_io.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unordered_map>
#include <vector>

namespace qelr_example {

namespace {

void addFan(Mesh& out, const std::vector<int>& poly) {
    for (size_t i = 2; i < poly.size(); ++i) out.addTriangle(poly[0], poly[i - 1], poly[i]);
}

bool validIndices(const Mesh& m, std::string& error) {
    const int n = m.vertexCount();
    for (size_t i = 0; i < m.indices.size(); ++i)
        if (i % 4 != 3 && (m.indices[i] < 0 || m.indices[i] >= n)) {
            error = "face index out of range";
            return false;
        }
    return true;
}

// PLY scalar types by name: size in bytes, 0 for an unknown name.
int plyTypeSize(const std::string& t) {
    if (t == "char" || t == "uchar" || t == "int8" || t == "uint8") return 1;
    if (t == "short" || t == "ushort" || t == "int16" || t == "uint16") return 2;
    if (t == "int" || t == "uint" || t == "int32" || t == "uint32" || t == "float" ||
        t == "float32")
        return 4;
    if (t == "double" || t == "float64") return 8;
    return 0;
}

double readBinary(const char* p, const std::string& t) {
    if (t == "char" || t == "int8") return static_cast<int8_t>(*p);
    if (t == "uchar" || t == "uint8") return static_cast<uint8_t>(*p);
    int16_t s16;
    uint16_t u16;
    int32_t s32;
    uint32_t u32;
    float f;
    double d;
    if (t == "short" || t == "int16") return std::memcpy(&s16, p, 2), s16;
    if (t == "ushort" || t == "uint16") return std::memcpy(&u16, p, 2), u16;
    if (t == "int" || t == "int32") return std::memcpy(&s32, p, 4), s32;
    if (t == "uint" || t == "uint32") return std::memcpy(&u32, p, 4), u32;
    if (t == "float" || t == "float32") return std::memcpy(&f, p, 4), f;
    return std::memcpy(&d, p, 8), d;
}

struct PlyProperty {
    std::string name, type, countType;  // countType set for list properties
};
struct PlyElement {
    std::string name;
    long count = 0;
    std::vector<PlyProperty> props;
};

}  // namespace

bool loadObj(const std::string& path, Mesh& out, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    out = Mesh{};
    std::string line;
    std::vector<int> poly;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string tag;
        ls >> tag;
        if (tag == "v") {
            float x = 0, y = 0, z = 0;
            ls >> x >> y >> z;
            out.addVertex(x, y, z);
        } else if (tag == "f") {
            poly.clear();
            std::string corner;
            while (ls >> corner) {
                const long i = std::strtol(corner.c_str(), nullptr, 10);
                if (i == 0) {
                    error = "bad face corner '" + corner + "'";
                    return false;
                }
                poly.push_back(i > 0 ? static_cast<int>(i - 1)
                                     : out.vertexCount() + static_cast<int>(i));
            }
            addFan(out, poly);
        }
    }
    return validIndices(out, error);
}

bool loadPly(const std::string& path, Mesh& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    out = Mesh{};
    std::string line, format;
    std::vector<PlyElement> elements;
    std::getline(in, line);
    if (line.rfind("ply", 0) != 0) {
        error = "not a PLY file";
        return false;
    }
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::istringstream ls(line);
        std::string word;
        ls >> word;
        if (word == "format") {
            ls >> format;
        } else if (word == "element") {
            PlyElement e;
            ls >> e.name >> e.count;
            elements.push_back(e);
        } else if (word == "property" && !elements.empty()) {
            PlyProperty p;
            ls >> p.type;
            if (p.type == "list") ls >> p.countType >> p.type;
            ls >> p.name;
            if (plyTypeSize(p.type) == 0 ||
                (!p.countType.empty() && plyTypeSize(p.countType) == 0)) {
                error = "unknown PLY type in '" + line + "'";
                return false;
            }
            elements.back().props.push_back(p);
        } else if (word == "end_header") {
            break;
        }
    }
    const bool ascii = format == "ascii";
    if (!ascii && format != "binary_little_endian") {
        error = "unsupported PLY format '" + format + "'";
        return false;
    }
    // Reads one scalar of the given type from the body.
    std::vector<char> buf(8);
    auto scalar = [&](const std::string& type, double& value) {
        if (ascii) return static_cast<bool>(in >> value);
        const int size = plyTypeSize(type);
        if (!in.read(buf.data(), size)) return false;
        value = readBinary(buf.data(), type);
        return true;
    };
    std::vector<int> poly;
    for (const PlyElement& e : elements) {
        const bool isVertex = e.name == "vertex", isFace = e.name == "face";
        for (long k = 0; k < e.count; ++k) {
            float xyz[3] = {0, 0, 0};
            for (const PlyProperty& p : e.props) {
                double v = 0;
                if (p.countType.empty()) {
                    if (!scalar(p.type, v)) {
                        error = "truncated PLY body";
                        return false;
                    }
                    if (isVertex && p.name.size() == 1 && p.name[0] >= 'x' && p.name[0] <= 'z')
                        xyz[p.name[0] - 'x'] = static_cast<float>(v);
                    continue;
                }
                double count = 0;
                if (!scalar(p.countType, count)) {
                    error = "truncated PLY body";
                    return false;
                }
                const bool indices =
                    isFace && (p.name == "vertex_indices" || p.name == "vertex_index");
                poly.clear();
                for (long i = 0; i < static_cast<long>(count); ++i) {
                    if (!scalar(p.type, v)) {
                        error = "truncated PLY body";
                        return false;
                    }
                    poly.push_back(static_cast<int>(v));
                }
                if (indices) addFan(out, poly);
            }
            if (isVertex) out.addVertex(xyz[0], xyz[1], xyz[2]);
        }
    }
    return validIndices(out, error);
}

bool loadMesh(const std::string& path, Mesh& out, std::string& error) {
    std::string ext = path.substr(path.find_last_of('.') + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext == "obj") return loadObj(path, out, error);
    if (ext == "ply") return loadPly(path, out, error);
    error = "unknown mesh extension: " + path;
    return false;
}

Mesh subdivideToAtLeast(const Mesh& mesh, int targetTriangles) {
    Mesh cur = mesh;
    while (cur.triangleCount() > 0 && cur.triangleCount() < targetTriangles) {
        Mesh next;
        next.vertices = cur.vertices;
        std::unordered_map<uint64_t, int> midpoints;
        auto midpoint = [&](int a, int b) {
            const uint64_t key =
                static_cast<uint64_t>(std::min(a, b)) << 32 | static_cast<uint32_t>(std::max(a, b));
            const auto it = midpoints.find(key);
            if (it != midpoints.end()) return it->second;
            const float* pa = &cur.vertices[3 * static_cast<size_t>(a)];
            const float* pb = &cur.vertices[3 * static_cast<size_t>(b)];
            const int v = next.addVertex(0.5f * (pa[0] + pb[0]), 0.5f * (pa[1] + pb[1]),
                                         0.5f * (pa[2] + pb[2]));
            midpoints.emplace(key, v);
            return v;
        };
        for (int t = 0; t < cur.triangleCount(); ++t) {
            const int a = cur.indices[4 * t], b = cur.indices[4 * t + 1],
                      c = cur.indices[4 * t + 2];
            const int ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
            next.addTriangle(a, ab, ca);
            next.addTriangle(ab, b, bc);
            next.addTriangle(ca, bc, c);
            next.addTriangle(ab, bc, ca);
        }
        cur = std::move(next);
    }
    return cur;
}

}  // namespace qelr_example
