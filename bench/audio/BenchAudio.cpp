// Audio benchmarks.
// - Refill processing (ten active bands, clamp, tap) of one 2048-frame stereo buffer, s16 and
//   float: `realtime_fraction` is the time per buffer over the buffer's 42.7 ms at 48 kHz.
// - Decoding a memory-loaded song to s16 against `ffmpeg -i FILE -f null -` on the same file:
//   `x_realtime` is seconds of audio decoded per second (per CPU second for the CLI, which
//   reports its own CPU time; compare with the CPU column of the memory load).
//
// [SECTION] Refill processing
// [SECTION] Decoding

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "audio/audio.h"
#include "audio/internal/equalizer.h"
#include "audio/internal/player_record.h"
#include "audio/platform/Decoder.h"

namespace core = pelora::gamedev::core;

namespace {

constexpr uint32_t kFrames = 2048;
constexpr double kRate = 48000.0;

// ---------------------------------------------------------------------------------------------
// [SECTION] Refill processing
// ---------------------------------------------------------------------------------------------

template <typename Sample>
void refillProcessing(benchmark::State& state) {
    const bool floats = std::is_same_v<Sample, float>;
    core::audio_song song{};
    song.clientFormat.mSampleRate = kRate;
    song.clientFormat.mFormatID = core::platform::kFormatLinearPCM;
    song.clientFormat.mFormatFlags = floats ? 9 : 12;
    song.clientFormat.mBitsPerChannel = floats ? 32 : 16;
    song.clientFormat.mChannelsPerFrame = 2;
    song.clientFormat.mBytesPerFrame = 2 * sizeof(Sample);
    auto player = std::make_unique<core::audio_player>();
    player->song = &song;
    player->recent_capacity = core::kRecentCapacity;
    player->recent.reset(new float[core::kRecentCapacity]());
    player->mutex = std::make_unique<std::mutex>();
    const float gains[10] = {3, -2, 1.5f, -4, 6, -6, 2, -1, 4, -3};
    core::audio_player_set_equalizer(player.get(), gains, 10);

    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
    std::vector<Sample> source(kFrames * 2);
    for (auto& s : source) {
        s = floats ? static_cast<Sample>(dist(rng)) : static_cast<Sample>(dist(rng) * 32767.0f);
    }
    // Processed again and again in place: the clamp keeps it in range, the work per buffer is
    // the same.
    std::vector<Sample> buffer = source;
    for (auto _ : state) {
        core::audio_player_process_samples(player.get(), buffer.data(), kFrames, song.clientFormat);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["realtime_fraction"] =
        benchmark::Counter(kFrames / kRate, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_RefillProcessing_S16Stereo(benchmark::State& state) { refillProcessing<int16_t>(state); }
void BM_RefillProcessing_FloatStereo(benchmark::State& state) { refillProcessing<float>(state); }
BENCHMARK(BM_RefillProcessing_S16Stereo);
BENCHMARK(BM_RefillProcessing_FloatStereo);

// ---------------------------------------------------------------------------------------------
// [SECTION] Decoding
// ---------------------------------------------------------------------------------------------
// 60 s of stereo music-like noise, encoded once by the ffmpeg CLI.
constexpr double kSeconds = 60.0;

std::string benchFile(const std::string& extension, const std::string& codecArgs) {
    static const std::filesystem::path dir = [] {
        auto d = std::filesystem::temp_directory_path() / "brisvale-bench-audio";
        std::filesystem::create_directories(d);
        return d;
    }();
    const std::string path = (dir / ("song." + extension)).string();
    if (!std::filesystem::exists(path)) {
        const std::string cmd = "ffmpeg -v error -y -f lavfi -i 'anoisesrc=d=60:c=pink:r=44100:a=0.3' -ac 2 " +
                                codecArgs + " '" + path + "' </dev/null";
        if (std::system(cmd.c_str()) != 0) {
            return {};
        }
    }
    return path;
}

std::vector<uint8_t> readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void decodeMemory(benchmark::State& state, const std::string& extension, const std::string& codecArgs) {
    const std::string path = benchFile(extension, codecArgs);
    if (path.empty()) {
        state.SkipWithError("ffmpeg could not make the file");
        return;
    }
    const std::vector<uint8_t> bytes = readAll(path);
    std::vector<int16_t> buffer(4096 * 2);
    for (auto _ : state) {
        void* block = std::malloc(bytes.size());
        std::memcpy(block, bytes.data(), bytes.size());
        core::audio_song song{};
        if (core::audio_song_load_from_memory(&song, block, static_cast<int64_t>(bytes.size())) != 0) {
            state.SkipWithError("load failed");
            return;
        }
        int64_t frames = 0;
        for (;;) {
            uint32_t n = 4096;
            core::platform::decoderRead(song.extFile, &n, buffer.data(), static_cast<uint32_t>(buffer.size() * 2));
            if (n == 0) {
                break;
            }
            frames += n;
        }
        benchmark::DoNotOptimize(frames);
        core::audio_song_destroy(&song);
    }
    state.counters["x_realtime"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

void decodeCli(benchmark::State& state, const std::string& extension, const std::string& codecArgs) {
    const std::string path = benchFile(extension, codecArgs);
    if (path.empty()) {
        state.SkipWithError("ffmpeg could not make the file");
        return;
    }
    // ffmpeg's own -benchmark figures: the CPU time of its decoding (utime + stime), without the
    // process start-up; compare with the CPU column of the memory load (the machine is shared,
    // wall times are noisy).
    const std::string cmd =
        "ffmpeg -hide_banner -nostats -nostdin -benchmark -threads 1 -i '" + path + "' -f null - 2>&1";
    for (auto _ : state) {
        FILE* pipe = popen(cmd.c_str(), "r");
        if (pipe == nullptr) {
            state.SkipWithError("ffmpeg did not start");
            return;
        }
        double cpu = -1;
        char line[512];
        while (std::fgets(line, sizeof line, pipe) != nullptr) {
            const char* user = std::strstr(line, "utime=");
            const char* system = std::strstr(line, "stime=");
            if (user != nullptr && system != nullptr) {
                cpu = std::atof(user + 6) + std::atof(system + 6);
            }
        }
        if (pclose(pipe) != 0 || cpu < 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        state.SetIterationTime(std::max(cpu, 1e-3));
    }
    state.counters["x_realtime"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

#define BRISVALE_DECODE_PAIR(name, ext, args)                                                                 \
    void BM_DecodeMemory_##name(benchmark::State& s) { decodeMemory(s, ext, args); }                          \
    void BM_FfmpegCli_##name(benchmark::State& s) { decodeCli(s, ext, args); }                                \
    BENCHMARK(BM_DecodeMemory_##name)->Unit(benchmark::kMillisecond)->Iterations(4)->UseRealTime();           \
    BENCHMARK(BM_FfmpegCli_##name)->Unit(benchmark::kMillisecond)->Iterations(4)->UseManualTime();

BRISVALE_DECODE_PAIR(Mp3, "mp3", "-c:a libmp3lame -b:a 192k")
BRISVALE_DECODE_PAIR(AacM4a, "m4a", "-c:a aac -b:a 192k")
BRISVALE_DECODE_PAIR(Flac, "flac", "-c:a flac")
BRISVALE_DECODE_PAIR(Vorbis, "ogg", "-c:a libvorbis -q:a 5")
BRISVALE_DECODE_PAIR(Opus, "opus", "-c:a libopus -b:a 128k")

} // namespace

BENCHMARK_MAIN();
