// Image files to square, premultiplied RGBA8 layers, with stb_image and stb_image_resize.
//
// stb_image is compiled here, privately (static), with only the formats a show may use: every
// other decoder in it is code a stranger's file could reach for nothing (the Radiance HDR one
// spins forever on a truncated run-length scanline). Its allocations are zeroed, so a file that
// ends early leaves black pixels rather than whatever the heap held (the PNM decoder does not
// notice a short file and leaves the rest of its buffer unwritten). stb_image_resize comes from
// Debian's libstb.
//
// Colour is premultiplied before scaling: a transparent pixel then carries no colour into
// its neighbours, where scaling straight alpha would bleed whatever RGB the transparent
// pixels happen to hold into the edges of the opaque ones.
//
// [SECTION] stb_image, compiled here
// [SECTION] Guards against stb_image 2.27's faults
// [SECTION] Pixels
// [SECTION] Size and decoding
#include "render/ImageDecode.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

// ---------------------------------------------------------------------------------------------
// [SECTION] stb_image, compiled here
// ---------------------------------------------------------------------------------------------
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#define STBI_ONLY_BMP
#define STBI_ONLY_TGA
#define STBI_ONLY_GIF
#define STBI_ONLY_PSD
#define STBI_ONLY_PNM
#define STBI_NO_STDIO
#define STBI_NO_LINEAR
#define STBI_MALLOC(size) std::calloc(1, size)
#define STBI_REALLOC(pointer, size) std::realloc(pointer, size)
#define STBI_FREE(pointer) std::free(pointer)
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"  // the static API functions this file does not call
#endif
#include <stb/stb_image.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
#include <stb/stb_image_resize.h>

