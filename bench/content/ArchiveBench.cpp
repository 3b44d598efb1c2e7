// Loading and inflating a 64 MiB container (stored and gzip files, made here with the writer),
// and, in the same run, bare zlib inflating the very same gzip streams. The inflation
// benchmark times both on alternate passes and reports archive_MBps, zlib_MBps and their
// ratio; the archive path is expected to reach at least 0.95 of bare zlib.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

namespace {

namespace fs = std::filesystem;
using brisvale::ArchiveCompression;
using brisvale::ArchiveFile;
using brisvale::DemoArchive;

constexpr std::size_t kMiB = 1 << 20;

// One gzip stream inside the container, as the reader sees it.
struct GzipStream {
    std::string path;
    std::size_t offset;
    std::size_t storedSize;
    std::size_t unpackedSize;
};

// The container on disk for the whole run, removed at exit.
class BenchArchive {
public:
    BenchArchive() {
        std::string dir = (fs::temp_directory_path() / "brisvale-bench-XXXXXX").string();
        if (mkdtemp(dir.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        dir_ = dir;
        path_ = (dir_ / "demo.dat").string();

        std::mt19937 random(42);
        std::vector<ArchiveFile> files;
        // Stored: incompressible image-like data.
        for (int i = 0; i < 10; ++i) {
            std::vector<std::uint8_t> bytes(4 * kMiB);
            for (auto& b : bytes) {
                b = static_cast<std::uint8_t>(random());
            }
            files.push_back({"images/noise" + std::to_string(i) + ".bin", std::move(bytes)});
        }
        // Gzip: text drawn from a small vocabulary, like shader sources and manifests.
        std::vector<std::string> words;
        for (int i = 0; i < 2000; ++i) {
            std::string word;
            for (int n = 3 + static_cast<int>(random() % 8); n > 0; --n) {
                word += static_cast<char>('a' + random() % 26);
            }
            words.push_back(word);
        }
        for (int i = 0; i < 16; ++i) {
            std::string text;
            while (text.size() < 4 * kMiB) {
                text += words[random() % words.size()];
                text += random() % 12 == 0 ? '\n' : ' ';
            }
            files.push_back({"text/part" + std::to_string(i) + ".txt",
                             std::vector<std::uint8_t>(text.begin(), text.end())});
        }
        brisvale::writeArchiveFile(path_, files, {2, ArchiveCompression::Auto});
        fileSize_ = fs::file_size(path_);

        const auto archive = DemoArchive::load(path_);
        for (const auto& [name, entry] : archive->entries()) {
            if (entry.flags & DemoArchive::kGzipFlag) {
                streams_.push_back({name, entry.offset, entry.storedSize, entry.unpackedSize});
                unpackedBytes_ += entry.unpackedSize;
            }
        }
        std::ifstream in(path_, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    BenchArchive(const BenchArchive&) = delete;
    BenchArchive& operator=(const BenchArchive&) = delete;
    ~BenchArchive() {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    const std::string& path() const { return path_; }
    std::uint64_t fileSize() const { return fileSize_; }
    const std::vector<GzipStream>& streams() const { return streams_; }
    std::uint64_t unpackedBytes() const { return unpackedBytes_; }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
    fs::path dir_;
    std::string path_;
    std::uint64_t fileSize_ = 0;
    std::vector<GzipStream> streams_;
    std::uint64_t unpackedBytes_ = 0;
    std::vector<std::uint8_t> bytes_;
};

const BenchArchive& benchArchive() {
    static const BenchArchive archive;
    return archive;
}

// Bare zlib on one stream: the same calls the reader makes, into a buffer of the final size.
void inflateBare(const std::uint8_t* source, const GzipStream& stream, std::uint8_t* out) {
    z_stream z{};
    z.next_in = const_cast<Bytef*>(source + stream.offset);
    z.avail_in = static_cast<uInt>(stream.storedSize);
    z.next_out = out;
    z.avail_out = static_cast<uInt>(stream.unpackedSize);
    if (inflateInit2(&z, 31) != Z_OK) {
        throw std::runtime_error("inflateInit2 failed");
    }
    const int result = inflate(&z, Z_FINISH);
    inflateEnd(&z);
    if (result != Z_STREAM_END || z.total_out != stream.unpackedSize) {
        throw std::runtime_error("inflate failed");
    }
}

void BM_Load(benchmark::State& state) {
    const BenchArchive& bench = benchArchive();
    for (auto _ : state) {
        auto archive = DemoArchive::load(bench.path());
        benchmark::DoNotOptimize(archive.get());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bench.fileSize()));
    state.counters["file_MiB"] = static_cast<double>(bench.fileSize()) / kMiB;
}
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond);

// Each iteration inflates every gzip file three times: through a fresh archive's open, which
// allocates each buffer at its final size and keeps it; with bare zlib into buffers allocated
// and kept the same way (`zlib_MBps`, the fair baseline, and `ratio` = archive / that); and
// with bare zlib into one reused, already touched buffer (`zlib_reused_MBps`, the ceiling that
// no reader which keeps its files can reach, and `ratio_reused`). The order rotates so that
// none of them always gets the warmest caches.
void BM_Inflate(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const BenchArchive& bench = benchArchive();
    std::size_t largest = 0;
    for (const GzipStream& stream : bench.streams()) {
        largest = std::max(largest, stream.unpackedSize);
    }
    std::vector<std::uint8_t> reused(largest, 1);
    double seconds[3] = {0, 0, 0};
    int round = 0;
    for (auto _ : state) {
        const auto archive = DemoArchive::load(bench.path());
        std::vector<std::vector<std::uint8_t>> kept;
        kept.reserve(bench.streams().size());
        double archiveSeconds = 0;
        for (int step = 0; step < 3; ++step) {
            const int which = (step + round) % 3;
            const auto start = Clock::now();
            for (const GzipStream& stream : bench.streams()) {
                if (which == 0) {
                    benchmark::DoNotOptimize(archive->open(stream.path).data());
                } else if (which == 1) {
                    kept.emplace_back(stream.unpackedSize);
                    inflateBare(bench.bytes().data(), stream, kept.back().data());
                } else {
                    inflateBare(bench.bytes().data(), stream, reused.data());
                    benchmark::ClobberMemory();
                }
            }
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            seconds[which] += elapsed;
            if (which == 0) {
                archiveSeconds = elapsed;
            }
        }
        ++round;
        state.SetIterationTime(archiveSeconds);
    }
    const double megabytes = static_cast<double>(bench.unpackedBytes()) * state.iterations() / 1e6;
    state.SetBytesProcessed(static_cast<std::int64_t>(bench.unpackedBytes() * state.iterations()));
    state.counters["archive_MBps"] = megabytes / seconds[0];
    state.counters["zlib_MBps"] = megabytes / seconds[1];
    state.counters["zlib_reused_MBps"] = megabytes / seconds[2];
    state.counters["ratio"] = seconds[1] / seconds[0];
    state.counters["ratio_reused"] = seconds[2] / seconds[0];
    state.counters["unpacked_MiB"] = static_cast<double>(bench.unpackedBytes()) / kMiB;
}
BENCHMARK(BM_Inflate)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3.0);

// Stored files cost nothing to open: a view into the loaded container.
void BM_OpenStored(benchmark::State& state) {
    const BenchArchive& bench = benchArchive();
    const auto archive = DemoArchive::load(bench.path());
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i) {
            benchmark::DoNotOptimize(archive->open("images/noise" + std::to_string(i) + ".bin").data());
        }
    }
}
BENCHMARK(BM_OpenStored);

} // namespace

BENCHMARK_MAIN();
