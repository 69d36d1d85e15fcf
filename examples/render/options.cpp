#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qelr_render {

namespace {

bool parseInt(const char* text, int lo, int hi, int& out) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
    out = int(v);
    return true;
}

// "WxH", both from 1 to 16384.
bool parseSize(const char* text, int& width, int& height) {
    const char* x = std::strchr(text, 'x');
    if (x == nullptr) return false;
    const std::string w(text, x);
    return parseInt(w.c_str(), 1, 16384, width) && parseInt(x + 1, 1, 16384, height);
}

}  // namespace

std::string usageText(const char* program) {
    return std::string("usage: ") + program +
           " [options] [mesh.obj | mesh.ply]\n"
           "Ray-traces a triangle mesh (the built-in scene when none is given) into a PNG.\n"
           "  -s, --size WxH       image size in pixels (default 640x400)\n"
           "  -o, --output FILE    PNG file to write (default qelr-render.png)\n"
           "  -t, --threads N      threads (default: every processor)\n"
           "  -a, --samples N      N x N samples per pixel (default 1)\n"
           "  -n, --triangles N    triangles of the built-in scene (default 300000)\n"
           "      --flat           flat normals (default: smooth)\n"
           "  -q, --quiet          no progress bar and no summary\n"
           "  -h, --help           this text\n";
}

ParseResult parseOptions(int argc, const char* const* argv, Options& options,
                         std::string& message) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char*& out) {
            if (i + 1 >= argc) {
                message = "option " + arg + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        const char* v = nullptr;
        if (arg == "-h" || arg == "--help") return ParseResult::kHelp;
        if (arg == "--flat") {
            options.flat = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "-s" || arg == "--size") {
            if (!value(v)) return ParseResult::kError;
            if (!parseSize(v, options.width, options.height)) {
                message = "bad size '" + std::string(v) + "' (expected WxH, e.g. 640x400)";
                return ParseResult::kError;
            }
        } else if (arg == "-o" || arg == "--output") {
            if (!value(v)) return ParseResult::kError;
            options.output = v;
        } else if (arg == "-t" || arg == "--threads") {
            if (!value(v)) return ParseResult::kError;
            if (!parseInt(v, 1, 1024, options.threads)) {
                message = "bad thread count '" + std::string(v) + "'";
                return ParseResult::kError;
            }
        } else if (arg == "-a" || arg == "--samples") {
            if (!value(v)) return ParseResult::kError;
            if (!parseInt(v, 1, 8, options.samples)) {
                message = "bad sample count '" + std::string(v) + "' (1 to 8)";
                return ParseResult::kError;
            }
        } else if (arg == "-n" || arg == "--triangles") {
            if (!value(v)) return ParseResult::kError;
            if (!parseInt(v, 1000, 20000000, options.sceneTriangles)) {
                message = "bad triangle count '" + std::string(v) + "' (1000 to 20000000)";
                return ParseResult::kError;
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            message = "unknown option " + arg;
            return ParseResult::kError;
        } else if (options.mesh.empty()) {
            options.mesh = arg;
        } else {
            message = "more than one mesh file given";
            return ParseResult::kError;
        }
    }
    // The renderer keeps one float triple per sample of the whole image.
    const long long samples =
        (long long)options.width * options.height * options.samples * options.samples;
    if (samples > (1LL << 26)) {
        message = "the image is too large (width x height x samples^2 above 2^26)";
        return ParseResult::kError;
    }
    return ParseResult::kRun;
}

}  // namespace qelr_render
