// decodeImageToSquare on real encoded files made here with stb_image_write (PNG, BMP, TGA,
// JPEG) and small hand-written GIF, PNM and PSD files: premultiplied colour, row order, filling
// the square, the failure messages, and what a stranger's file must not get out of the decoder
// (formats a show has no use for, sizes that cost more than any show needs).
//
// [SECTION] Test images
// [SECTION] Colour and alpha
// [SECTION] Geometry
// [SECTION] Other formats, recognised from their content
// [SECTION] Failures
#include <gtest/gtest.h>

#include <stb/stb_image_write.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "render/ImageDecode.h"

namespace brisvale {
namespace {

using Bytes = std::vector<std::uint8_t>;

// ---------------------------------------------------------------------------------------------
// [SECTION] Test images
// ---------------------------------------------------------------------------------------------

struct Rgba {
    std::uint8_t r, g, b, a;
};

enum class Format { Png, Bmp, Tga, Jpeg };

const char* nameOf(Format f) {
    switch (f) {
    case Format::Png: return "png";
    case Format::Bmp: return "bmp";
    case Format::Tga: return "tga";
    case Format::Jpeg: return "jpeg";
    }
    return "?";
}

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    const auto* p = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), p, p + size);
}

// Encodes straight-alpha RGBA pixels (top row first) as a file of the given format.
Bytes encode(Format format, int width, int height, const std::vector<Rgba>& pixels) {
    Bytes out;
    int ok = 0;
    switch (format) {
    case Format::Png:
        ok = stbi_write_png_to_func(appendBytes, &out, width, height, 4, pixels.data(), width * 4);
        break;
    case Format::Bmp:
        ok = stbi_write_bmp_to_func(appendBytes, &out, width, height, 4, pixels.data());
        break;
    case Format::Tga:
        ok = stbi_write_tga_to_func(appendBytes, &out, width, height, 4, pixels.data());
        break;
    case Format::Jpeg:
        ok = stbi_write_jpg_to_func(appendBytes, &out, width, height, 4, pixels.data(), 100);
        break;
    }
    if (!ok || out.empty()) throw std::runtime_error("test image encoding failed");
    return out;
}

Bytes solid(Format format, int width, int height, Rgba colour) {
    return encode(format, width, height,
                  std::vector<Rgba>(static_cast<std::size_t>(width) * height, colour));
}

Rgba at(const Bytes& square, std::uint32_t edge, std::uint32_t x, std::uint32_t y) {
    const std::size_t i = (static_cast<std::size_t>(y) * edge + x) * 4;
    return {square[i], square[i + 1], square[i + 2], square[i + 3]};
}

