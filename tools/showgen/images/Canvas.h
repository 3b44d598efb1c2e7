// Float RGBA canvases for the image generator: hashed value noise, blur, text through
// stb_truetype, and a dithered 8-bit PNG writer. All of it deterministic.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace brisvale::showgen {

struct Rgba {
    float r = 0, g = 0, b = 0, a = 0;
};

class Canvas {
public:
    Canvas(int width, int height) : width_(width), height_(height), px_(static_cast<std::size_t>(width) * height) {}
    int width() const { return width_; }
    int height() const { return height_; }
    Rgba& at(int x, int y) { return px_[static_cast<std::size_t>(y) * width_ + x]; }
    const Rgba& at(int x, int y) const { return px_[static_cast<std::size_t>(y) * width_ + x]; }
    // Straight-alpha "over" of one pixel.
    void blend(int x, int y, Rgba src);
    // 8-bit straight-alpha PNG, optionally triangular-dithered against banding. Throws on failure.
    void writePng(const std::string& path, bool dither = true) const;
    std::vector<std::uint8_t> encodePng(bool dither = true) const;
private:
    int width_, height_;
    std::vector<Rgba> px_;
};

// A single-channel float image (coverage, masks).
struct Mask {
    int width, height;
    std::vector<float> v;
    Mask(int w, int h) : width(w), height(h), v(static_cast<std::size_t>(w) * h, 0.0f) {}
    float& at(int x, int y) { return v[static_cast<std::size_t>(y) * width + x]; }
    float at(int x, int y) const { return v[static_cast<std::size_t>(y) * width + x]; }
};

// Three box passes each way: close to a Gaussian of the given radius.
Mask blurred(const Mask& m, int radius);

float hash2(int x, int y, std::uint32_t seed);           // [0, 1)
float valueNoise(float x, float y, std::uint32_t seed);  // smooth, [0, 1)
float tiledNoise(float x, float y, int period, std::uint32_t seed);
float fbm(float x, float y, int octaves, std::uint32_t seed);
float tiledFbm(float x, float y, int period, int octaves, std::uint32_t seed);

// Cosine palette a + b cos(2 pi (c t + d)).
Rgba palette(float t, std::array<float, 3> a, std::array<float, 3> b, std::array<float, 3> c, std::array<float, 3> d);

// Antialiased text coverage; returns the advance width of the run in pixels.
class Font {
public:
    explicit Font(const std::string& ttfPath);
    ~Font();
    Font(const Font&) = delete;
    Font& operator=(const Font&) = delete;
    float measure(const std::string& text, float pixelHeight, float tracking = 0.0f) const;
    // Draws `text` with its baseline at y and its left edge at x, adding coverage into `mask`.
    void draw(Mask& mask, const std::string& text, float x, float baseline, float pixelHeight, float tracking = 0.0f) const;
    float ascent(float pixelHeight) const;
private:
    struct Impl;
    std::vector<unsigned char> data_;
    std::unique_ptr<Impl> impl_;  // stbtt_fontinfo stays out of the header
};

}  // namespace brisvale::showgen
