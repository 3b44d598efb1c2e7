// The equaliser (ten peaking biquads in series, single precision), the clamp to full scale,
// the tap of recent mono samples, and the output volume.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "audio/audio.h"
#include "audio/internal/equalizer.h"
#include "audio/internal/messages.h"

namespace pelora::gamedev::core {
namespace {

bool bandActive(float gainDb) { return std::fabs(gainDb) > kEqActiveThresholdDb; }

// Equaliser and clamp over the first eight channels; Sample is float or int16_t.
template <typename Sample>
void equalise(audio_player* p, Sample* s, uint32_t frames, uint32_t channels) {
    const uint32_t eqChannels = std::min<uint32_t>(channels, kEqMaxChannels);
    for (uint32_t k = 0; k < frames; ++k) {
        Sample* frame = s + static_cast<size_t>(k) * channels;
        for (uint32_t j = 0; j < eqChannels; ++j) {
            float v;
            if constexpr (std::is_same_v<Sample, float>) {
                v = frame[j];
            } else {
                v = static_cast<float>(frame[j]) / 32768.0f;
            }
            for (int b = 0; b < kEqBands; ++b) {
                if (!bandActive(p->eq_gains_db[b])) {
                    continue;
                }
                biquad_step(p->eq_b0[b], p->eq_b1[b], p->eq_b2[b], p->eq_a1[b], p->eq_a2[b], p->eq_z1[b][j],
                            p->eq_z2[b][j], v);
            }
            v = std::clamp(v, -1.0f, 1.0f);
            if constexpr (std::is_same_v<Sample, float>) {
                frame[j] = v;
            } else {
                frame[j] = static_cast<int16_t>(v * 32767.0f);
            }
        }
    }
}

template <typename Sample>
void tap(audio_player* p, const Sample* s, uint32_t frames, uint32_t channels) {
    for (uint32_t k = 0; k < frames; ++k) {
        const Sample* frame = s + static_cast<size_t>(k) * channels;
        float sum = 0.0f;
        for (uint32_t j = 0; j < channels; ++j) {
            if constexpr (std::is_same_v<Sample, float>) {
                sum += frame[j];
            } else {
                sum += static_cast<float>(frame[j]) / 32768.0f;
            }
        }
        p->recent[p->recent_write] = sum / static_cast<float>(channels);
        p->recent_write = (p->recent_write + 1) % p->recent_capacity;
        p->recent_count = std::min(p->recent_count + 1, p->recent_capacity);
    }
}

} // namespace

void audio_player_update_eq_coefficients(audio_player* p) noexcept {
    if (p == nullptr || p->song == nullptr) {
        return;
    }
    const float fs = static_cast<float>(p->song->clientFormat.mSampleRate);
    if (!(fs > 0.0f)) {
        return;
    }
    for (int i = 0; i < kEqBands; ++i) {
        const float g = std::clamp(p->eq_gains_db[i], -kEqGainLimitDb, kEqGainLimitDb);
        const float f = std::min(eq_centers_hz[i], kEqMaxCenterFraction * fs);
        const float A = std::pow(10.0f, g / 40.0f);
        const float w0 = kEqTwoPi * f / fs;
        const float c = std::cos(w0);
        const float alpha = std::sin(w0) / (2.0f * kEqQ);
        const float b0 = 1.0f + alpha * A;
        const float b1 = -2.0f * c;
        const float b2 = 1.0f - alpha * A;
        const float a0 = 1.0f + alpha / A;
        const float a1 = -2.0f * c;
        const float a2 = 1.0f - alpha / A;
        p->eq_b0[i] = b0 / a0;
        p->eq_b1[i] = b1 / a0;
        p->eq_b2[i] = b2 / a0;
        p->eq_a1[i] = a1 / a0;
        p->eq_a2[i] = a2 / a0;
    }
}

void audio_player_process_samples(audio_player* p, void* samples, uint32_t frames,
                                  const AudioStreamBasicDescription& format) noexcept {
    if (!p->recent || !p->mutex) {
        return;
    }
    std::lock_guard<std::mutex> guard(*p->mutex);
    bool active = false;
    for (float g : p->eq_gains_db) {
        active = active || bandActive(g);
    }
    const uint32_t channels = format.mChannelsPerFrame;
    const bool floatPath = (format.mFormatFlags & platform::kFormatFlagIsFloat) && format.mBitsPerChannel == 32;
    const bool intPath = (format.mFormatFlags & platform::kFormatFlagIsSignedInteger) && format.mBitsPerChannel == 16;
    if (channels == 0) {
        return;
    }
    if (floatPath) {
        auto* s = static_cast<float*>(samples);
        if (active) {
            equalise(p, s, frames, channels);
        }
        tap(p, s, frames, channels);
    } else if (intPath) {
        auto* s = static_cast<int16_t*>(samples);
        if (active) {
            equalise(p, s, frames, channels);
        }
        tap(p, s, frames, channels);
    }
}

int audio_player_set_equalizer(audio_player* p, const float* gains_db, unsigned count) noexcept {
    if (p == nullptr || gains_db == nullptr || !p->mutex) {
        return -1;
    }
    std::lock_guard<std::mutex> guard(*p->mutex);
    const unsigned n = std::min(count, static_cast<unsigned>(kEqBands));
    for (unsigned i = 0; i < static_cast<unsigned>(kEqBands); ++i) {
        p->eq_gains_db[i] = i < n ? std::clamp(gains_db[i], -kEqGainLimitDb, kEqGainLimitDb) : 0.0f;
    }
    std::memset(p->eq_z1, 0, sizeof p->eq_z1);
    std::memset(p->eq_z2, 0, sizeof p->eq_z2);
    audio_player_update_eq_coefficients(p);
    return 0;
}

int audio_player_set_volume(audio_player* p, float volume) noexcept {
    if (p == nullptr || !p->queue || !(volume >= 0.0f) || !(volume <= 1.0f)) {
        return -1;
    }
    if (const platform::Status st = platform::queueSetVolume(p->queue.get(), volume); st != 0) {
        audio_log(msg::kQueueSetVolume, st);
        return -1;
    }
    return 0;
}

unsigned audio_player_get_recent_samples(audio_player* p, float* out, unsigned max_count) noexcept {
    if (p == nullptr || out == nullptr || max_count == 0 || !p->recent || !p->mutex) {
        return 0;
    }
    std::lock_guard<std::mutex> guard(*p->mutex);
    const uint32_t n = std::min<uint32_t>(p->recent_count, max_count);
    if (n == 0) {
        return 0;
    }
    const uint32_t start = (p->recent_write + p->recent_capacity - n) % p->recent_capacity;
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = p->recent[(start + i) % p->recent_capacity];
    }
    return n;
}

} // namespace pelora::gamedev::core
