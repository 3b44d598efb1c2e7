// What the default show's shaders cost per pixel in each phase, on whatever Vulkan device is
// present (lavapipe here, where "GPU time" is processor time of the whole process).
//
// Each iteration draws one frame at each of a phase's show times at a fixed size and waits for
// it. The time taken is the process's processor time (all of lavapipe's threads), which other
// work on a busy machine disturbs far less than the wall clock; the least of a few iterations
// counts. A plain show (one flat quad, no geometry) is drawn the same way and its cost, the
// renderer's and the device's own share of a frame, is subtracted: what remains is the
// shaders' cost, reported per pixel and for one 1920 x 1080 frame.
//
// BRISVALE_BENCH_BASELINE_SHOW=other/demo.dat also measures an older build of the show, in
// turns with the current one, and prints how many times cheaper the current shaders are (the
// goal is 3x or more in every phase); bench/render/show_cost.sh packs that older build from a
// commit's shaders and runs this. BRISVALE_BENCH_SHOW replaces the built show.
//
// [SECTION] Shows
// [SECTION] Measurement
// [SECTION] Summary

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/Renderer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Device.h"
#include "render/gpu/OffscreenSurface.h"

#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace brisvale {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Shows
// ---------------------------------------------------------------------------------------------

constexpr std::uint32_t kWidth = 640, kHeight = 360;  // a ninth of 1920 x 1080
constexpr double kFullHdPixels = 1920.0 * 1080.0;
constexpr double kGoal = 3.0;  // times cheaper than the baseline, in every phase

struct Phase {
    const char* name;
    std::vector<float> times;
};

// Show times that cover each phase's scenes (the middle's times are one per section).
const std::vector<Phase>& phases() {
    static const std::vector<Phase> list = {
        {"intro", {2.0f, 5.0f, 8.6f}},
        {"middle", {12.0f, 35.0f, 55.0f, 70.0f, 90.0f, 100.0f, 125.0f, 138.0f}},
        {"finale", {143.0f, 146.0f, 150.0f, 155.0f}},
    };
    return list;
}

// The renderer's floor: one flat quad, an empty compute pass, nothing drawn from the pool.
constexpr const char* kPlainShader = R"(
#include "lib/frame.glsl"
#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;
void scene_compute() {
    if (gl_GlobalInvocationID.x != 0u) return;
    drawArguments.vertexCount = 0u;
    drawArguments.instanceCount = 0u;
    drawArguments.firstVertex = 0u;
    drawArguments.firstInstance = 0u;
    request.requestedVertexCount = 0u;
    request.overflowFlag = 0u;
}
#endif
#ifdef BRISVALE_VERTEX
void scene_vertex() {
    vec2 corner = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
    gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
}
#endif
#ifdef BRISVALE_FRAGMENT
layout(location = 0) out vec4 outColour;
void scene_fragment() { outColour = vec4(0.1, 0.2, 0.3, frame.passIndex == 2u ? 0.0 : 1.0); }
#endif
)";

// The default show's archive with its shader replaced by the plain one, in a temporary file.
std::shared_ptr<const DemoArchive> plainShowLike(const DemoArchive& show, const DemoManifest& manifest) {
    std::vector<ArchiveFile> files;
    for (const auto& [path, entry] : show.entries()) {
        if (path == manifest.shaderPath) continue;
        files.push_back({path, show.readCopy(path)});
    }
    const std::string shader = kPlainShader;
    files.push_back({manifest.shaderPath, std::vector<std::uint8_t>(shader.begin(), shader.end())});
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("brisvale-plain-show-" + std::to_string(getpid()) + ".dat");
    writeArchiveFile(path.string(), files, {2, ArchiveCompression::None});
    auto archive = DemoArchive::load(path.string());
    std::filesystem::remove(path);
    return archive;
}

// One renderer drawing one show on an offscreen surface.
class ShowRig {
public:
    ShowRig(gpu::Device& device, std::shared_ptr<const DemoArchive> archive, const DemoManifest& manifest,
            float songSeconds)
        : device_(device), surface_(device, kWidth, kHeight), songSeconds_(songSeconds),
          renderer_(&device, &surface_, std::move(archive), manifest, [this](std::function<void()> task) {
              std::lock_guard lock(mutex_);
              tasks_.push_back(std::move(task));
          }) {
        renderer_.resize({kWidth, kHeight});
    }

    // The pool only grows: let it reach what the phase asks for, so no measured frame asks again.
    void settle(const Phase& phase) {
        for (float t : phase.times)
            for (int attempt = 0; attempt < 8 && drawAndWait(t) > 0; ++attempt) {
            }
    }

    // Returns how many posted tasks (pool growths) ran after the frame.
    std::size_t drawAndWait(float t) {
        renderer_.draw(FrameInfo{t, 1.0f / 60.0f, songSeconds_, songSeconds_ + 3.75f});
        device_.waitIdle();
        device_.completions().drain();
        std::vector<std::function<void()>> ready;
        {
            std::lock_guard lock(mutex_);
            ready.swap(tasks_);
        }
        for (auto& task : ready) task();
        return ready.size();
    }

private:
    gpu::Device& device_;
    gpu::OffscreenSurface surface_;
    float songSeconds_;
    std::mutex mutex_;  // guards tasks_: the completion thread posts pool growth, drawAndWait runs it
    std::vector<std::function<void()>> tasks_;
    Renderer renderer_;
};

