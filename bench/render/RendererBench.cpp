// Renderer benchmarks on whatever Vulkan device is present (lavapipe here):
// - processor time of one draw call per phase (the main thread's CPU time, not GPU time and
//   not time spent waiting for a free slot), median of repetitions, in microseconds;
// - start-up split: shader compilation, pipeline creation, upload of one 1024 × 1024 image.
//   (bench/render/startup.sh times a whole start of the default show to its first frame.)

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "content/ShaderSource.h"
#include "render/RendererTesting.h"
#include "render/ShaderCompiler.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/OffscreenSurface.h"

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>

#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace brisvale {
namespace {

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string readFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(std::string("cannot read ") + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::uint8_t> gradientPng(std::uint32_t edge) {
    std::vector<std::uint8_t> rgba(std::size_t(edge) * edge * 4);
    for (std::uint32_t y = 0; y < edge; ++y) {
        for (std::uint32_t x = 0; x < edge; ++x) {
            std::uint8_t* p = &rgba[(std::size_t(y) * edge + x) * 4];
            p[0] = static_cast<std::uint8_t>(x);
            p[1] = static_cast<std::uint8_t>(y);
            p[2] = static_cast<std::uint8_t>(x ^ y);
            p[3] = 255;
        }
    }
    std::vector<std::uint8_t> png;
    stbi_write_png_to_func(
        [](void* context, void* data, int size) {
            auto* out = static_cast<std::vector<std::uint8_t>*>(context);
            out->insert(out->end(), static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + size);
        },
        &png, static_cast<int>(edge), static_cast<int>(edge), 4, rgba.data(), static_cast<int>(edge * 4));
    return png;
}

// One renderer on an offscreen surface, shared by the benchmarks of a run.
struct BenchShow {
    BenchShow() {
        const std::string source = readFile(BRISVALE_BENCH_SHADER);
        const std::string frame = readFile(BRISVALE_BENCH_FRAME_INTERFACE);
        const std::string text = "image.0.path = images/0.png\nimage.1.path = images/1.png\n";
        const std::vector<std::uint8_t> image = gradientPng(1024);
        path = (std::filesystem::temp_directory_path() / ("brisvale-bench-" + std::to_string(getpid()) + ".dat")).string();
        writeArchiveFile(path, {{"scene.glsl", std::vector<std::uint8_t>(source.begin(), source.end())},
                                {"lib/frame.glsl", std::vector<std::uint8_t>(frame.begin(), frame.end())},
                                {"assets.txt", std::vector<std::uint8_t>(text.begin(), text.end())},
                                {"images/0.png", image},
                                {"images/1.png", image}});
        archive = DemoArchive::load(path);
        manifest.shaderPath = "scene.glsl";
        manifest.assetManifestPath = "assets.txt";
        device = gpu::Device::create({});
        if (!device) throw std::runtime_error("no Vulkan device");
        surface = std::make_unique<gpu::OffscreenSurface>(*device, 1280, 720);
        renderer = std::make_unique<Renderer>(device.get(), surface.get(), archive, manifest,
                                              [this](std::function<void()> task) {
                                                  std::lock_guard lock(mutex);
                                                  tasks.push_back(std::move(task));
                                              });
        renderer->resize({1280, 720});
        expandedSource = expandShaderSource(*archive, "scene.glsl").text;
    }
    ~BenchShow() {
        renderer.reset();
        std::filesystem::remove(path);
    }
    // Lets the pool reach the size the show asks for, as in a running show.
    void settle(float t) {
        for (int i = 0; i < 8; ++i) {
            renderer->draw(FrameInfo{t, 1.0f / 60.0f, 0.0f, 0.0f});
            device->waitIdle();
            device->completions().drain();
            std::vector<std::function<void()>> ready;
            {
                std::lock_guard lock(mutex);
                ready.swap(tasks);
            }
            for (auto& task : ready) task();
        }
    }

    std::string path;
    std::string expandedSource;
    std::shared_ptr<const DemoArchive> archive;
    DemoManifest manifest;
    std::unique_ptr<gpu::Device> device;
    std::unique_ptr<gpu::OffscreenSurface> surface;
    std::unique_ptr<Renderer> renderer;
    std::mutex mutex;  // guards tasks: the completion thread posts, settle() runs them
    std::vector<std::function<void()>> tasks;
};

BenchShow& show() {
    static BenchShow instance;
    return instance;
}

void drawInPhase(benchmark::State& state, float t) {
    BenchShow& s = show();
    s.settle(t);
    for (auto _ : state) {
        const double start = threadCpuSeconds();
        s.renderer->draw(FrameInfo{t, 1.0f / 60.0f, 0.0f, 0.0f});
        state.SetIterationTime(threadCpuSeconds() - start);
    }
    s.device->waitIdle();
    s.device->completions().drain();
}

void BM_DrawIntro(benchmark::State& state) { drawInPhase(state, 2.0f); }
void BM_DrawMiddle(benchmark::State& state) { drawInPhase(state, 60.0f); }
void BM_DrawFinale(benchmark::State& state) { drawInPhase(state, 150.0f); }

void BM_StartupShaderCompilation(benchmark::State& state) {
    BenchShow& s = show();
    for (auto _ : state) {
        benchmark::DoNotOptimize(compileSceneShaders(s.expandedSource));
    }
}

void BM_StartupPipelines(benchmark::State& state) {
    BenchShow& s = show();
    Renderer::Impl& impl = RendererTesting::impl(*s.renderer);
    const CompiledShaders shaders = compileSceneShaders(s.expandedSource);
    for (auto _ : state) {
        benchmark::DoNotOptimize(impl.buildPipelines(shaders));  // scene, composite, compute side by side
    }
}

void BM_StartupImageUpload(benchmark::State& state) {
    BenchShow& s = show();
    Renderer::Impl& impl = RendererTesting::impl(*s.renderer);
    s.device->waitIdle();
    s.device->completions().drain();
    for (auto _ : state) {
        impl.loadTextureSlice(s.archive->open("images/1.png"), "images/1.png", *impl.imageTextureArray, 1,
                              1024);  // decode, scale, stage, copy, wait
    }
}

// Fixed iteration counts: each frame also costs GPU time, which manual timing leaves out.
constexpr int kRepetitions = 5;

BENCHMARK(BM_DrawIntro)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)->Iterations(120);
BENCHMARK(BM_DrawMiddle)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)->Iterations(120);
BENCHMARK(BM_DrawFinale)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)->Iterations(120);
BENCHMARK(BM_StartupShaderCompilation)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true)->Iterations(5);
BENCHMARK(BM_StartupPipelines)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true)->Iterations(5);
BENCHMARK(BM_StartupImageUpload)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true)->Iterations(5);

} // namespace
} // namespace brisvale

BENCHMARK_MAIN();
