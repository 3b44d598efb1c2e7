#pragma once
// The player record: the output queue and its buffers, the transport flags and positions, the
// equaliser's settings, coefficients and state, and the ring of recent mono samples.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "audio/audio.h"
#include "audio/platform/OutputQueue.h"

namespace pelora::gamedev::core {

inline constexpr uint32_t kPlayerBufferCount = 6;
inline constexpr uint32_t kPlayerBufferFrames = 2048;
inline constexpr uint32_t kRecentCapacity = 8192;
inline constexpr int kEqBands = 10;
inline constexpr int kEqMaxChannels = 8;

struct audio_player {
    platform::OutputQueueHandle queue;
    // Transport flags: written by the transport calls and by the refill callback on the queue's
    // thread, read by both.
    std::atomic<unsigned char> done{0};
    std::atomic<unsigned char> running{0};
    audio_song* song = nullptr;  // borrowed; outlives the player
    double paused_seconds = 0.0;
    int64_t resume_frame = 0;
    std::atomic<bool> paused{false};
    double base_seconds = 0.0;
    std::unique_ptr<platform::OutputBuffer*[]> buffers;  // handles; the queue owns the buffers
    uint32_t buffer_count = 0;
    uint32_t buffer_frames = 0;
    // The ring of recent mono samples, guarded by `mutex`.
    std::unique_ptr<float[]> recent;
    uint32_t recent_capacity = 0;
    uint32_t recent_count = 0;
    uint32_t recent_write = 0;
    // Guards the equaliser (gains, coefficients, state) and the ring between the refill callback
    // (queue's thread, once per buffer) and set_equalizer, get_recent_samples and seek.
    std::unique_ptr<std::mutex> mutex;
    float eq_gains_db[kEqBands] = {};
    float eq_b0[kEqBands] = {};
    float eq_b1[kEqBands] = {};
    float eq_b2[kEqBands] = {};
    float eq_a1[kEqBands] = {};
    float eq_a2[kEqBands] = {};
    float eq_z1[kEqBands][kEqMaxChannels] = {};
    float eq_z2[kEqBands][kEqMaxChannels] = {};
};

// The refill cycle, called by the queue with each played buffer and directly by priming.
void AQOutputCallback(void* user, platform::OutputQueue* queue, platform::OutputBuffer* buffer) noexcept;
int audio_player_prime_buffers(audio_player* player) noexcept;
void audio_player_release_buffers(audio_player* player) noexcept;

} // namespace pelora::gamedev::core
