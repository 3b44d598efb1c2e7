#pragma once
// A video file written as its frames come: pictures through a video encoder that FFmpeg has
// (converted from the renderer's BGRA to the encoder's format, BT.709), the music through the
// container's audio encoder (resampled to a rate it takes), muxed into a temporary file beside
// the target that takes the target's place only when committed. FFmpeg stays behind this header.
//
// Threads: constructed on one thread, then used from one thread at a time.

#include "tools/capture/CaptureOptions.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace brisvale::capture {

struct VideoSettings {
    std::string path;                 // the target; its extension names the container
    std::string codec;                // a video encoder by name; empty: the container's own
    std::optional<int> quality;       // the encoder's constant-quality value; empty: its default
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t fps = 0;
    // The music as the audio library decodes it: interleaved signed 16-bit frames. A rate of 0:
    // no music, and no audio stream.
    int musicRate = 0;
    int musicChannels = 0;
};

class VideoFile {
public:
    // The most music frames one writeMusic call takes.
    static constexpr std::uint32_t kMaxMusicFrames = 8192;

    // Opens the encoders and the temporary file. Throws CaptureOptionError for what the settings
    // ask and the encoders or the path refuse, std::runtime_error (one line) otherwise.
    explicit VideoFile(const VideoSettings& settings);
    ~VideoFile();  // removes the temporary file unless committed
    VideoFile(const VideoFile&) = delete;
    VideoFile& operator=(const VideoFile&) = delete;

    // The next frame's picture, BGRA, top row first, rows `rowBytes` apart; it must have the
    // settings' size. It is converted at once: the caller's pixels are free again on return.
    void setPicture(const std::uint8_t* bgra, std::uint32_t width, std::uint32_t height, std::size_t rowBytes);
    // Encodes the picture set last as the next frame.
    void writePicture();
    // The next `frames` frames of music (at most kMaxMusicFrames).
    void writeMusic(const std::int16_t* samples, std::uint32_t frames);
    // Drains the encoders and completes the container; the music ends where the music written
    // so far ends, resampled.
    void finish();
    // Puts the finished file in the target's place.
    void commit();

    std::string encoderName() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace brisvale::capture
