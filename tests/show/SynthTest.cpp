// The show's synthesizer parts: band-limited oscillators, click-free envelopes, filters
// that pass and stop what they should, and the music grid lining up with the show's phases.
#include "music/Dsp.h"
#include "music/Song.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace brisvale::showgen {
namespace {

// Magnitude of one frequency in a block (Goertzel), normalised so a unit sine reads 1.
double magnitudeAt(const std::vector<double>& x, double hz) {
    const double w = kTwoPi * hz / kSampleRate;
    double s1 = 0.0, s2 = 0.0;
    for (double v : x) {
        const double s0 = v + 2.0 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double power = s1 * s1 + s2 * s2 - 2.0 * std::cos(w) * s1 * s2;
    return 2.0 * std::sqrt(std::max(power, 0.0)) / static_cast<double>(x.size());
}

std::vector<double> hann(std::vector<double> x) {
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] *= 0.5 - 0.5 * std::cos(kTwoPi * static_cast<double>(i) / static_cast<double>(x.size() - 1));
    return x;
}

TEST(Oscillator, PolyBlepSawAliasesFarLessThanANaiveSaw) {
    // Harmonic 37 of 1234.5 Hz lies at 45676.5 Hz, above Nyquist; it folds to 2323.5 Hz.
    const double f0 = 1234.5, alias = 48000.0 - 37.0 * f0;
    Oscillator blep;
    std::vector<double> smooth(48000), naive(48000);
    double phase = 0.0;
    for (std::size_t i = 0; i < smooth.size(); ++i) {
        smooth[i] = blep.next(f0, Wave::Saw);
        naive[i] = 2.0 * phase - 1.0;
        phase = std::fmod(phase + f0 / kSampleRate, 1.0);
    }
    smooth = hann(smooth);
    naive = hann(naive);
    const double fundamental = magnitudeAt(smooth, f0);
    EXPECT_GT(fundamental, 0.2);
    EXPECT_LT(magnitudeAt(smooth, alias), magnitudeAt(naive, alias) / 4.0);
    EXPECT_LT(20.0 * std::log10(magnitudeAt(smooth, alias) / fundamental), -45.0);
}

TEST(Oscillator, WaveformsStayInRangeAndKeepTheirPitch) {
    for (Wave wave : {Wave::Saw, Wave::Square, Wave::Sine, Wave::Triangle}) {
        Oscillator osc;
        std::vector<double> x(48000);
        double peak = 0.0;
        for (double& v : x) {
            v = osc.next(440.0, wave);
            peak = std::max(peak, std::abs(v));
        }
        EXPECT_LT(peak, 1.6) << static_cast<int>(wave);
        x = hann(x);
        EXPECT_GT(magnitudeAt(x, 440.0), 10.0 * magnitudeAt(x, 500.0)) << static_cast<int>(wave);
    }
}

TEST(Adsr, RisesHoldsAndReleasesWithoutSteps) {
    Adsr env(0.01, 0.1, 0.6, 0.05);
    double previous = 0.0, largestStep = 0.0;
    std::vector<double> levels;
    for (int i = 0; i < 72000; ++i) {
        if (i == 24000) env.noteOff();
        const double v = env.next();
        largestStep = std::max(largestStep, std::abs(v - previous));
        previous = v;
        levels.push_back(v);
    }
    EXPECT_LT(levels[0], 0.01);                 // starts from silence
    EXPECT_NEAR(levels[479], 1.0, 0.01);        // the attack peaks at 10 ms
    EXPECT_NEAR(levels[23999], 0.6, 0.01);      // sustain
    EXPECT_LT(levels[47999], 1e-4);             // released to silence
    EXPECT_LT(levels[71999], 1e-5);
    EXPECT_TRUE(env.finished());
    EXPECT_LT(largestStep, 1.0 / 400.0);        // no jump a listener would hear as a click
}

TEST(Filters, LowPassKeepsTheBassAndStopsTheTreble) {
    auto through = [](auto&& filter, double hz) {
        Oscillator osc;
        double peak = 0.0;
        for (int i = 0; i < 24000; ++i) {
            const double y = filter(osc.next(hz, Wave::Sine));
            if (i > 12000) peak = std::max(peak, std::abs(y));
        }
        return peak;
    };
    Svf svfLow, svfHigh;
    EXPECT_NEAR(through([&](double x) { return svfLow.process(x, 1000.0, 0.707).low; }, 100.0), 1.0, 0.05);
    EXPECT_LT(through([&](double x) { return svfHigh.process(x, 1000.0, 0.707).low; }, 10000.0), 0.02);
    Svf hp;
    EXPECT_LT(through([&](double x) { return hp.process(x, 1000.0, 0.707).high; }, 100.0), 0.02);
    Ladder ladderLow, ladderHigh;
    const double low = through([&](double x) { return ladderLow.process(x * 0.1, 800.0, 0.0); }, 80.0);
    const double high = through([&](double x) { return ladderHigh.process(x * 0.1, 800.0, 0.0); }, 8000.0);
    EXPECT_GT(low, 50.0 * high);
}

TEST(Noise, SameSeedSameStreamDifferentSeedDifferentStream) {
    Noise a(42), b(42), c(43);
    bool differs = false;
    for (int i = 0; i < 1000; ++i) {
        const double x = a.next();
        EXPECT_EQ(x, b.next());
        EXPECT_GE(x, -1.0);
        EXPECT_LT(x, 1.0);
        differs = differs || x != c.next();
    }
    EXPECT_TRUE(differs);
}

TEST(SongGrid, SectionsLandOnTheShowsPhaseChanges) {
    EXPECT_EQ(barToSample(4), static_cast<std::size_t>(9.25 * kSongRate));    // the intro ends on bar 4
    EXPECT_EQ(barToSample(63), static_cast<std::size_t>(142.0 * kSongRate));  // the finale starts on bar 63
}

}  // namespace
}  // namespace brisvale::showgen
