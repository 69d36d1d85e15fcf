// A small PNG encoder for the example programs: 8-bit grey or RGB images,
// compressed with zlib.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qelr_example {

// Encodes `width` x `height` pixels of `channels` bytes each (1 grey, 3 RGB;
// rows top to bottom, no padding) as a PNG file image. Each row gets the
// filter that makes its bytes smallest by the sum-of-magnitudes rule. Empty
// when the arguments describe no image.
std::vector<uint8_t> encodePng(const uint8_t* pixels, int width, int height, int channels);

// Writes the encoded image to `path`; false when there is no image or the
// file cannot be written.
bool writePng(const std::string& path, const uint8_t* pixels, int width, int height, int channels);

}  // namespace qelr_example
