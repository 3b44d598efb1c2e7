// The equaliser's design and filtering against a double-precision reference, the band and
// gain rules, the clamp, the untouched channels and the tap's ring.
//
// [SECTION] The rig and the reference
// [SECTION] Design and settings
// [SECTION] Filtering
// [SECTION] The sample tap

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "audio/audio.h"
#include "audio/internal/equalizer.h"
#include "audio/internal/player_record.h"

namespace pelora::gamedev::core {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] The rig and the reference
// ---------------------------------------------------------------------------------------------

// A player record as create makes it (ring, mutex, flat coefficients), without an output queue:
// the processing and the equaliser settings never touch the queue.
struct Rig {
    audio_song song{};
    std::unique_ptr<audio_player> player = std::make_unique<audio_player>();

    Rig(double rate, uint32_t channels, bool floatSamples) {
        AudioStreamBasicDescription& f = song.clientFormat;
        f.mSampleRate = rate;
        f.mFormatID = 0x6C70636D;
        f.mFormatFlags = floatSamples ? 9 : 12;
        f.mBitsPerChannel = floatSamples ? 32 : 16;
        f.mChannelsPerFrame = channels;
        f.mBytesPerFrame = channels * f.mBitsPerChannel / 8;
        f.mBytesPerPacket = f.mBytesPerFrame;
        f.mFramesPerPacket = 1;
        player->song = &song;
        player->recent_capacity = kRecentCapacity;
        player->recent.reset(new float[kRecentCapacity]());
        player->mutex = std::make_unique<std::mutex>();
        audio_player_update_eq_coefficients(player.get());
    }
    audio_player* p() { return player.get(); }
    void process(void* samples, uint32_t frames) {
        audio_player_process_samples(p(), samples, frames, song.clientFormat);
    }
};

struct DoubleBiquad {
    double b0, b1, b2, a1, a2;
};

DoubleBiquad referenceDesign(double gainDb, double centerHz, double fs, bool limitCenter = true) {
    const double g = std::clamp(gainDb, -12.0, 12.0);
    const double f = limitCenter ? std::min(centerHz, 0.45 * fs) : centerHz;
    const double A = std::pow(10.0, g / 40.0);
    const double w0 = 2.0 * M_PI * f / fs;
    const double alpha = std::sin(w0) / (2.0 * 1.1);
    const double a0 = 1.0 + alpha / A;
    return {(1.0 + alpha * A) / a0, -2.0 * std::cos(w0) / a0, (1.0 - alpha * A) / a0, -2.0 * std::cos(w0) / a0,
            (1.0 - alpha / A) / a0};
}

const std::array<float, 10> kGains = {-12.0f, -6.5f, 0.0f, 3.0f, 12.0f, 1.25f, -0.75f, 9.0f, -3.0f, 6.0f};

// ---------------------------------------------------------------------------------------------
// [SECTION] Design and settings
// ---------------------------------------------------------------------------------------------

TEST(EqualizerDesign, TheTopBandFollowsTheRateAndNoRateChangesNothing) {
    Rig rig(32000.0, 2, true);
    float gains[10] = {};
    gains[9] = 6.0f;
    ASSERT_EQ(audio_player_set_equalizer(rig.p(), gains, 10), 0);
    const DoubleBiquad at14400 = referenceDesign(6.0, 14400.0, 32000.0);
    const DoubleBiquad at16000 = referenceDesign(6.0, 16000.0, 32000.0, false);
    EXPECT_NEAR(rig.p()->eq_a1[9], at14400.a1, 2e-6) << "16 kHz band designed at 0.45 × 32000";
    EXPECT_GT(std::fabs(rig.p()->eq_a1[9] - at16000.a1), 1e-2);

    // No rate: the gains are kept, the coefficients stay as they were.
    Rig rateless(0.0, 2, true);
    EXPECT_EQ(rateless.p()->eq_b0[4], 0.0f);
    EXPECT_EQ(audio_player_set_equalizer(rateless.p(), kGains.data(), 10), 0);
    EXPECT_EQ(rateless.p()->eq_b0[4], 0.0f);
    EXPECT_EQ(rateless.p()->eq_gains_db[4], 12.0f);
}

