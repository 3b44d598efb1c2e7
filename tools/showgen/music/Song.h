// The default show's music: an arrangement rendered offline by our own synthesizer.
// The grid is fixed so that section changes land on the show's phase changes:
// 106 2/3 BPM (a beat is 0.5625 s = 27000 samples), bars of four beats starting at 0.25 s,
// so bar 4 starts at 9.25 s (end of the intro) and bar 63 at 142.0 s (the finale).
#pragma once

#include <cstddef>
#include <vector>

namespace brisvale::showgen {

inline constexpr int kSongRate = 48000;
inline constexpr std::size_t kBeatSamples = 27000;
inline constexpr std::size_t kBarSamples = 4 * kBeatSamples;
inline constexpr std::size_t kGridOffsetSamples = 12000;
inline constexpr double kSongSeconds = 157.0;

// Sample index at which bar `bar` (fractional bars allowed) starts.
inline std::size_t barToSample(double bar) {
    return kGridOffsetSamples + static_cast<std::size_t>(bar * static_cast<double>(kBarSamples) + 0.5);
}

struct StereoPcm {
    std::vector<float> left;
    std::vector<float> right;
};

// Renders the whole piece, mastered (peak below -1 dBFS), at kSongRate.
StereoPcm renderSong();

}  // namespace brisvale::showgen
