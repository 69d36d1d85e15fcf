// Command line of qelr-render.
#pragma once

#include <string>

namespace qelr_render {

struct Options {
    int width = 640;
    int height = 400;
    int threads = 0;              // 0: every processor
    int samples = 1;              // samples per pixel along each axis
    int sceneTriangles = 300000;  // size of the built-in scene
    bool flat = false;            // flat instead of smooth normals
    bool quiet = false;           // no progress bar and no summary
    std::string output = "qelr-render.png";
    std::string mesh;  // empty: the built-in scene
};

enum class ParseResult { kRun, kHelp, kError };

// Parses argv into `options`; on kError `message` says what is wrong.
ParseResult parseOptions(int argc, const char* const* argv, Options& options, std::string& message);

// The text that --help prints.
std::string usageText(const char* program);

}  // namespace qelr_render