// A PNG that declares width x height in its header and holds no pixel data.
Bytes pngDeclaring(std::uint32_t width, std::uint32_t height) {
    Bytes png = solid(Format::Png, 1, 1, {0, 0, 0, 255});
    png.resize(33); // 8-byte signature + the 25-byte IHDR chunk
    for (int i = 0; i < 4; ++i) {
        png[16 + i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
        png[20 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
    }
    return png;
}

Bytes decode(const Bytes& file, std::uint32_t edge, const std::string& path = "images/test") {
    return decodeImageToSquare(file.data(), file.size(), edge, path);
}

std::string errorOf(const Bytes& file, const std::string& path) {
    try {
        decode(file, 16, path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Colour and alpha
// ---------------------------------------------------------------------------------------------

TEST(ImageDecode, HalfTransparentRedIsStoredPremultiplied) {
    for (Format format : {Format::Png, Format::Bmp, Format::Tga}) {
        SCOPED_TRACE(nameOf(format));
        const Bytes square = decode(solid(format, 3, 2, {255, 0, 0, 128}), 32);
        ASSERT_EQ(square.size(), 32u * 32u * 4u);
        for (std::uint32_t y : {0u, 15u, 31u}) {
            for (std::uint32_t x : {0u, 16u, 31u}) {
                const Rgba p = at(square, 32, x, y);
                EXPECT_NEAR(p.r, 128, 1);
                EXPECT_EQ(p.g, 0);
                EXPECT_EQ(p.b, 0);
                EXPECT_EQ(p.a, 128);
            }
        }
    }
}

TEST(ImageDecode, OpaqueJpegKeepsItsColourAndFullAlpha) {
    const Bytes square = decode(solid(Format::Jpeg, 16, 16, {255, 0, 0, 255}), 8);
    for (std::uint32_t i = 0; i < 8 * 8; ++i) {
        const Rgba p = at(square, 8, i % 8, i / 8);
        EXPECT_GE(p.r, 245);
        EXPECT_LE(p.g, 10);
        EXPECT_LE(p.b, 10);
        EXPECT_EQ(p.a, 255);
    }
}

TEST(ImageDecode, TransparentPixelsBleedNoColourIntoTheirNeighbours) {
    // The right half is fully transparent but holds pure green in its colour channels.
    std::vector<Rgba> pixels;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x)
            pixels.push_back(x < 2 ? Rgba{255, 0, 0, 255} : Rgba{0, 255, 0, 0});
    const Bytes square = decode(encode(Format::Png, 4, 4, pixels), 64);
    bool sawEdge = false;
    for (std::uint32_t x = 0; x < 64; ++x) {
        const Rgba p = at(square, 64, x, 32);
        EXPECT_EQ(p.g, 0) << "x " << x;
        EXPECT_EQ(p.r, p.a) << "x " << x; // pure red, premultiplied: red equals alpha
        if (p.a > 0 && p.a < 255) sawEdge = true;
    }
    EXPECT_TRUE(sawEdge) << "scaling should blend across the boundary";
    EXPECT_EQ(at(square, 64, 0, 0).a, 255);
    EXPECT_EQ(at(square, 64, 63, 63).a, 0);
}

TEST(ImageDecode, ColourNeverExceedsAlphaAfterScaling) {
    // A noisy image with sharp alpha steps, scaled both down and up.
    std::vector<Rgba> pixels;
    std::uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return static_cast<std::uint8_t>(state >> 24);
    };
    for (int i = 0; i < 40 * 24; ++i)
        pixels.push_back({next(), next(), next(), static_cast<std::uint8_t>(next() & 0xC0)});
    const Bytes file = encode(Format::Png, 40, 24, pixels);
    for (std::uint32_t edge : {16u, 100u}) {
        const Bytes square = decode(file, edge);
        for (std::size_t i = 0; i < square.size(); i += 4) {
            ASSERT_LE(square[i], square[i + 3]) << "pixel " << i / 4;
            ASSERT_LE(square[i + 1], square[i + 3]) << "pixel " << i / 4;
            ASSERT_LE(square[i + 2], square[i + 3]) << "pixel " << i / 4;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Geometry
// ---------------------------------------------------------------------------------------------

TEST(ImageDecode, TheFileTopRowIsRowZero) {
    std::vector<Rgba> pixels;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x)
            pixels.push_back(y == 0 ? Rgba{255, 255, 255, 255} : Rgba{0, 0, 255, 255});
    // BMP and TGA store rows bottom-up in the file; the decoder must still put the top first.
    for (Format format : {Format::Png, Format::Bmp, Format::Tga}) {
        SCOPED_TRACE(nameOf(format));
        const Bytes square = decode(encode(format, 4, 4, pixels), 16);
        const Rgba top = at(square, 16, 8, 0);
        const Rgba bottom = at(square, 16, 8, 15);
        EXPECT_EQ(top.r, 255);
        EXPECT_EQ(top.g, 255);
        EXPECT_EQ(bottom.r, 0);
        EXPECT_EQ(bottom.b, 255);
    }
}

TEST(ImageDecode, WideImageFillsTheWholeSquare) {
    // Red runs with x and green with y, so every output pixel says where it was taken from.
    constexpr int kWidth = 2048, kHeight = 512;
    constexpr std::uint32_t kEdge = 1024;
    std::vector<Rgba> pixels;
    pixels.reserve(static_cast<std::size_t>(kWidth) * kHeight);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            pixels.push_back({static_cast<std::uint8_t>(x * 255 / (kWidth - 1)),
                              static_cast<std::uint8_t>(y * 255 / (kHeight - 1)), 64, 255});
    const Bytes square = decode(encode(Format::Png, kWidth, kHeight, pixels), kEdge);
    ASSERT_EQ(square.size(), std::size_t{kEdge} * kEdge * 4);

    const std::uint32_t last = kEdge - 1, mid = kEdge / 2;
    const struct {
        std::uint32_t x, y;
    } probes[] = {{0, 0},      {last, 0}, {0, last},   {last, last}, {mid, 0},
                  {mid, last}, {0, mid},  {last, mid}, {mid, mid}};
    for (const auto& probe : probes) {
        const Rgba p = at(square, kEdge, probe.x, probe.y);
        const int expectRed = static_cast<int>(probe.x * 255 / last);
        const int expectGreen = static_cast<int>(probe.y * 255 / last);
        EXPECT_NEAR(p.r, expectRed, 3) << probe.x << "," << probe.y;
        EXPECT_NEAR(p.g, expectGreen, 3) << probe.x << "," << probe.y;
        EXPECT_EQ(p.b, 64);
        EXPECT_EQ(p.a, 255);
    }
}

TEST(ImageDecode, OnePixelImageFillsTheSquareWithItsColour) {
    const Bytes square = decode(solid(Format::Png, 1, 1, {10, 200, 30, 255}), 64);
    for (std::uint32_t i = 0; i < 64 * 64; ++i) {
        const Rgba p = at(square, 64, i % 64, i / 64);
        ASSERT_EQ(p.r, 10);
        ASSERT_EQ(p.g, 200);
        ASSERT_EQ(p.b, 30);
        ASSERT_EQ(p.a, 255);
    }
}

TEST(ImageDecode, OutputIsEdgeSquaredTimesFour) {
    const Bytes file = solid(Format::Tga, 5, 7, {1, 2, 3, 255});
    EXPECT_EQ(decode(file, 1).size(), 4u);
    EXPECT_EQ(decode(file, 3).size(), 36u);
    EXPECT_EQ(decode(file, 1024).size(), 4194304u);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Other formats, recognised from their content
// ---------------------------------------------------------------------------------------------

TEST(ImageDecode, HandWrittenPnmGifAndPsdAreRecognised) {
    const std::string pnm = "P6\n2 1\n255\n";
    Bytes ppm(pnm.begin(), pnm.end());
    for (std::uint8_t b : {0, 0, 255, 0, 0, 255}) ppm.push_back(b); // two blue pixels
    const Rgba fromPnm = at(decode(ppm, 4), 4, 1, 1);
    EXPECT_EQ(fromPnm.b, 255);
    EXPECT_EQ(fromPnm.r, 0);
    EXPECT_EQ(fromPnm.a, 255);

    // 16-bit samples (big-endian), grey and colour: stb's own conversion of these read past
    // the end of its buffer.
    const std::string pgmHeader = "P5 3 1 65535\n";
    Bytes pgm(pgmHeader.begin(), pgmHeader.end());
    for (std::uint8_t b : {0x00, 0x00, 0x80, 0x80, 0xFF, 0xFF}) pgm.push_back(b);
    const Bytes greys = decode(pgm, 3);
    EXPECT_EQ(at(greys, 3, 0, 0).r, 0);
    EXPECT_EQ(at(greys, 3, 1, 1).g, 128);
    EXPECT_EQ(at(greys, 3, 2, 2).b, 255);
    EXPECT_EQ(at(greys, 3, 1, 1).a, 255);
    const std::string ppmHeader = "P6 1 1 65535\n";
    Bytes ppm16(ppmHeader.begin(), ppmHeader.end());
    for (std::uint8_t b : {0xFF, 0xFF, 0x00, 0x00, 0x80, 0x80}) ppm16.push_back(b);
    const Rgba fromPpm16 = at(decode(ppm16, 2), 2, 1, 1);
    EXPECT_EQ(fromPpm16.r, 255);
    EXPECT_EQ(fromPpm16.g, 0);
    EXPECT_EQ(fromPpm16.b, 128);
    EXPECT_EQ(fromPpm16.a, 255);

    // A 1x1 GIF89a whose only pixel is palette entry 0, pure red.
    const Bytes gif = {'G',  'I', 'F',  '8',  '9', 'a', 1, 0, 1, 0,
                       0x80, 0,   0,    0xFF, 0,   0,   0, 0, 0,    // palette: red, black
                       0x2C, 0,   0,    0,    0,   1,   0, 1, 0, 0, // image descriptor
                       2,    2,   0x44, 0x01, 0,                    // LZW data
                       0x3B};
    const Rgba fromGif = at(decode(gif, 4), 4, 2, 2);
    EXPECT_EQ(fromGif.r, 255);
    EXPECT_EQ(fromGif.g, 0);
    EXPECT_EQ(fromGif.a, 255);

    // A 1x1 RGB Photoshop file, raw planes, whose only pixel is pure green.
    const Bytes psd = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, // signature, version, reserved
                       0,   3,   0,   0,   0, 1, 0, 0, 0, 1,       // channels, height, width
                       0,   8,   0,   3,                           // depth, RGB mode
                       0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 0, // no mode data, resources, layers
                       0,   0,   0,   255, 0};                     // raw; R, G, B planes
    const Rgba fromPsd = at(decode(psd, 4), 4, 3, 0);
    EXPECT_EQ(fromPsd.r, 0);
    EXPECT_EQ(fromPsd.g, 255);
    EXPECT_EQ(fromPsd.a, 255);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Failures
// ---------------------------------------------------------------------------------------------

TEST(ImageDecode, TextIsNotAnImage) {
    const std::string text = "This file lists the images of the show, not an image.\n";
    EXPECT_EQ(errorOf(Bytes(text.begin(), text.end()), "images/readme.txt"),
              "Failed to load image: images/readme.txt");
    EXPECT_EQ(errorOf(Bytes{}, "images/empty.png"), "Failed to load image: images/empty.png");
}

TEST(ImageDecode, KnownFormatWithoutPixelsFailsToDecode) {
    // Signature and header survive, the pixel data does not.
    Bytes png = solid(Format::Png, 8, 8, {1, 2, 3, 255});
    png.resize(33); // 8-byte signature + the 25-byte IHDR chunk
    EXPECT_EQ(errorOf(png, "images/cut.png"), "Failed to decode image: images/cut.png");
}

TEST(ImageDecode, FormatsNoShowNeedsAreNotImages) {
    // Softimage PIC, 1x1, one uncompressed RGB packet: a red pixel the decoder used to read.
    Bytes pic = {0x53, 0x80, 0xF6, 0x34};
    pic.resize(88, 0);
    const Bytes header = {'P', 'I', 'C', 'T', 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, // 1x1, ratio...
                          0,   8,   0,   0xE0, 255, 0, 0};                        // packet, pixel
    pic.insert(pic.end(), header.begin(), header.end());
    EXPECT_EQ(errorOf(pic, "images/old.pic"), "Failed to load image: images/old.pic");

    // Radiance HDR whose run-length scanline ends at the end of the file: the HDR decoder read
    // zero-length runs from it for ever.
    const std::string hdr = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 8\n";
    Bytes endless(hdr.begin(), hdr.end());
    for (std::uint8_t b : {2, 2, 0, 8}) endless.push_back(b);
    EXPECT_EQ(errorOf(endless, "images/sky.hdr"), "Failed to load image: images/sky.hdr");
}

TEST(ImageDecode, AJpegHuffmanTableWithMoreThan256CodesIsRefused) {
    // A real JPEG with an extra table (DC, slot 3, unused by the image) declaring 300 codes:
    // the decoder wrote them past the end of its 256-entry arrays and then decoded the image.
    const Bytes jpeg = solid(Format::Jpeg, 8, 8, {0, 200, 0, 255});
    ASSERT_NO_THROW(decode(jpeg, 2));
    Bytes table = {0xFF, 0xC4, 0x01, 0x3F, 0x03}; // DHT, length 2 + 17 + 300, class 0 slot 3
    table.resize(table.size() + 14, 0);
    table.push_back(45);  // codes of 15 bits
    table.push_back(255); // codes of 16 bits
    table.resize(table.size() + 300, 7);
    Bytes bad(jpeg.begin(), jpeg.begin() + 2); // start of image
    bad.insert(bad.end(), table.begin(), table.end());
    bad.insert(bad.end(), jpeg.begin() + 2, jpeg.end());
    EXPECT_EQ(errorOf(bad, "images/tables.jpg"), "Failed to load image: images/tables.jpg");
}

TEST(ImageDecode, APnmWidthBeyondTheDecodersIntegersIsRefused) {
    // 2^32 + 1 pixels wide: the decoder's int wrapped round to a 1-pixel-wide image.
    const std::string header = "P6 4294967297 1 255\n";
    Bytes ppm(header.begin(), header.end());
    for (std::uint8_t b : {10, 20, 30}) ppm.push_back(b);
    EXPECT_EQ(errorOf(ppm, "images/wrap.ppm"), "Failed to load image: images/wrap.ppm");
}

TEST(ImageDecode, AbsurdSizesAreRefusedFromTheHeaderAlone) {
    // Each would cost its full decoded size (16384 x 16384: a gigabyte) from a file of a few bytes.
    EXPECT_EQ(errorOf(pngDeclaring(16384, 16384), "images/huge.png"),
              "Image is larger than 8192 x 8192 pixels: images/huge.png");
    EXPECT_EQ(errorOf(pngDeclaring(8193, 1), "images/wide.png"),
              "Image is larger than 8192 x 8192 pixels: images/wide.png");
    EXPECT_EQ(errorOf(pngDeclaring(1, 8193), "images/tall.png"),
              "Image is larger than 8192 x 8192 pixels: images/tall.png");

    const ImageSize declared = readImageSize(pngDeclaring(8192, 3).data(), 33, "images/edge.png");
    EXPECT_EQ(declared.width, 8192u);
    EXPECT_EQ(declared.height, 3u);
}

TEST(ImageDecode, EdgeZeroGivesNoPixelsAndAHugeEdgeIsRefused) {
    const Bytes file = solid(Format::Png, 2, 2, {1, 2, 3, 255});
    EXPECT_TRUE(decode(file, 0).empty());
    EXPECT_THROW(decode(file, 1u << 20), std::runtime_error);
}

} // namespace
} // namespace brisvale