TEST(EqualizerSettings, GainsAreClampedCountedAndResetTheFilters) {
    Rig rig(48000.0, 2, true);
    const float many[12] = {20.0f, -30.0f, 1, 2, 3, 4, 5, 6, 7, 8, 11, 11};
    rig.p()->eq_z1[4][1] = 0.5f;
    rig.p()->eq_z2[9][7] = -0.25f;
    ASSERT_EQ(audio_player_set_equalizer(rig.p(), many, 12), 0);
    EXPECT_EQ(rig.p()->eq_gains_db[0], 12.0f);
    EXPECT_EQ(rig.p()->eq_gains_db[1], -12.0f);
    EXPECT_EQ(rig.p()->eq_gains_db[9], 8.0f) << "only the first ten count";
    EXPECT_EQ(rig.p()->eq_z1[4][1], 0.0f);
    EXPECT_EQ(rig.p()->eq_z2[9][7], 0.0f);

    const float three[3] = {1.0f, 2.0f, 3.0f};
    ASSERT_EQ(audio_player_set_equalizer(rig.p(), three, 3), 0);
    EXPECT_EQ(rig.p()->eq_gains_db[2], 3.0f);
    for (int i = 3; i < kEqBands; ++i) {
        EXPECT_EQ(rig.p()->eq_gains_db[i], 0.0f);
    }
    ASSERT_EQ(audio_player_set_equalizer(rig.p(), three, 0), 0);
    EXPECT_EQ(rig.p()->eq_gains_db[0], 0.0f);

    EXPECT_EQ(audio_player_set_equalizer(nullptr, three, 3), -1);
    EXPECT_EQ(audio_player_set_equalizer(rig.p(), nullptr, 3), -1);
    rig.p()->mutex.reset();
    EXPECT_EQ(audio_player_set_equalizer(rig.p(), three, 3), -1);
    EXPECT_EQ(rig.p()->eq_gains_db[0], 0.0f) << "nothing changes on refusal";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Filtering
// ---------------------------------------------------------------------------------------------

std::vector<int16_t> randomS16(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (auto& s : v) {
        s = static_cast<int16_t>(dist(rng));
    }
    v[0] = -32768;
    v[1] = 32767;
    return v;
}

TEST(EqualizerFiltering, NoActiveBandIsBitIdenticalAndUnclamped) {
    Rig ints(44100.0, 2, false);
    const float tiny[10] = {0.005f, -0.01f, 0.0f, 0.01f, 0, 0, 0, 0, 0, -0.005f};
    ASSERT_EQ(audio_player_set_equalizer(ints.p(), tiny, 10), 0);
    const std::vector<int16_t> original = randomS16(2048 * 2, 7);
    std::vector<int16_t> samples = original;
    ints.process(samples.data(), 2048);
    EXPECT_EQ(samples, original);

    Rig floats(44100.0, 2, true);
    std::vector<float> f = {1.5f, -1.5f, 0.25f, -0.125f};
    floats.process(f.data(), 2);
    EXPECT_EQ(f, (std::vector<float>{1.5f, -1.5f, 0.25f, -0.125f}));
}

TEST(EqualizerFiltering, OneActiveBandFiltersAndClamps) {
    const float gains[10] = {0, 0, 0, 0, 0, 0.02f, 0, 0, 0, 0};
    Rig floats(44100.0, 2, true);
    ASSERT_EQ(audio_player_set_equalizer(floats.p(), gains, 10), 0);
    std::vector<float> f = {1.5f, -1.5f, 1.5f, -1.5f};
    floats.process(f.data(), 2);
    for (float v : f) {
        EXPECT_LE(std::fabs(v), 1.0f);
    }

    Rig ints(44100.0, 1, false);
    ASSERT_EQ(audio_player_set_equalizer(ints.p(), gains, 10), 0);
    std::vector<int16_t> s(256, -32768);
    ints.process(s.data(), 256);
    for (int16_t v : s) {
        EXPECT_GE(v, -32767);
    }
}

// The cascade in double precision with double coefficients, the same topology.
std::vector<double> referenceFilter(const std::vector<double>& in, uint32_t channels, double fs,
                                    const std::array<float, 10>& gains) {
    std::vector<double> out = in;
    for (int b = 0; b < kEqBands; ++b) {
        if (std::fabs(gains[b]) <= 0.01f) {
            continue;
        }
        const DoubleBiquad c = referenceDesign(gains[b], eq_centers_hz[b], fs);
        for (uint32_t j = 0; j < std::min<uint32_t>(channels, 8); ++j) {
            double z1 = 0, z2 = 0;
            for (size_t k = 0; k < out.size() / channels; ++k) {
                double& v = out[k * channels + j];
                const double y = c.b0 * v + z1;
                z1 = c.b1 * v - c.a1 * y + z2;
                z2 = c.b2 * v - c.a2 * y;
                v = y;
            }
        }
    }
    for (size_t i = 0; i < out.size(); ++i) {
        if (i % channels < 8) {
            out[i] = std::clamp(out[i], -1.0, 1.0);
        }
    }
    return out;
}

std::vector<float> quietNoise(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-0.2f, 0.2f);
    std::vector<float> v(n);
    for (auto& s : v) {
        s = dist(rng);
    }
    return v;
}

