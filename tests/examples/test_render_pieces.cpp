// The renderer's own pieces: PNG encoding, command line, camera, progress bar.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include "camera.h"
#include "options.h"
#include "png_read.h"
#include "png_writer.h"
#include "progress.h"

using namespace qelr_render;

TEST(RenderPng, RoundTripsThroughAStrictReader) {
    std::mt19937 rng(5);
    for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {64, 40}}) {
        std::vector<uint8_t> rgb(size_t(w) * h * 3);
        // Half noise, half smooth gradients, so every row filter gets picked.
        for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = i % 7 < 3 ? uint8_t(rng()) : uint8_t(i / 5);
        const std::vector<uint8_t> png = qelr_example::encodePng(rgb.data(), w, h, 3);
        qelr_test::RgbImage image;
        std::string error;
        ASSERT_TRUE(qelr_test::decodePng(png, image, error)) << error;
        EXPECT_EQ(image.width, w);
        EXPECT_EQ(image.height, h);
        EXPECT_EQ(image.rgb, rgb);
        std::vector<uint8_t> broken = png;
        broken[20] ^= 1;  // inside IHDR: its CRC no longer matches
        EXPECT_FALSE(qelr_test::decodePng(broken, image, error));
    }
}

TEST(RenderOptions, DefaultsValuesAndErrors) {
    auto parse = [](std::vector<const char*> args, Options& o, std::string& msg) {
        args.insert(args.begin(), "qelr-render");
        return parseOptions(int(args.size()), args.data(), o, msg);
    };
    Options o;
    std::string msg;
    EXPECT_EQ(parse({}, o, msg), ParseResult::kRun);
    EXPECT_EQ(std::tie(o.width, o.height, o.mesh), std::tuple(640, 400, ""));
    EXPECT_EQ(parse({"-s", "160x100", "-o", "a.png", "--threads", "3", "--flat", "m.ply"}, o, msg), ParseResult::kRun);
    EXPECT_EQ(std::tie(o.width, o.height, o.output, o.threads, o.flat, o.mesh),
              std::tuple(160, 100, "a.png", 3, true, "m.ply"));
    EXPECT_EQ(parse({"--triangles", "5000", "-a", "2"}, o, msg), ParseResult::kRun);
    EXPECT_EQ(std::tie(o.sceneTriangles, o.samples), std::tuple(5000, 2));
    EXPECT_EQ(parse({"--help"}, o, msg), ParseResult::kHelp);
    for (std::vector<const char*> bad : {std::vector<const char*>{"-s", "160"},
                                         {"-s", "0x10"},
                                         {"-t", "x"},
                                         {"-t"},
                                         {"--bogus"},
                                         {"a.obj", "b.obj"}}) {
        Options d;
        msg.clear();
        EXPECT_EQ(parse(bad, d, msg), ParseResult::kError) << bad[0];
        EXPECT_FALSE(msg.empty());
    }
}

TEST(RenderCamera, CentreLooksAtTheTargetAndStepsSpanTheFieldOfView) {
    const Camera cam{{1, 2, 3}, {1, 2, -7}, {0, 1, 0}, 90.0f};
    const int w = 200, h = 100;
    const EyeRays r = eyeRaysOf(cam, w, h);
    // The image centre lies between pixels 99 and 100, 49 and 50.
    for (int c = 0; c < 3; ++c) {
        const float centre = r.corner[c] + 99.5f * r.stepX[c] + 49.5f * r.stepY[c];
        EXPECT_NEAR(centre, c == 2 ? -1.0f : 0.0f, 1e-5f);
    }
    // 90 degrees vertically: the top row looks 45 degrees up (less half a pixel).
    EXPECT_NEAR(r.corner[1] - 0.5f * r.stepY[1], 1.0f, 1e-5f);
    EXPECT_NEAR(r.stepX[0], 2.0f * 2.0f / w, 1e-6f);  // right is +x, width twice the height
    EXPECT_LT(r.stepY[1], 0.0f);                      // rows go down
}

TEST(RenderProgress, BarLine) {
    EXPECT_EQ(Progress::line("render", 0, 4, 8), "render [........]   0%");
    EXPECT_EQ(Progress::line("render", 3, 4, 8), "render [######..]  75%");
    EXPECT_EQ(Progress::line("render", 4, 4, 8), "render [########] 100%");
    Progress silent("x", 3, false);  // disabled: steps count, nothing is drawn
    silent.step();
}
