// A small PNG encoder: 8-bit RGB images, compressed with zlib.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qelr_render {

// Encodes `width` x `height` pixels of three bytes each (rows top to bottom,
// no padding) as a PNG file image. Each row gets the filter that makes its
// bytes smallest by the sum-of-magnitudes rule.
std::vector<uint8_t> encodePng(const uint8_t* rgb, int width, int height);

// Writes the encoded image to `path`; false (with errno set) when the file
// cannot be written.
bool writePng(const std::string& path, const uint8_t* rgb, int width, int height);

}  // namespace qelr_render
