// One start of the default show, timed: from the start of main to the first frame drawn and
// finished at 1920 x 1080 (offscreen, on whatever Vulkan device is present: lavapipe here),
// with the renderer's construction split into its parts. bench/render/startup.sh runs it in
// fresh processes: a first start with empty caches, then a second start with the pipeline cache
// (and the driver's own cache) that the first one left.
//
// Usage: render_startup [--cache DIR] [--show demo.dat] [--at SECONDS] [--size WxH]

#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/RendererTesting.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Device.h"
#include "render/gpu/OffscreenSurface.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace brisvale {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Options {
    std::optional<std::filesystem::path> cache;
    std::string show = BRISVALE_SHOW_DEMO_DAT;
    float at = 0.0f;
    std::uint32_t width = 1920;
    std::uint32_t height = 1080;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        if (name == "--cache") {
            options.cache = value;
        } else if (name == "--show") {
            options.show = value;
        } else if (name == "--at") {
            options.at = std::strtof(value, nullptr);
        } else if (name == "--size" && std::sscanf(value, "%ux%u", &options.width, &options.height) == 2) {
        } else {
            throw std::runtime_error("usage: render_startup [--cache DIR] [--show demo.dat] [--at S] [--size WxH]");
        }
    }
    return options;
}

int run(int argc, char** argv) {
    const auto started = Clock::now();
    const Options options = parse(argc, argv);
    auto archive = DemoArchive::load(options.show);
    const DemoManifest manifest = loadDemoManifest(*archive, "demo.ini");
    const double loaded = millisecondsSince(started);

    auto step = Clock::now();
    auto device = gpu::Device::create({});
    if (!device) throw std::runtime_error("no Vulkan device");
    gpu::OffscreenSurface surface(*device, options.width, options.height);
    const double deviceMs = millisecondsSince(step);

    step = Clock::now();
    Renderer renderer(device.get(), &surface, archive, manifest, [](std::function<void()>) {}, options.cache);
    const double constructionMs = millisecondsSince(step);
    const StartupTimes& parts = RendererTesting::impl(renderer).startupTimes;

    step = Clock::now();
    renderer.resize({options.width, options.height});
    renderer.draw(FrameInfo{options.at, 1.0f / 60.0f, 0.0f, 0.0f});
    device->waitIdle();
    device->completions().drain();
    const double frameMs = millisecondsSince(step);
    const double totalMs = millisecondsSince(started);

    std::printf("%-28s %7.0f ms\n", "archive and manifest", loaded);
    std::printf("%-28s %7.0f ms\n", "device", deviceMs);
    std::printf("%-28s %7.0f ms  (compile %.0f, pipelines %.0f, images %.0f beside them)\n", "renderer construction",
                constructionMs, parts.compileSeconds * 1e3, parts.pipelineSeconds * 1e3, parts.imageSeconds * 1e3);
    std::printf("%-28s %7.0f ms  (GPU %.0f ms)\n", "first frame, finished", frameMs,
                renderer.lastFrameGpuSeconds() * 1e3);
    std::printf("%-28s %7.0f ms\n", "start to first frame", totalMs);
    return 0;
}

} // namespace
} // namespace brisvale

int main(int argc, char** argv) {
    try {
        return brisvale::run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "render_startup: %s\n", error.what());
        return 1;
    }
}
