// Raster helpers of the image generator.
#include "images/Canvas.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <stdexcept>

#define STB_TRUETYPE_IMPLEMENTATION
#define STBTT_STATIC
#include <stb/stb_truetype.h>
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_image_write.h>

namespace brisvale::showgen {

void Canvas::blend(int x, int y, Rgba s) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    Rgba& d = at(x, y);
    const float a = s.a + d.a * (1.0f - s.a);
    if (a <= 0.0f) {
        d = {};
        return;
    }
    d.r = (s.r * s.a + d.r * d.a * (1.0f - s.a)) / a;
    d.g = (s.g * s.a + d.g * d.a * (1.0f - s.a)) / a;
    d.b = (s.b * s.a + d.b * d.a * (1.0f - s.a)) / a;
    d.a = a;
}

std::vector<std::uint8_t> Canvas::encodePng(bool dither) const {
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(width_) * height_ * 4);
    for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
            const Rgba& p = at(x, y);
            const float c[4] = {p.r, p.g, p.b, p.a};
            for (int k = 0; k < 4; ++k) {
                // Triangular dither of one step hides 8-bit banding in smooth gradients.
                const float noise = hash2(x, y, 17u + static_cast<std::uint32_t>(k)) + hash2(x, y, 91u + static_cast<std::uint32_t>(k)) - 1.0f;
                const float v = std::clamp(c[k], 0.0f, 1.0f) * 255.0f + (k == 3 || !dither ? 0.0f : noise);
                bytes[(static_cast<std::size_t>(y) * width_ + x) * 4 + k] = static_cast<std::uint8_t>(std::clamp(std::lround(v), 0L, 255L));
            }
        }
    }
    int len = 0;
    unsigned char* png = stbi_write_png_to_mem(bytes.data(), width_ * 4, width_, height_, 4, &len);
    if (!png) throw std::runtime_error("PNG encoding failed");
    std::vector<std::uint8_t> out(png, png + len);
    STBIW_FREE(png);
    return out;
}

void Canvas::writePng(const std::string& path, bool dither) const {
    const std::vector<std::uint8_t> png = encodePng(dither);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
    if (!out) throw std::runtime_error("Cannot write " + path);
}

Mask blurred(const Mask& m, int radius) {
    Mask a = m, b = m;
    const int w = m.width, h = m.height;
    const float norm = 1.0f / static_cast<float>(2 * radius + 1);
    for (int pass = 0; pass < 3; ++pass) {
        for (int y = 0; y < h; ++y) {
            float sum = 0.0f;
            for (int x = -radius; x <= radius; ++x) sum += a.at(std::clamp(x, 0, w - 1), y);
            for (int x = 0; x < w; ++x) {
                b.at(x, y) = sum * norm;
                sum += a.at(std::min(x + radius + 1, w - 1), y) - a.at(std::max(x - radius, 0), y);
            }
        }
        for (int x = 0; x < w; ++x) {
            float sum = 0.0f;
            for (int y = -radius; y <= radius; ++y) sum += b.at(x, std::clamp(y, 0, h - 1));
            for (int y = 0; y < h; ++y) {
                a.at(x, y) = sum * norm;
                sum += b.at(x, std::min(y + radius + 1, h - 1)) - b.at(x, std::max(y - radius, 0));
            }
        }
    }
    return a;
}

float hash2(int x, int y, std::uint32_t seed) {
    std::uint32_t h = static_cast<std::uint32_t>(x) * 0x8da6b343u ^ static_cast<std::uint32_t>(y) * 0xd8163841u ^ seed * 0xcb1ab31fu;
    h ^= h >> 16;
    h *= 0x7feb352du;
    h ^= h >> 15;
    h *= 0x846ca68bu;
    h ^= h >> 16;
    return static_cast<float>(h >> 8) * (1.0f / 16777216.0f);
}

namespace {
float smooth(float t) { return t * t * t * (t * (t * 6.0f - 15.0f) + 10.0f); }

float noiseImpl(float x, float y, int period, std::uint32_t seed) {
    const float fx = std::floor(x), fy = std::floor(y);
    int x0 = static_cast<int>(fx), y0 = static_cast<int>(fy);
    int x1 = x0 + 1, y1 = y0 + 1;
    if (period > 0) {
        auto wrap = [period](int v) { return ((v % period) + period) % period; };
        x0 = wrap(x0); x1 = wrap(x1); y0 = wrap(y0); y1 = wrap(y1);
    }
    const float u = smooth(x - fx), v = smooth(y - fy);
    const float a = hash2(x0, y0, seed), b = hash2(x1, y0, seed), c = hash2(x0, y1, seed), d = hash2(x1, y1, seed);
    return (a + (b - a) * u) + ((c + (d - c) * u) - (a + (b - a) * u)) * v;
}
}  // namespace

float valueNoise(float x, float y, std::uint32_t seed) { return noiseImpl(x, y, 0, seed); }
float tiledNoise(float x, float y, int period, std::uint32_t seed) { return noiseImpl(x, y, period, seed); }

