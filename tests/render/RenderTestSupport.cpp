#include "RenderTestSupport.h"

#include "render/gpu/CompletionThread.h"

#include <fstream>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>

namespace brisvale::testing {

// Layout of the marker shader, on a square target (clip space, y up):
// - compute: two rectangles of two triangles each (12 vertices): A, red, z 0.25, x in [-1, 0],
//   y in [-0.5, 0.5]; B, green, z 0.75, x in [-0.5, 0.5], same y. The request record asks for
//   uint(showDurationSeconds) vertices (12 when 0) with the overflow flag set when that exceeds
//   vertexCapacity; renderEndSeconds 2 forces the flag to 0 and 3 forces it to 1.
// - pass 1 quad: blue at alpha 0.5; its top eighth is opaque (resolution.x / 2048,
//   resolution.y / 2048, imageCount / 8).
// - pass 2 quad: (sampled depth, 0, 0) at alpha 0.5.
const char* const kMarkerShader = R"GLSL(
#include "lib/frame.glsl"

#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;
const vec2 corners[6] = vec2[6](vec2(0, 0), vec2(1, 0), vec2(0, 1), vec2(1, 0), vec2(1, 1), vec2(0, 1));
void scene_compute() {
    uint i = gl_GlobalInvocationID.x;
    if (i >= frame.vertexCapacity) return;
    if (i == 0u) {
        uint wanted = frame.showDurationSeconds > 0.0 ? uint(frame.showDurationSeconds) : 12u;
        uint flag = wanted > frame.vertexCapacity ? 1u : 0u;
        if (frame.renderEndSeconds == 2.0) flag = 0u;
        if (frame.renderEndSeconds == 3.0) flag = 1u;
        drawArguments.vertexCount = 12u;
        drawArguments.instanceCount = 1u;
        drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = wanted;
        request.overflowFlag = flag;
    }
    if (i >= 12u) return;
    bool isA = i < 6u;
    vec2 c = corners[i % 6u];
    float x = (isA ? -1.0 : -0.5) + c.x;
    float y = -0.5 + c.y;
    uint base = i * 7u;
    pool.words[base + 0u] = x;
    pool.words[base + 1u] = y;
    pool.words[base + 2u] = isA ? 0.25 : 0.75;
    pool.words[base + 3u] = isA ? 1.0 : 0.0;
    pool.words[base + 4u] = isA ? 0.0 : 1.0;
    pool.words[base + 5u] = 0.0;
    pool.words[base + 6u] = 1.0;
}
#endif

#ifdef BRISVALE_VERTEX
layout(location = 0) out vec4 vColor;
layout(location = 1) out vec2 vUv;
void scene_vertex() {
    if (frame.passIndex == 0u) {
        uint base = uint(gl_VertexIndex) * 7u;
        gl_Position = vec4(pool.words[base], pool.words[base + 1u], pool.words[base + 2u], 1.0);
        vColor = vec4(pool.words[base + 3u], pool.words[base + 4u], pool.words[base + 5u], pool.words[base + 6u]);
        vUv = vec2(0.0);
    } else {
        vec2 corner = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
        gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
        vColor = vec4(1.0);
        vUv = vec2(corner.x, 1.0 - corner.y);
    }
}
#endif

#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec4 vColor;
layout(location = 1) in vec2 vUv;
layout(location = 0) out vec4 outColor;
void scene_fragment() {
    if (frame.passIndex == 0u) {
        outColor = vColor;
    } else if (frame.passIndex == 1u) {
        if (vUv.y < 0.125) {
            outColor = vec4(frame.resolution.x / 2048.0, frame.resolution.y / 2048.0, float(frame.imageCount) / 8.0, 1.0);
        } else {
            outColor = vec4(0.0, 0.0, 1.0, 0.5);
        }
    } else {
        outColor = vec4(texture(sceneDepth, vUv).r, 0.0, 0.0, 0.5);
    }
}
#endif
)GLSL";