namespace brisvale {
namespace {

constexpr int kChannels = 4;
constexpr int kAlphaChannel = 3;
// Keeps edge * edge * 4 well inside every size type and stb's int strides.
constexpr std::uint32_t kMaxEdge = 16384;

struct StbiPixelsDeleter {
    void operator()(stbi_uc* pixels) const { stbi_image_free(pixels); }
};
using StbiPixels = std::unique_ptr<stbi_uc, StbiPixelsDeleter>;

// ---------------------------------------------------------------------------------------------
// [SECTION] Guards against stb_image 2.27's faults
// ---------------------------------------------------------------------------------------------

// stb_image 2.27 builds a JPEG Huffman table from its 16 code counts without checking that they
// add up to at most 256, and writes past the table's arrays when they do not. This walk finds
// every table stb would build, and more: segments are skipped by their lengths, and anything
// else (entropy-coded data, padding) is passed over up to the next 0xFF, where stb looks for its
// next marker too.
bool jpegHuffmanTablesFit(const std::uint8_t* bytes, std::size_t size) {
    if (size < 2 || bytes[0] != 0xFF) return true;  // stb's JPEG reader wants a marker first
    std::size_t at = 0;
    auto nextMarker = [&]() -> int {
        while (at < size && bytes[at] != 0xFF) ++at;
        while (at < size && bytes[at] == 0xFF) ++at;  // fill bytes
        return at < size ? bytes[at++] : -1;
    };
    if (nextMarker() != 0xD8) return true;  // no start of image: not a JPEG to stb
    for (int marker = nextMarker(); marker >= 0 && marker != 0xD9; marker = nextMarker()) {
        // A stuffed zero, TEM, the restarts and SOI stand alone; every other marker has a length.
        if (marker == 0x00 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) continue;
        if (at + 2 > size) break;
        const std::size_t length = std::size_t{bytes[at]} << 8 | bytes[at + 1];
        if (marker == 0xC4) {
            // stb reads tables for as long as the segment has length left, even past its end.
            std::size_t table = at + 2;
            for (long left = static_cast<long>(length) - 2; left > 0;) {
                long codes = 0;
                for (std::size_t i = table + 1; i < table + 17; ++i) codes += i < size ? bytes[i] : 0;
                if (codes > 256) return false;
                table += 17 + static_cast<std::size_t>(codes);
                left -= 17 + codes;
            }
        }
        at += length;
    }
    return true;
}

// stb_image 2.27 grows its buffer for a PNG's compressed data to each IDAT chunk's declared
// length before it reads the chunk: gigabytes for a chunk that claims more than the file holds.
// Its walk over the chunks is this one: header, data, checksum, up to IEND.
bool pngDataChunksFit(const std::uint8_t* bytes, std::size_t size) {
    static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (size < sizeof kSignature || std::memcmp(bytes, kSignature, sizeof kSignature) != 0) return true;
    for (std::size_t at = sizeof kSignature; size - at >= 8;) {
        const std::size_t length = std::size_t{bytes[at]} << 24 | std::size_t{bytes[at + 1]} << 16 |
                                   std::size_t{bytes[at + 2]} << 8 | bytes[at + 3];
        const std::uint8_t* type = bytes + at + 4;
        if (std::memcmp(type, "IEND", 4) == 0) break;
        if (length > size - at - 8) return std::memcmp(type, "IDAT", 4) != 0;  // stb fails the rest
        at += 8 + length + 4;
        if (at > size) break;
    }
    return true;
}

// stb_image 2.27 reads a PNM header's three numbers into an int with no overflow check, so a
// long enough number wraps to any size at all. This reads them the way stb does: whitespace and
// comment lines, then digits.
bool pnmNumbersFit(const std::uint8_t* bytes, std::size_t size) {
    if (size < 2 || bytes[0] != 'P' || (bytes[1] != '5' && bytes[1] != '6')) return true;
    auto isSpace = [](std::uint8_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    std::size_t at = 2;
    for (int number = 0; number < 3; ++number) {
        for (;;) {
            while (at < size && isSpace(bytes[at])) ++at;
            if (at >= size || bytes[at] != '#') break;
            while (at < size && bytes[at] != '\n' && bytes[at] != '\r') ++at;
        }
        for (std::uint64_t value = 0; at < size && bytes[at] >= '0' && bytes[at] <= '9'; ++at) {
            value = value * 10 + (bytes[at] - '0');
            if (value > INT_MAX) return false;
        }
    }
    return true;
}

// stb_image 2.27 converts a 16-bit PNM's channels as if its samples were 8-bit, then reads the
// result as 16-bit samples, past the end of its buffer; such a file is loaded in its own
// channels (narrowed to 8 bits by stb) and widened to RGBA here.
bool isSixteenBitPnm(const std::uint8_t* bytes, std::size_t size) {
    return size >= 2 && bytes[0] == 'P' && (bytes[1] == '5' || bytes[1] == '6') &&
           stbi_is_16_bit_from_memory(bytes, static_cast<int>(size));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Pixels
// ---------------------------------------------------------------------------------------------

StbiPixels widenedToRgba(const stbi_uc* pixels, std::size_t pixelCount, int channels) {
    if (channels != 1 && channels != 3) return nullptr;
    StbiPixels rgba(static_cast<stbi_uc*>(std::malloc(pixelCount * kChannels)));
    if (!rgba) return nullptr;
    stbi_uc* out = rgba.get();
    for (std::size_t i = 0; i < pixelCount; ++i, pixels += channels, out += kChannels) {
        out[0] = pixels[0];
        out[1] = pixels[channels == 3 ? 1 : 0];
        out[2] = pixels[channels == 3 ? 2 : 0];
        out[kAlphaChannel] = 255;
    }
    return rgba;
}

void premultiply(stbi_uc* rgba, std::size_t pixelCount) {
    for (std::size_t i = 0; i < pixelCount; ++i, rgba += kChannels) {
        const unsigned a = rgba[kAlphaChannel];
        for (int c = 0; c < kAlphaChannel; ++c)
            rgba[c] = static_cast<stbi_uc>((rgba[c] * a + 127u) / 255u);
    }
}

// Non-negative kernels only: a kernel with negative lobes could push a colour channel above
// its alpha, which premultiplied data must never have.
stbir_filter filterFor(int from, std::uint32_t to) {
    return static_cast<std::uint32_t>(from) < to ? STBIR_FILTER_TRIANGLE : STBIR_FILTER_BOX;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Size and decoding
// ---------------------------------------------------------------------------------------------

ImageSize readImageSize(const std::uint8_t* bytes, std::size_t size, const std::string& path) {
    int width = 0, height = 0, fileChannels = 0;
    if (bytes == nullptr || size == 0 || size > static_cast<std::size_t>(INT_MAX) ||
        !jpegHuffmanTablesFit(bytes, size) || !pnmNumbersFit(bytes, size) ||
        !stbi_info_from_memory(bytes, static_cast<int>(size), &width, &height, &fileChannels) ||
        width <= 0 || height <= 0)
        throw std::runtime_error("Failed to load image: " + path);
    if (static_cast<std::uint32_t>(width) > kMaxImageSide || static_cast<std::uint32_t>(height) > kMaxImageSide)
        throw std::runtime_error("Image is larger than " + std::to_string(kMaxImageSide) + " x " +
                                 std::to_string(kMaxImageSide) + " pixels: " + path);
    return {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
}

std::vector<std::uint8_t> decodeImageToSquare(const std::uint8_t* bytes, std::size_t size,
                                              std::uint32_t edge, const std::string& path) {
    if (edge > kMaxEdge) throw std::runtime_error("Image edge length too large");

    // The header alone tells whether this is an image format at all and what decoding it costs.
    const ImageSize declared = readImageSize(bytes, size, path);

    if (!pngDataChunksFit(bytes, size)) throw std::runtime_error("Failed to decode image: " + path);
    const bool ownChannels = isSixteenBitPnm(bytes, size);
    int width = 0, height = 0, fileChannels = 0;
    StbiPixels pixels(stbi_load_from_memory(bytes, static_cast<int>(size), &width, &height,
                                            &fileChannels, ownChannels ? 0 : kChannels));
    // Callers budget by the declared size; pixels of any other size are not this file's image.
    if (!pixels || width <= 0 || height <= 0 || static_cast<std::uint32_t>(width) != declared.width ||
        static_cast<std::uint32_t>(height) != declared.height)
        throw std::runtime_error("Failed to decode image: " + path);
    const std::size_t pixelCount = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (ownChannels) {
        pixels = widenedToRgba(pixels.get(), pixelCount, fileChannels);
        if (!pixels) throw std::runtime_error("Failed to decode image: " + path);
    }

    premultiply(pixels.get(), pixelCount);

    // Already the layer's size: scaling would give the same pixels back.
    if (static_cast<std::uint32_t>(width) == edge && static_cast<std::uint32_t>(height) == edge)
        return std::vector<std::uint8_t>(pixels.get(), pixels.get() + pixelCount * kChannels);

    std::vector<std::uint8_t> square(static_cast<std::size_t>(edge) * edge * kChannels, 0);
    if (edge == 0) return square;
    const int edgeInt = static_cast<int>(edge);
    if (!stbir_resize(pixels.get(), width, height, width * kChannels, square.data(), edgeInt,
                      edgeInt, edgeInt * kChannels, STBIR_TYPE_UINT8, kChannels, kAlphaChannel,
                      STBIR_FLAG_ALPHA_PREMULTIPLIED, STBIR_EDGE_CLAMP, STBIR_EDGE_CLAMP,
                      filterFor(width, edge), filterFor(height, edge), STBIR_COLORSPACE_LINEAR,
                      nullptr))
        throw std::runtime_error("Failed to decode image: " + path);
    return square;
}

} // namespace brisvale
