// qelr-render: ray-traces the built-in scene, or a mesh file, with libqelr
// and writes a PNG.
#include <omp.h>
#include <qelr.h>

#include <cstdio>
#include <string>

#include "options.h"
#include "png_writer.h"
#include "progress.h"
#include "scene_setup.h"
#include "tracer.h"

namespace {

// 1234567 -> "1,234,567".
std::string grouped(long long v) {
    std::string digits = std::to_string(v), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qelr_render;
    Options options;
    std::string message;
    switch (parseOptions(argc, argv, options, message)) {
        case ParseResult::kHelp:
            std::fputs(usageText(argv[0]).c_str(), stdout);
            return 0;
        case ParseResult::kError:
            std::fprintf(stderr, "%s: %s\n%s", argv[0], message.c_str(),
                         usageText(argv[0]).c_str());
            return 2;
        case ParseResult::kRun:
            break;
    }
    if (options.threads > 0) {
        omp_set_num_threads(options.threads);
        qelSetNumThreads(options.threads);
    }
    const int threads = options.threads > 0 ? options.threads : omp_get_max_threads();

    Scene scene;
    if (!makeScene(options.mesh, options.sceneTriangles,
                   float(options.width) / float(options.height), scene, message)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], message.c_str());
        return 1;
    }
    const bool terminal = !options.quiet && stderrIsTerminal();
    if (terminal) std::fputs("building the KD-tree ...", stderr);
    RenderStats stats;
    Tracer tracer(scene);
    const bool built = tracer.build(message, stats);
    if (terminal) std::fputs("\r\033[K", stderr);
    if (!built) {
        std::fprintf(stderr, "%s: %s\n", argv[0], message.c_str());
        return 1;
    }
    RenderSettings settings;
    settings.width = options.width;
    settings.height = options.height;
    settings.samples = options.samples;
    settings.flatNormals = options.flat;
    settings.progressBar = terminal;
    std::vector<uint8_t> rgb;
    if (!tracer.render(settings, rgb, message, stats)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], message.c_str());
        return 1;
    }
    if (!qelr_example::writePng(options.output, rgb.data(), options.width, options.height, 3)) {
        std::fprintf(stderr, "%s: cannot write %s\n", argv[0], options.output.c_str());
        return 1;
    }
    if (!options.quiet) {
        std::printf("scene:  %s, %s triangles, %s vertices\n", scene.name.c_str(),
                    grouped(scene.triangleCount()).c_str(), grouped(scene.vertexCount()).c_str());
        std::printf("build:  %.3f s (accelerator records, normals, KD-tree of %.1f MB)\n",
                    stats.buildSeconds, stats.treeBytes / 1048576.0);
        std::printf("render: %dx%d, %d sample%s per pixel, %d thread%s: %.3f s\n", options.width,
                    options.height, options.samples * options.samples,
                    options.samples > 1 ? "s" : "", threads, threads > 1 ? "s" : "",
                    stats.renderSeconds);
        std::printf("rays:   %s (%s eye, %s shadow, %s reflection), %.2f Mrays/s\n",
                    grouped(stats.rays()).c_str(), grouped(stats.eyeRays).c_str(),
                    grouped(stats.shadowRays).c_str(), grouped(stats.reflectionRays).c_str(),
                    stats.rays() / stats.renderSeconds * 1e-6);
        std::printf("wrote %s\n", options.output.c_str());
    }
    return 0;
}
