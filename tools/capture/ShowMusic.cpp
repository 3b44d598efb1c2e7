#include "tools/capture/ShowMusic.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace brisvale::capture {

namespace audio = pelora::gamedev::core;

std::unique_ptr<ShowMusic> ShowMusic::load(ArchiveBytes music) {
    // The audio library takes a block that free() releases, whatever the result.
    void* block = std::malloc(music.empty() ? 1 : music.size());
    if (block == nullptr) return nullptr;
    std::memcpy(block, music.data(), music.size());
    auto self = std::make_unique<ShowMusic>(Loading{});
    if (audio::audio_song_load_from_memory(&self->song_, block, static_cast<std::int64_t>(music.size())) != 0 ||
        self->rate() <= 0 || self->channels() <= 0) {
        return nullptr;
    }
    return self;
}

ShowMusic::~ShowMusic() { audio::audio_song_destroy(&song_); }

void ShowMusic::startAt(double seconds) {
    const auto first = static_cast<std::int64_t>(std::llround(seconds * rate()));
    silenceBefore_ = std::max<std::int64_t>(0, -first);
    ended_ = first > 0 && audio::audio_song_seek(&song_, first) != 0;
}

void ShowMusic::read(std::int16_t* out, std::uint32_t frames) {
    const auto perFrame = static_cast<std::size_t>(channels());
    std::uint32_t done = 0;
    while (done < frames) {
        std::uint32_t n = frames - done;
        if (silenceBefore_ > 0) {
            n = static_cast<std::uint32_t>(std::min<std::int64_t>(n, silenceBefore_));
            silenceBefore_ -= n;
        } else if (!ended_) {
            // A failed read ends the music there, as it ends the player's.
            if (audio::audio_song_read(&song_, out + done * perFrame, &n) != 0 || n == 0) ended_ = true;
            done += n;
            continue;
        }
        std::fill_n(out + done * perFrame, n * perFrame, std::int16_t{0});
        done += n;
    }
}

} // namespace brisvale::capture
