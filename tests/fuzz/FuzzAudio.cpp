// Fuzzes the music decoder with arbitrary bytes, handed over as the show hands over its music: a
// malloc'd block that the library owns from the call on. A song that loads is read to its end,
// sought and read again, then destroyed. Failures must come back as statuses; a crash, a
// sanitizer report, a leak or a hang is a finding.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "audio/audio.h"
#include "audio/platform/Decoder.h"

namespace core = pelora::gamedev::core;

namespace {

constexpr uint32_t kReadBytes = 1 << 16;
// Far beyond any seed; keeps a run short whatever the bytes claim.
constexpr int64_t kMaxFramesRead = int64_t{1} << 22;

int64_t readFrames(core::audio_song& song, std::vector<uint8_t>& buffer, int64_t limit) {
    int64_t total = 0;
    while (total < limit) {
        uint32_t frames = kReadBytes / song.clientFormat.mBytesPerFrame;
        if (core::platform::decoderRead(song.extFile, &frames, buffer.data(), kReadBytes) != 0 || frames == 0) {
            break;
        }
        total += frames;
    }
    return total;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    void* block = std::malloc(size > 0 ? size : 1);
    if (block == nullptr) {
        return 0;
    }
    if (size > 0) {
        std::memcpy(block, data, size);
    }
    core::audio_song song{};
    if (core::audio_song_load_from_memory(&song, block, static_cast<int64_t>(size)) != 0) {
        return 0;
    }
    if (song.clientFormat.mBytesPerFrame == 0 || song.clientFormat.mBytesPerFrame > kReadBytes) {
        std::abort();  // a loaded song always has whole frames of the client format
    }
    std::vector<uint8_t> buffer(kReadBytes);
    const int64_t total = readFrames(song, buffer, kMaxFramesRead);
    for (const int64_t target : {total / 2, int64_t{0}, total - 1, total + 4096}) {
        if (target >= 0 && core::platform::decoderSeek(song.extFile, target) == 0) {
            readFrames(song, buffer, 8192);
        }
    }
    core::audio_song_destroy(&song);
    return 0;
}