struct Rigs {
    Rigs() {
        device = gpu::Device::create({});
        if (!device) throw std::runtime_error("no Vulkan device");
        const char* chosen = std::getenv("BRISVALE_BENCH_SHOW");
        auto show = DemoArchive::load(chosen && *chosen ? chosen : BRISVALE_SHOW_DEMO_DAT);
        const DemoManifest manifest = loadDemoManifest(*show, "demo.ini");
        plain = std::make_unique<ShowRig>(*device, plainShowLike(*show, manifest), manifest, kSongSeconds);
        current = std::make_unique<ShowRig>(*device, show, manifest, kSongSeconds);
        if (const char* other = std::getenv("BRISVALE_BENCH_BASELINE_SHOW"); other && *other) {
            auto archive = DemoArchive::load(other);
            baseline = std::make_unique<ShowRig>(*device, archive, loadDemoManifest(*archive, "demo.ini"), kSongSeconds);
        }
    }
    static constexpr float kSongSeconds = 157.0f;  // the show's music, as the player would pass it

    std::unique_ptr<gpu::Device> device;
    std::unique_ptr<ShowRig> plain, current, baseline;
};

Rigs& rigs() {
    static Rigs instance;
    return instance;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Measurement
// ---------------------------------------------------------------------------------------------

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Least processor seconds per frame seen for each show and phase, for the summary.
std::map<std::string, double>& fastest() {
    static std::map<std::string, double> seconds;
    return seconds;
}

double secondsPerFrame(ShowRig& rig, const Phase& phase) {
    const double start = processCpuSeconds();
    for (float t : phase.times) rig.drawAndWait(t);
    return (processCpuSeconds() - start) / static_cast<double>(phase.times.size());
}

// The shows take turns within each iteration, so a busy spell on the machine hits them alike.
void measure(benchmark::State& state, const Phase& phase) {
    struct Entry {
        const char* show;
        ShowRig* rig;
    };
    std::vector<Entry> entries = {{"plain", rigs().plain.get()}, {"current", rigs().current.get()}};
    if (rigs().baseline) entries.push_back({"baseline", rigs().baseline.get()});
    for (const Entry& entry : entries) entry.rig->settle(phase);
    for (auto _ : state) {
        double current = 0.0;
        for (const Entry& entry : entries) {
            const double seconds = secondsPerFrame(*entry.rig, phase);
            auto [at, fresh] = fastest().try_emplace(std::string(entry.show) + "/" + phase.name, seconds);
            if (!fresh) at->second = std::min(at->second, seconds);
            if (entry.rig == rigs().current.get()) current = seconds;
        }
        state.SetIterationTime(current);
    }
    const double pixels = double(kWidth) * kHeight;
    const double plain = fastest()[std::string("plain/") + phase.name];
    state.counters["ns_per_pixel"] = (fastest()[std::string("current/") + phase.name] - plain) * 1e9 / pixels;
}

void registerAll() {
    rigs();  // load and compile every show before the first measurement
    for (const Phase& phase : phases()) {
        benchmark::RegisterBenchmark((std::string("BM_ShowCost/") + phase.name).c_str(),
                                     [&phase](benchmark::State& state) { measure(state, phase); })
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Summary
// ---------------------------------------------------------------------------------------------

void printSummary() {
    const auto& best = fastest();
    std::printf("\nShader cost per phase at %ux%u, net of the plain show (least processor time per frame):\n",
                kWidth, kHeight);
    std::printf("%-8s %14s %16s %16s %12s\n", "phase", "ns per pixel", "ms at 1920x1080", "baseline ns/px",
                "cheaper by");
    for (const Phase& phase : phases()) {
        const auto at = [&](const char* show) {
            const auto found = best.find(std::string(show) + "/" + phase.name);
            return found == best.end() ? -1.0 : found->second;
        };
        const double plain = at("plain"), current = at("current"), baseline = at("baseline");
        if (plain < 0.0 || current < 0.0) continue;
        const double pixels = double(kWidth) * kHeight;
        const double net = std::max(current - plain, 0.0) * 1e9 / pixels;
        std::printf("%-8s %14.1f %16.0f", phase.name, net, net * kFullHdPixels * 1e-6);
        if (baseline >= 0.0) {
            const double netBaseline = std::max(baseline - plain, 0.0) * 1e9 / pixels;
            const double cheaper = net > 0.0 ? netBaseline / net : 0.0;
            std::printf(" %16.1f %11.2fx %s", netBaseline, cheaper, cheaper >= kGoal ? "goal met" : "below the goal");
        }
        std::printf("\n");
    }
}

} // namespace
} // namespace brisvale

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    try {
        brisvale::registerAll();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "render_show_cost: %s\n", error.what());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    brisvale::printSummary();
    benchmark::Shutdown();
    return 0;
}
