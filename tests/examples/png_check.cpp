// Checks that a file is a valid 8-bit RGB PNG of the expected size whose pixels are not all the same.
//   png_check FILE [WIDTH HEIGHT]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "png_read.h"

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        std::fprintf(stderr, "usage: png_check FILE [WIDTH HEIGHT]\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    qelr_test::RgbImage image;
    std::string error;
    if (!qelr_test::decodePng(bytes, image, error)) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.c_str());
        return 1;
    }
    if (argc == 4 && (image.width != std::atoi(argv[2]) || image.height != std::atoi(argv[3]))) {
        std::fprintf(stderr, "%s: %dx%d, expected %sx%s\n", argv[1], image.width, image.height, argv[2], argv[3]);
        return 1;
    }
    size_t distinct = 0;
    for (size_t i = 3; i < image.rgb.size(); i += 3)
        distinct += !std::equal(image.rgb.begin() + i, image.rgb.begin() + i + 3, image.rgb.begin());
    if (distinct == 0) {
        std::fprintf(stderr, "%s: every pixel has the same colour\n", argv[1]);
        return 1;
    }
    std::printf("%s: valid %dx%d PNG, %zu pixels differ from the first\n", argv[1], image.width, image.height,
                distinct);
    return 0;
}
