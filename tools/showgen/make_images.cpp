// brisvale-make-images OUTDIR: the default show's images, 1024 x 1024 RGBA PNG each:
//   title.png    the title card: "Brisvale" and a subtitle on transparency, with a glow
//   marble.png   a tileable domain-warped marble in dusk colours
//   palette.png  eight colour ramps of 128 rows each, sampled by row
//   pattern.png  a tileable Truchet lattice (alpha = line coverage)
//   cover.png    400 x 400, the music's cover picture
#include "images/Canvas.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

namespace sg = brisvale::showgen;

namespace {

constexpr int kSize = 1024;
const std::string kFontDir = "/usr/share/fonts/truetype/dejavu/";
constexpr const char* kTitle = "Brisvale";
constexpr const char* kSubtitle = "LANTERNS OVER THE HARBOUR";

float mixf(float a, float b, float t) { return a + (b - a) * t; }
float smoothstepf(float e0, float e1, float x) {
    const float t = std::clamp((x - e0) / (e1 - e0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

// Title and subtitle coverage, centred on a canvas of the given size.
struct TitleMasks {
    sg::Mask title, subtitle, rule;
};

TitleMasks titleMasks(int size) {
    const float s = static_cast<float>(size) / kSize;
    sg::Font bold(kFontDir + "DejaVuSans-Bold.ttf");
    sg::Font light(kFontDir + "DejaVuSans.ttf");
    TitleMasks m{sg::Mask(size, size), sg::Mask(size, size), sg::Mask(size, size)};
    const float titleHeight = 210.0f * s, subHeight = 34.0f * s;
    const float titleTracking = 4.0f * s, subTracking = 7.0f * s;
    const float tw = bold.measure(kTitle, titleHeight, titleTracking);
    bold.draw(m.title, kTitle, (static_cast<float>(size) - tw) * 0.5f, 520.0f * s, titleHeight, titleTracking);
    const float sw = light.measure(kSubtitle, subHeight, subTracking);
    light.draw(m.subtitle, kSubtitle, (static_cast<float>(size) - sw) * 0.5f, 640.0f * s, subHeight, subTracking);
    // A hairline between the two that fades out at both ends.
    const float y0 = 572.0f * s, half = 1.2f * s;
    for (int y = 0; y < size; ++y) {
        const float fy = static_cast<float>(y) + 0.5f;
        const float cov = std::clamp(half + 0.5f - std::abs(fy - y0), 0.0f, 1.0f);
        if (cov <= 0.0f) continue;
        for (int x = 0; x < size; ++x) {
            const float u = (static_cast<float>(x) + 0.5f) / static_cast<float>(size);
            const float fade = smoothstepf(0.18f, 0.38f, u) * smoothstepf(0.82f, 0.62f, u);
            m.rule.at(x, y) = cov * fade;
        }
    }
    return m;
}

void drawTitleInto(sg::Canvas& c, const TitleMasks& m, float glowScale) {
    const int size = c.width();
    sg::Mask all(size, size);
    for (std::size_t i = 0; i < all.v.size(); ++i) all.v[i] = std::min(1.0f, m.title.v[i] + m.subtitle.v[i] * 0.8f + m.rule.v[i]);
    const sg::Mask wide = sg::blurred(all, std::max(2, static_cast<int>(22 * glowScale)));
    const sg::Mask near = sg::blurred(all, std::max(1, static_cast<int>(5 * glowScale)));
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const float g = std::min(1.0f, wide.at(x, y) * 1.4f) * 0.55f + std::min(1.0f, near.at(x, y)) * 0.35f;
            if (g > 0.0f) c.blend(x, y, {1.0f, 0.58f, 0.26f, std::min(1.0f, g)});
            const float t = std::max({m.title.at(x, y), m.subtitle.at(x, y), m.rule.at(x, y)});
            if (t > 0.0f) c.blend(x, y, {1.0f, 0.96f, 0.9f, t});
        }
    }
}

sg::Canvas titleCard() {
    sg::Canvas c(kSize, kSize);
    drawTitleInto(c, titleMasks(kSize), 1.0f);
    return c;
}

// Domain-warped fbm: f(p + 4 r), r = fbm(p + 4 q), q = fbm(p); every lookup tiles.
sg::Rgba marbleAt(float u, float v) {
    constexpr int period = 4;
    const float x = u * period, y = v * period;
    const float qx = sg::tiledFbm(x, y, period, 5, 11), qy = sg::tiledFbm(x + 5.2f, y + 1.3f, period, 5, 12);
    const float rx = sg::tiledFbm(x + 4.0f * qx + 1.7f, y + 4.0f * qy + 9.2f, period, 5, 13);
    const float ry = sg::tiledFbm(x + 4.0f * qx + 8.3f, y + 4.0f * qy + 2.8f, period, 5, 14);
    const float f = sg::tiledFbm(x + 4.0f * rx, y + 4.0f * ry, period, 6, 15);
    const float veins = std::pow(1.0f - std::abs(std::sin(f * 18.0f + rx * 6.0f)), 6.0f);
    sg::Rgba base = sg::palette(f * 1.3f + qx * 0.4f, {0.45f, 0.35f, 0.45f}, {0.35f, 0.3f, 0.35f}, {1.0f, 1.0f, 1.0f},
                                {0.62f, 0.72f, 0.82f});
    const float shade = mixf(0.55f, 1.05f, smoothstepf(0.2f, 0.8f, rx));
    base.r = base.r * shade + veins * 0.55f;
    base.g = base.g * shade + veins * 0.42f;
    base.b = base.b * shade + veins * 0.30f;
    base.a = 1.0f;
    return base;
}

sg::Canvas marble(int size) {
    sg::Canvas c(size, size);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            c.at(x, y) = marbleAt((static_cast<float>(x) + 0.5f) / static_cast<float>(size), (static_cast<float>(y) + 0.5f) / static_cast<float>(size));
    return c;
}

sg::Canvas paletteStrip() {
    struct P {
        std::array<float, 3> a, b, c, d;
    };
    // Dusk, harbour water, ember, aurora, ice, magenta neon, gold, night.
    const P ramps[8] = {
        {{0.5f, 0.5f, 0.5f}, {0.5f, 0.5f, 0.5f}, {1.0f, 1.0f, 1.0f}, {0.00f, 0.10f, 0.20f}},
        {{0.2f, 0.4f, 0.5f}, {0.2f, 0.3f, 0.4f}, {1.0f, 1.0f, 1.0f}, {0.50f, 0.55f, 0.60f}},
        {{0.6f, 0.3f, 0.15f}, {0.5f, 0.3f, 0.15f}, {0.8f, 0.8f, 0.8f}, {0.50f, 0.60f, 0.75f}},
        {{0.3f, 0.5f, 0.5f}, {0.3f, 0.5f, 0.4f}, {1.0f, 1.0f, 0.5f}, {0.80f, 0.90f, 0.30f}},
        {{0.6f, 0.7f, 0.8f}, {0.3f, 0.25f, 0.2f}, {1.0f, 1.0f, 1.0f}, {0.50f, 0.50f, 0.50f}},
        {{0.5f, 0.3f, 0.5f}, {0.5f, 0.3f, 0.5f}, {1.0f, 1.0f, 1.0f}, {0.90f, 0.15f, 0.55f}},
        {{0.7f, 0.55f, 0.3f}, {0.3f, 0.3f, 0.25f}, {1.0f, 1.0f, 1.0f}, {0.50f, 0.55f, 0.65f}},
        {{0.1f, 0.12f, 0.25f}, {0.1f, 0.12f, 0.2f}, {1.0f, 1.0f, 1.0f}, {0.50f, 0.55f, 0.55f}},
    };
    sg::Canvas c(kSize, kSize);
    for (int y = 0; y < kSize; ++y) {
        const P& p = ramps[y / 128];
        for (int x = 0; x < kSize; ++x) {
            sg::Rgba col = sg::palette((static_cast<float>(x) + 0.5f) / kSize, p.a, p.b, p.c, p.d);
            col.r = std::clamp(col.r, 0.0f, 1.0f);
            col.g = std::clamp(col.g, 0.0f, 1.0f);
            col.b = std::clamp(col.b, 0.0f, 1.0f);
            c.at(x, y) = col;
        }
    }
    return c;
}

// Quarter-circle Truchet tiles, 8 x 8; arcs meet at edge midpoints so the image tiles.
sg::Canvas pattern() {
    constexpr int cells = 8;
    constexpr float cell = static_cast<float>(kSize) / cells;
    constexpr float width = 0.085f;
    sg::Canvas c(kSize, kSize);
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const float fx = (static_cast<float>(x) + 0.5f) / cell, fy = (static_cast<float>(y) + 0.5f) / cell;
            const int cx = static_cast<int>(fx), cy = static_cast<int>(fy);
            float lx = fx - static_cast<float>(cx), ly = fy - static_cast<float>(cy);
            if (sg::hash2(cx, cy, 77) < 0.5f) lx = 1.0f - lx;
            const float d1 = std::abs(std::hypot(lx, ly) - 0.5f);
            const float d2 = std::abs(std::hypot(1.0f - lx, 1.0f - ly) - 0.5f);
            const float d = std::min(d1, d2);
            const float px = 1.0f / cell;
            const float line = smoothstepf(width + px, width - px, d);
            const float halo = std::exp(-d * 14.0f) * 0.35f;
            const float a = std::min(1.0f, line + halo * (1.0f - line));
            const float hue = sg::hash2(cx, cy, 78);
            sg::Rgba col = sg::palette(hue * 0.35f + 0.55f, {0.6f, 0.6f, 0.65f}, {0.4f, 0.35f, 0.35f}, {1.0f, 1.0f, 1.0f},
                                       {0.0f, 0.15f, 0.3f});
            col.r = mixf(col.r, 1.0f, line * 0.6f);
            col.g = mixf(col.g, 1.0f, line * 0.6f);
            col.b = mixf(col.b, 1.0f, line * 0.6f);
            col.a = a;
            c.at(x, y) = col;
        }
    }
    return c;
}

sg::Canvas cover() {
    constexpr int size = 400;
    sg::Canvas c = marble(size);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const float u = static_cast<float>(x) / size - 0.5f, v = static_cast<float>(y) / size - 0.5f;
            const float vignette = 0.25f + 0.5f * (1.0f - std::min(1.0f, (u * u + v * v) * 2.5f));
            sg::Rgba& p = c.at(x, y);
            p.r *= vignette;
            p.g *= vignette;
            p.b *= vignette * 1.1f;
        }
    }
    drawTitleInto(c, titleMasks(size), static_cast<float>(size) / kSize);
    return c;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: brisvale-make-images OUTDIR\n");
        return 2;
    }
    try {
        const std::string dir = argv[1];
        titleCard().writePng(dir + "/title.png");
        marble(kSize).writePng(dir + "/marble.png", false);
        paletteStrip().writePng(dir + "/palette.png");
        pattern().writePng(dir + "/pattern.png");
        cover().writePng(dir + "/cover.png", false);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "brisvale-make-images: %s\n", e.what());
        return 1;
    }
    return 0;
}