// The design and the single-precision filter at once: a wrong coefficient shows in the output.
TEST(EqualizerFiltering, TenBandsInSeriesMatchTheDoubleReference) {
    const uint32_t frames = 4096;
    for (const double fs : {32000.0, 44100.0, 48000.0}) {
        for (uint32_t channels : {1u, 2u, 6u}) {
            Rig rig(fs, channels, true);
            ASSERT_EQ(audio_player_set_equalizer(rig.p(), kGains.data(), 10), 0);
            std::vector<float> samples = quietNoise(frames * channels, channels);
            const std::vector<double> want =
                referenceFilter(std::vector<double>(samples.begin(), samples.end()), channels, fs, kGains);
            // Two buffers: the filter state carries from one to the next.
            rig.process(samples.data(), frames / 2);
            rig.process(samples.data() + frames / 2 * channels, frames / 2);
            double worst = 0;
            for (size_t i = 0; i < samples.size(); ++i) {
                worst = std::max(worst, std::fabs(samples[i] - want[i]));
            }
            EXPECT_LT(worst, 2e-4) << channels << " channels at " << fs;
        }
    }
}

TEST(EqualizerFiltering, ChannelsFromTheNinthOnPassUntouched) {
    Rig rig(48000.0, 10, true);
    ASSERT_EQ(audio_player_set_equalizer(rig.p(), kGains.data(), 10), 0);
    std::vector<float> samples = quietNoise(512 * 10, 3);
    for (size_t k = 0; k < 512; ++k) {
        samples[k * 10 + 9] = 1.75f;  // would be clamped if it were processed
    }
    const std::vector<float> before = samples;
    rig.process(samples.data(), 512);
    for (size_t k = 0; k < 512; ++k) {
        EXPECT_EQ(samples[k * 10 + 8], before[k * 10 + 8]);
        EXPECT_EQ(samples[k * 10 + 9], 1.75f);
    }
    EXPECT_NE(samples[100 * 10 + 7], before[100 * 10 + 7]) << "the eighth channel is equalised";
    // The tap still averages all ten channels.
    float last = 0;
    ASSERT_EQ(audio_player_get_recent_samples(rig.p(), &last, 1), 1u);
    float sum = 0;
    for (int j = 0; j < 10; ++j) {
        sum += samples[511 * 10 + j];
    }
    EXPECT_EQ(last, sum / 10.0f);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The sample tap
// ---------------------------------------------------------------------------------------------

TEST(SampleTap, RingKeepsTheNewestMonoSamplesOldestFirst) {
    Rig rig(48000.0, 2, false);
    std::vector<int16_t> s(10000 * 2);
    for (int k = 0; k < 10000; ++k) {
        s[k * 2] = static_cast<int16_t>(k);
        s[k * 2 + 1] = static_cast<int16_t>(k + 2);
    }
    rig.process(s.data(), 6000);
    rig.process(s.data() + 6000 * 2, 4000);

    std::vector<float> out(10000, -9.0f);
    ASSERT_EQ(audio_player_get_recent_samples(rig.p(), out.data(), 100), 100u);
    for (int i = 0; i < 100; ++i) {
        const int k = 9900 + i;
        EXPECT_EQ(out[i], (k / 32768.0f + (k + 2) / 32768.0f) / 2.0f) << i;
    }
    ASSERT_EQ(audio_player_get_recent_samples(rig.p(), out.data(), 10000), 8192u);
    EXPECT_EQ(out[0], ((10000 - 8192) / 32768.0f + (10000 - 8192 + 2) / 32768.0f) / 2.0f);
    EXPECT_EQ(out[8191], (9999 / 32768.0f + 10001 / 32768.0f) / 2.0f);
    EXPECT_EQ(out[8192], -9.0f) << "nothing written past the count";

    EXPECT_EQ(audio_player_get_recent_samples(rig.p(), out.data(), 0), 0u);
    EXPECT_EQ(audio_player_get_recent_samples(rig.p(), nullptr, 10), 0u);
    EXPECT_EQ(audio_player_get_recent_samples(nullptr, out.data(), 10), 0u);
}

TEST(SampleTap, FewerSamplesThanAskedAndNoRingMeansNoProcessing) {
    Rig rig(48000.0, 1, true);
    std::vector<float> s = {0.5f, -0.25f, 0.125f};
    rig.process(s.data(), 3);
    std::vector<float> out(8);
    ASSERT_EQ(audio_player_get_recent_samples(rig.p(), out.data(), 8), 3u);
    EXPECT_EQ(out[0], 0.5f);
    EXPECT_EQ(out[2], 0.125f);

    ASSERT_EQ(audio_player_set_equalizer(rig.p(), kGains.data(), 10), 0);
    rig.p()->recent.reset();
    std::vector<float> loud = {1.5f, 1.5f};
    rig.process(loud.data(), 2);
    EXPECT_EQ(loud, (std::vector<float>{1.5f, 1.5f})) << "without the ring the audio plays unprocessed";
    EXPECT_EQ(audio_player_get_recent_samples(rig.p(), out.data(), 8), 0u);
}

} // namespace
} // namespace pelora::gamedev::core
