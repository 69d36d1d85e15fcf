#include "png_writer.h"

#include <zlib.h>

#include <cstdio>
#include <vector>

namespace qelr_example {

namespace {

void putBigEndian(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

// A chunk: length, type, data, CRC of type and data.
void putChunk(std::vector<uint8_t>& out, const char type[4], const std::vector<uint8_t>& data) {
    putBigEndian(out, uint32_t(data.size()));
    const size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    putBigEndian(out, uint32_t(crc32(0, out.data() + start, uInt(out.size() - start))));
}

}  // namespace

bool writePng(const std::string& path, const uint8_t* pixels, int width, int height, int channels) {
    if (width <= 0 || height <= 0 || (channels != 1 && channels != 3)) return false;
    // Every row starts with filter byte 0 (none).
    const size_t rowBytes = size_t(width) * channels;
    std::vector<uint8_t> raw;
    raw.reserve((rowBytes + 1) * height);
    for (int y = 0; y < height; ++y) {
        raw.push_back(0);
        raw.insert(raw.end(), pixels + y * rowBytes, pixels + (y + 1) * rowBytes);
    }
    uLongf packedSize = compressBound(uLong(raw.size()));
    std::vector<uint8_t> packed(packedSize);
    if (compress2(packed.data(), &packedSize, raw.data(), uLong(raw.size()), 6) != Z_OK) {
        return false;
    }
    packed.resize(packedSize);

    std::vector<uint8_t> header;
    putBigEndian(header, uint32_t(width));
    putBigEndian(header, uint32_t(height));
    header.push_back(8);                      // bit depth
    header.push_back(channels == 1 ? 0 : 2);  // colour type: grey or RGB
    header.push_back(0);                      // deflate
    header.push_back(0);                      // adaptive filtering
    header.push_back(0);                      // no interlace

    std::vector<uint8_t> file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    putChunk(file, "IHDR", header);
    putChunk(file, "IDAT", packed);
    putChunk(file, "IEND", {});

    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const bool ok = std::fwrite(file.data(), 1, file.size(), f) == file.size();
    return std::fclose(f) == 0 && ok;
}

}  // namespace qelr_example
