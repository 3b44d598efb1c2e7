#pragma once
// The show's music as the player plays it: the archive's music file decoded by the audio
// library (16-bit frames at the file's own rate and channels), read from a show time on, with
// silence before the music's start and after its end.

#include "audio/audio.h"
#include "content/DemoArchive.h"

#include <cstdint>
#include <memory>

namespace brisvale::capture {

class ShowMusic {
    struct Loading {};

public:
    // Null when the audio library cannot load the music.
    static std::unique_ptr<ShowMusic> load(ArchiveBytes music);
    explicit ShowMusic(Loading) {}
    ~ShowMusic();
    ShowMusic(const ShowMusic&) = delete;
    ShowMusic& operator=(const ShowMusic&) = delete;

    double durationSeconds() const { return song_.duration_seconds; }
    int rate() const { return static_cast<int>(song_.clientFormat.mSampleRate); }
    int channels() const { return static_cast<int>(song_.clientFormat.mChannelsPerFrame); }

    // The next read starts at the frame of show time `seconds` (rounded to the nearest).
    void startAt(double seconds);
    // Fills `frames` interleaved frames.
    void read(std::int16_t* out, std::uint32_t frames);

private:
    pelora::gamedev::core::audio_song song_{};
    std::int64_t silenceBefore_ = 0;  // frames of silence before the music's first
    bool ended_ = false;
};

} // namespace brisvale::capture