const std::vector<std::uint8_t>& frameInterface() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::ifstream in(BRISVALE_FRAME_INTERFACE, std::ios::binary);
        if (!in) throw std::runtime_error("cannot read " BRISVALE_FRAME_INTERFACE);
        return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
    }();
    return bytes;
}

std::vector<std::uint8_t> encodePng(std::uint32_t width, std::uint32_t height, const std::vector<std::uint8_t>& rgba) {
    std::vector<std::uint8_t> png;
    stbi_write_png_to_func(
        [](void* context, void* data, int size) {
            auto* out = static_cast<std::vector<std::uint8_t>*>(context);
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            out->insert(out->end(), bytes, bytes + size);
        },
        &png, static_cast<int>(width), static_cast<int>(height), 4, rgba.data(), static_cast<int>(width * 4));
    if (png.empty()) throw std::runtime_error("PNG encoding failed");
    return png;
}

std::vector<std::uint8_t> solidPng(std::uint32_t width, std::uint32_t height, std::uint8_t r, std::uint8_t g,
                                   std::uint8_t b, std::uint8_t a) {
    std::vector<std::uint8_t> rgba(std::size_t(width) * height * 4);
    for (std::size_t i = 0; i < rgba.size(); i += 4) {
        rgba[i] = r;
        rgba[i + 1] = g;
        rgba[i + 2] = b;
        rgba[i + 3] = a;
    }
    return encodePng(width, height, rgba);
}

DemoManifest markerManifest() {
    DemoManifest manifest;
    manifest.name = "Marker";
    manifest.shaderPath = "scene.glsl";
    manifest.assetManifestPath = "assets.txt";
    manifest.audioPath = "";
    return manifest;
}

std::shared_ptr<const DemoArchive> makeArchive(const TempDir& dir, const ShowFiles& files) {
    std::vector<ArchiveFile> entries;
    if (files.withShader) entries.push_back({"scene.glsl", toBytes(files.shader)});
    entries.push_back({"lib/frame.glsl", frameInterface()});
    std::vector<std::vector<std::uint8_t>> images = files.images;
    if (images.empty() && !files.assets) images.push_back(solidPng(4, 4, 255, 255, 255, 255));
    std::string assets;
    for (std::size_t i = 0; i < images.size(); ++i) {
        const std::string path = "images/" + std::to_string(i) + ".png";
        assets += "image." + std::to_string(i) + ".path = " + path + "\n";
        entries.push_back({path, images[i]});
    }
    if (files.withAssets) entries.push_back({"assets.txt", toBytes(files.assets.value_or(assets))});
    entries.insert(entries.end(), files.more.begin(), files.more.end());
    static int counter = 0;
    const std::string path = dir.file("demo" + std::to_string(counter++) + ".dat");
    writeArchiveFile(path, entries);
    return DemoArchive::load(path);
}

void GpuTest::finishFrames() {
    device_->waitIdle();
    device_->completions().drain();
}

Pixel pixelAt(const std::vector<std::uint8_t>& rgba, std::uint32_t width, std::uint32_t x, std::uint32_t y) {
    const std::size_t i = (std::size_t(y) * width + x) * 4;
    return Pixel{rgba.at(i), rgba.at(i + 1), rgba.at(i + 2), rgba.at(i + 3)};
}

Pixel expected(float r, float g, float b, float a) {
    auto byte = [](float v) { return static_cast<int>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f)); };
    return Pixel{byte(r), byte(g), byte(b), byte(a)};
}

::testing::AssertionResult near(Pixel actual, Pixel wanted, int tolerance) {
    const bool ok = std::abs(actual.r - wanted.r) <= tolerance && std::abs(actual.g - wanted.g) <= tolerance &&
                    std::abs(actual.b - wanted.b) <= tolerance && std::abs(actual.a - wanted.a) <= tolerance;
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "pixel (" << actual.r << ", " << actual.g << ", " << actual.b << ", "
                                         << actual.a << ") wanted (" << wanted.r << ", " << wanted.g << ", "
                                         << wanted.b << ", " << wanted.a << ") within " << tolerance;
}

} // namespace brisvale::testing
