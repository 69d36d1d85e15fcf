// Minimal PNG writer for the example programs: 8-bit grey or RGB images,
// compressed with zlib.
#pragma once

#include <cstdint>
#include <string>

namespace qelr_example {

// Writes a width x height image of `channels` (1 grey, 3 RGB) interleaved
// bytes per pixel, rows top to bottom without padding. Returns false when the
// file cannot be written.
bool writePng(const std::string& path, const uint8_t* pixels, int width, int height, int channels);

}  // namespace qelr_example