float fbm(float x, float y, int octaves, std::uint32_t seed) {
    float sum = 0.0f, amp = 0.5f, norm = 0.0f;
    for (int i = 0; i < octaves; ++i) {
        sum += amp * valueNoise(x, y, seed + static_cast<std::uint32_t>(i) * 131u);
        norm += amp;
        const float nx = 1.6f * x + 1.2f * y, ny = -1.2f * x + 1.6f * y;  // rotate to hide the grid
        x = nx + 3.1f;
        y = ny + 7.7f;
        amp *= 0.5f;
    }
    return sum / norm;
}

float tiledFbm(float x, float y, int period, int octaves, std::uint32_t seed) {
    float sum = 0.0f, amp = 0.5f, norm = 0.0f;
    for (int i = 0; i < octaves; ++i) {
        sum += amp * tiledNoise(x, y, period, seed + static_cast<std::uint32_t>(i) * 131u);
        norm += amp;
        x *= 2.0f;
        y *= 2.0f;
        period *= 2;
        amp *= 0.5f;
    }
    return sum / norm;
}

Rgba palette(float t, std::array<float, 3> a, std::array<float, 3> b, std::array<float, 3> c, std::array<float, 3> d) {
    constexpr float twoPi = 6.28318530718f;
    return {a[0] + b[0] * std::cos(twoPi * (c[0] * t + d[0])), a[1] + b[1] * std::cos(twoPi * (c[1] * t + d[1])),
            a[2] + b[2] * std::cos(twoPi * (c[2] * t + d[2])), 1.0f};
}

struct Font::Impl {
    stbtt_fontinfo info;
};

Font::Font(const std::string& ttfPath) : impl_(std::make_unique<Impl>()) {
    std::ifstream in(ttfPath, std::ios::binary);
    if (!in) throw std::runtime_error("Cannot read font " + ttfPath);
    data_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (!stbtt_InitFont(&impl_->info, data_.data(), stbtt_GetFontOffsetForIndex(data_.data(), 0)))
        throw std::runtime_error("Cannot parse font " + ttfPath);
}

Font::~Font() = default;

float Font::ascent(float pixelHeight) const {
    int ascent = 0, descent = 0, gap = 0;
    stbtt_GetFontVMetrics(&impl_->info, &ascent, &descent, &gap);
    return static_cast<float>(ascent) * stbtt_ScaleForPixelHeight(&impl_->info, pixelHeight);
}

float Font::measure(const std::string& text, float pixelHeight, float tracking) const {
    const float scale = stbtt_ScaleForPixelHeight(&impl_->info, pixelHeight);
    float x = 0.0f;
    for (std::size_t i = 0; i < text.size(); ++i) {
        int advance = 0, lsb = 0;
        stbtt_GetCodepointHMetrics(&impl_->info, text[i], &advance, &lsb);
        x += static_cast<float>(advance) * scale + tracking;
        if (i + 1 < text.size()) x += static_cast<float>(stbtt_GetCodepointKernAdvance(&impl_->info, text[i], text[i + 1])) * scale;
    }
    return x - tracking;
}

void Font::draw(Mask& mask, const std::string& text, float x, float baseline, float pixelHeight, float tracking) const {
    const float scale = stbtt_ScaleForPixelHeight(&impl_->info, pixelHeight);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int cp = static_cast<unsigned char>(text[i]);
        const float fx = std::floor(x), fy = std::floor(baseline);
        int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
        stbtt_GetCodepointBitmapBoxSubpixel(&impl_->info, cp, scale, scale, x - fx, baseline - fy, &x0, &y0, &x1, &y1);
        const int w = x1 - x0, h = y1 - y0;
        if (w > 0 && h > 0) {
            std::vector<unsigned char> glyph(static_cast<std::size_t>(w) * h);
            stbtt_MakeCodepointBitmapSubpixel(&impl_->info, glyph.data(), w, h, w, scale, scale, x - fx, baseline - fy, cp);
            for (int gy = 0; gy < h; ++gy) {
                for (int gx = 0; gx < w; ++gx) {
                    const int px = static_cast<int>(fx) + x0 + gx, py = static_cast<int>(fy) + y0 + gy;
                    if (px < 0 || py < 0 || px >= mask.width || py >= mask.height) continue;
                    float& m = mask.at(px, py);
                    m = std::min(1.0f, m + glyph[static_cast<std::size_t>(gy) * w + gx] / 255.0f);
                }
            }
        }
        int advance = 0, lsb = 0;
        stbtt_GetCodepointHMetrics(&impl_->info, cp, &advance, &lsb);
        x += static_cast<float>(advance) * scale + tracking;
        if (i + 1 < text.size()) x += static_cast<float>(stbtt_GetCodepointKernAdvance(&impl_->info, cp, text[i + 1])) * scale;
    }
}

}  // namespace brisvale::showgen
