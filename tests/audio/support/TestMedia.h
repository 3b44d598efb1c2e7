#pragma once
// Test media: real encoded files written by the ffmpeg program into a temporary directory,
// the signals they carry, and small file helpers.

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace brisvale::test {

using brisvale::testing::TempDir;

struct EncodeRequest {
    std::string muxer;  // FFmpeg muxer name: "wav", "flac", "ogg", "ipod", "mp3", "adts", "aiff"
    std::string encoder;  // "pcm_s16le", "flac", "libvorbis", "libopus", "aac", "libmp3lame", ...
    int sampleRate = 48000;
    int channels = 2;
    std::map<std::string, std::string> tags;  // written as container metadata
    std::vector<uint8_t> cover;  // a PNG, written as the attached picture where the muxer can
    std::map<std::string, std::string> muxerOptions = {};  // e.g. {"write_xing", "0"}
    bool streamed = false;  // written as to a pipe: the muxer cannot go back to fill in lengths
};

// A deterministic signal of distinct tones per channel with a little noise; never all-zero in a
// frame, so that alignment and channel order show in comparisons.
std::vector<int16_t> makeSignal(int64_t frames, int channels, int sampleRate, float amplitude = 0.5f);

// Encodes interleaved s16 samples into a file; throws std::runtime_error on failure.
void encodeFile(const std::string& path, const EncodeRequest& request, const std::vector<int16_t>& samples);

// A small PNG picture made with FFmpeg's PNG encoder.
std::vector<uint8_t> makePng(int width, int height);

bool encoderAvailable(const std::string& name);

std::vector<uint8_t> readFile(const std::string& path);
// A malloc'd copy, as audio_song_load_from_memory wants it.
void* mallocCopy(const std::vector<uint8_t>& bytes);

} // namespace brisvale::test
