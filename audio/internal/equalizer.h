#pragma once
// The ten-band peaking equaliser, the clamp and the tap of recent mono samples.

#include <cstdint>

#include "audio/audio.h"
#include "audio/internal/player_record.h"

namespace pelora::gamedev::core {

inline constexpr float eq_centers_hz[kEqBands] = {32.0f,   64.0f,   125.0f,  250.0f,  500.0f,
                                                  1000.0f, 2000.0f, 4000.0f, 8000.0f, 16000.0f};
inline constexpr float kEqQ = 1.1f;
inline constexpr float kEqGainLimitDb = 12.0f;
inline constexpr float kEqMaxCenterFraction = 0.45f;
inline constexpr float kEqTwoPi = 6.2831855f;
inline constexpr float kEqActiveThresholdDb = 0.01f;

// One biquad section in transposed direct form II; every band runs through this, in place.
inline void biquad_step(float b0, float b1, float b2, float a1, float a2, float& z1, float& z2, float& v) {
    const float y = b0 * v + z1;
    z1 = b1 * v - a1 * y + z2;
    z2 = b2 * v - a2 * y;
    v = y;
}

void audio_player_update_eq_coefficients(audio_player* player) noexcept;
// The refill callback's processing of one buffer in place: equaliser, clamp and tap.
void audio_player_process_samples(audio_player* player, void* samples, uint32_t frames,
                                  const AudioStreamBasicDescription& format) noexcept;

} // namespace pelora::gamedev::core
