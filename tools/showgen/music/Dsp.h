// Building blocks of the show's synthesizer: band-limited oscillators (polyBLEP),
// envelopes, state-variable and ladder filters, noise, delay lines, chorus and reverb.
// Everything is deterministic: no global state, noise from a seeded xorshift.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace brisvale::showgen {

inline constexpr double kSampleRate = 48000.0;
inline constexpr double kTwoPi = 2.0 * std::numbers::pi;

inline double midiToHz(double note) { return 440.0 * std::pow(2.0, (note - 69.0) / 12.0); }
inline double dbToGain(double db) { return std::pow(10.0, db / 20.0); }

// Seeded white noise in [-1, 1).
class Noise {
public:
    explicit Noise(std::uint64_t seed) : state_(seed ? seed : 0x9e3779b97f4a7c15ull) {}
    double next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<double>(state_ >> 11) * (2.0 / 9007199254740992.0) - 1.0;
    }
private:
    std::uint64_t state_;
};

// Residual that removes the step discontinuity of a naive waveform (t in [0,1), dt = f/fs).
inline double polyBlep(double t, double dt) {
    if (t < dt) {
        t /= dt;
        return t + t - t * t - 1.0;
    }
    if (t > 1.0 - dt) {
        t = (t - 1.0) / dt;
        return t * t + t + t + 1.0;
    }
    return 0.0;
}

enum class Wave { Saw, Square, Triangle, Sine };

// Band-limited oscillator; the triangle is a leaky-integrated polyBLEP square.
class Oscillator {
public:
    // The triangle's integrator starts on the waveform, so it begins without a DC offset.
    explicit Oscillator(double phase = 0.0) : phase_(phase), tri_(phase < 0.5 ? 4.0 * phase - 1.0 : 3.0 - 4.0 * phase) {}
    double next(double hz, Wave wave, double pulseWidth = 0.5) {
        const double dt = std::clamp(hz / kSampleRate, 0.0, 0.49);
        double out = 0.0;
        switch (wave) {
        case Wave::Sine: out = std::sin(kTwoPi * phase_); break;
        case Wave::Saw: out = 2.0 * phase_ - 1.0 - polyBlep(phase_, dt); break;
        case Wave::Square:
        case Wave::Triangle: {
            out = phase_ < pulseWidth ? 1.0 : -1.0;
            out += polyBlep(phase_, dt);
            out -= polyBlep(std::fmod(phase_ + 1.0 - pulseWidth, 1.0), dt);
            if (wave == Wave::Triangle) {
                tri_ = dt * 4.0 * out + (1.0 - dt * 0.05) * tri_;
                out = tri_;
            }
            break;
        }
        }
        phase_ += dt;
        if (phase_ >= 1.0) phase_ -= 1.0;
        return out;
    }
private:
    double phase_;
    double tri_;
};

// Linear-attack, exponential decay/release ADSR. Times in seconds.
class Adsr {
public:
    Adsr(double attack, double decay, double sustain, double release)
        : attack_(std::max(attack, 0.002)), sustain_(sustain),
          decayCoef_(std::exp(-1.0 / (std::max(decay, 0.001) * kSampleRate))),
          releaseCoef_(std::exp(-1.0 / (std::max(release, 0.003) * kSampleRate))) {}
    void noteOff() { released_ = true; }
    bool finished() const { return released_ && level_ < 1e-5; }
    double next() {
        if (released_) {
            level_ *= releaseCoef_;
        } else if (attacking_) {
            level_ += 1.0 / (attack_ * kSampleRate);
            if (level_ >= 1.0) { level_ = 1.0; attacking_ = false; }
        } else {
            level_ = sustain_ + (level_ - sustain_) * decayCoef_;
        }
        return level_;
    }
private:
    double attack_, sustain_, decayCoef_, releaseCoef_;
    double level_ = 0.0;
    bool attacking_ = true;
    bool released_ = false;
};

// Topology-preserving state-variable filter (Simper/Zavalishin); all outputs at once.
class Svf {
public:
    struct Out { double low, band, high; };
    Out process(double x, double cutoffHz, double q) {
        const double g = std::tan(std::numbers::pi * std::clamp(cutoffHz, 10.0, kSampleRate * 0.45) / kSampleRate);
        const double k = 1.0 / std::max(q, 0.05);
        const double a1 = 1.0 / (1.0 + g * (g + k));
        const double a2 = g * a1;
        const double a3 = g * a2;
        const double v3 = x - ic2_;
        const double v1 = a1 * ic1_ + a2 * v3;
        const double v2 = ic2_ + a2 * ic1_ + a3 * v3;
        ic1_ = 2.0 * v1 - ic1_;
        ic2_ = 2.0 * v2 - ic2_;
        return {v2, v1, x - k * v1 - v2};
    }
private:
    double ic1_ = 0.0, ic2_ = 0.0;
};

// Four-pole transistor-ladder low-pass with tanh saturation on the input.
class Ladder {
public:
    double process(double x, double cutoffHz, double resonance) {
        const double f = std::clamp(cutoffHz, 20.0, kSampleRate * 0.42);
        const double g = 1.0 - std::exp(-kTwoPi * f / kSampleRate);
        const double in = std::tanh(x - resonance * 4.0 * s_[3]);
        s_[0] += g * (in - s_[0]);
        s_[1] += g * (s_[0] - s_[1]);
        s_[2] += g * (s_[1] - s_[2]);
        s_[3] += g * (s_[2] - s_[3]);
        return s_[3];
    }
private:
    double s_[4] = {0, 0, 0, 0};
};

// Circular delay line with fractional (linear) reads.
class DelayLine {
public:
    explicit DelayLine(std::size_t maxSamples) : buf_(maxSamples + 2, 0.0) {}
    void push(double x) { buf_[pos_] = x; pos_ = (pos_ + 1) % buf_.size(); }
    double read(double delaySamples) const {
        const double d = std::clamp(delaySamples, 1.0, static_cast<double>(buf_.size() - 2));
        const auto whole = static_cast<std::size_t>(d);
        const double frac = d - static_cast<double>(whole);
        const std::size_t n = buf_.size();
        const double a = buf_[(pos_ + n - whole) % n];
        const double b = buf_[(pos_ + n - whole - 1) % n];
        return a + (b - a) * frac;
    }
private:
    std::vector<double> buf_;
    std::size_t pos_ = 0;
};

// One-pole smoother / low-pass.
class OnePole {
public:
    double process(double x, double hz) {
        const double a = std::exp(-kTwoPi * hz / kSampleRate);
        z_ = x * (1.0 - a) + z_ * a;
        return z_;
    }
private:
    double z_ = 0.0;
};

// Freeverb-style stereo room: parallel damped combs into series all-passes.
class Reverb {
public:
    Reverb();
    void process(double inL, double inR, double& outL, double& outR);
private:
    struct Comb { DelayLine line; std::size_t length; double store = 0.0; };
    struct AllPass { DelayLine line; std::size_t length; };
    std::vector<Comb> combsL_, combsR_;
    std::vector<AllPass> allL_, allR_;
    double feedback_ = 0.86, damp_ = 0.28;
};

}  // namespace brisvale::showgen
