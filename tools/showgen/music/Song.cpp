// The arrangement of the default show's piece and the instruments that play it.
// Notes are rendered one at a time into full-length buses (offline, so every voice
// can run its envelope to silence); the buses are then effected, summed and limited.
//
// [SECTION] Instruments
// [SECTION] Score
// [SECTION] Master
#include "music/Song.h"

#include "music/Dsp.h"

#include <array>
#include <cstdint>
#include <deque>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace brisvale::showgen {
namespace {

constexpr std::size_t kStepSamples = kBeatSamples / 4;  // a sixteenth note
constexpr double kStep = static_cast<double>(kStepSamples);

struct Bus {
    std::vector<float> l, r;
    explicit Bus(std::size_t n) : l(n, 0.0f), r(n, 0.0f) {}
    std::size_t size() const { return l.size(); }
    void add(std::size_t i, double left, double right) {
        if (i < l.size()) {
            l[i] += static_cast<float>(left);
            r[i] += static_cast<float>(right);
        }
    }
};

struct Mix {
    explicit Mix(std::size_t n) : drums(n), duck(n), lead(n), pad(n), reverbSend(n), delaySend(n) {}
    Bus drums, duck, lead, pad, reverbSend, delaySend;
};

// Equal-power pan, -1 left .. 1 right.
std::pair<double, double> pan(double p) {
    const double a = (p + 1.0) * std::numbers::pi / 4.0;
    return {std::cos(a), std::sin(a)};
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Instruments
// ---------------------------------------------------------------------------------------------

void kick(Mix& m, std::size_t at, double vel) {
    Oscillator body;
    Noise noise(0x1234 + at);
    Svf clickFilter;
    const std::size_t len = static_cast<std::size_t>(0.55 * kSampleRate);
    for (std::size_t i = 0; i < len; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        const double hz = 46.0 + 120.0 * std::exp(-t / 0.032);
        const double amp = std::min(1.0, t / 0.0015) * std::exp(-t / 0.24) * (t > 0.45 ? std::max(0.0, 1.0 - (t - 0.45) / 0.1) : 1.0);
        double x = std::tanh(1.6 * body.next(hz, Wave::Sine)) * amp;
        x += clickFilter.process(noise.next(), 3000.0, 0.7).band * std::min(1.0, t / 0.0005) * std::exp(-t / 0.004) * 0.35;
        m.drums.add(at + i, x * vel, x * vel);
    }
}

void snare(Mix& m, std::size_t at, double vel) {
    Oscillator tone1, tone2;
    Noise noise(0x5eed + at * 7);
    Svf band, high;
    const std::size_t len = static_cast<std::size_t>(0.45 * kSampleRate);
    for (std::size_t i = 0; i < len; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        const double attack = std::min(1.0, t / 0.001);
        const double body = (tone1.next(190.0, Wave::Sine) * 0.6 + tone2.next(330.0, Wave::Sine) * 0.3) * std::exp(-t / 0.05);
        const double n = noise.next();
        const double hiss = band.process(n, 2200.0, 0.6).band * 0.8 + high.process(n, 6000.0, 0.7).high * 0.35;
        const double x = attack * (body + hiss * std::exp(-t / 0.12)) * vel;
        m.drums.add(at + i, x * 0.95, x);
        m.reverbSend.add(at + i, x * 0.35, x * 0.35);
    }
}

void hat(Mix& m, std::size_t at, double vel, double decay, std::uint64_t seed) {
    Noise noise(seed + at);
    Svf hp1, hp2;
    std::array<Oscillator, 6> metal;
    constexpr std::array<double, 6> ratios = {1.0, 1.4471, 1.6170, 1.9265, 2.5028, 2.6637};
    const std::size_t len = static_cast<std::size_t>((decay * 7.0 + 0.01) * kSampleRate);
    const auto [gl, gr] = pan(0.25);
    for (std::size_t i = 0; i < len; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        double tone = 0.0;
        for (std::size_t k = 0; k < metal.size(); ++k) tone += metal[k].next(410.0 * ratios[k], Wave::Square);
        const double src = noise.next() * 0.7 + tone * 0.08;
        const double x = hp2.process(hp1.process(src, 7500.0, 0.7).high, 9000.0, 0.9).high;
        const double env = std::min(1.0, t / 0.0008) * std::exp(-t / decay);
        m.drums.add(at + i, x * env * vel * gl, x * env * vel * gr);
    }
}

void crash(Mix& m, std::size_t at, double vel) {
    Noise noise(0xc0ffee + at);
    Svf hp, bp;
    const std::size_t len = static_cast<std::size_t>(4.0 * kSampleRate);
    for (std::size_t i = 0; i < len; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        const double n = noise.next();
        const double x = hp.process(n, 4500.0, 0.6).high * 0.7 + bp.process(n, 8000.0, 1.5).band * 0.3;
        const double env = std::min(1.0, t / 0.001) * std::exp(-t / 0.9) * vel;
        m.drums.add(at + i, x * env * 0.9, x * env);
        m.reverbSend.add(at + i, x * env * 0.4, x * env * 0.4);
    }
}

// A filtered-noise sweep that swells over `bars` and stops with a short fade.
void riser(Mix& m, std::size_t at, double bars, double vel) {
    Noise noise(0x71535 + at);
    Svf bp;
    const std::size_t len = static_cast<std::size_t>(bars * static_cast<double>(kBarSamples));
    const double fade = 0.03 * kSampleRate;
    for (std::size_t i = 0; i < len; ++i) {
        const double u = static_cast<double>(i) / static_cast<double>(len);
        const double cutoff = 300.0 * std::pow(30.0, u);
        const double x = bp.process(noise.next(), cutoff, 2.5).band;
        const double tail = std::min(1.0, static_cast<double>(len - i) / fade);
        const double env = u * u * tail * vel;
        const auto [gl, gr] = pan(std::sin(u * 9.0) * 0.6);
        m.lead.add(at + i, x * env * gl, x * env * gr);
        m.reverbSend.add(at + i, x * env * 0.5, x * env * 0.5);
    }
}

void bassNote(Mix& m, std::size_t at, std::size_t len, double midi, double vel, double cutoff) {
    Oscillator saw, sub;
    Ladder ladder;
    Adsr amp(0.004, 0.25, 0.75, 0.05);
    Adsr filt(0.002, 0.12, 0.2, 0.08);
    const double hz = midiToHz(midi);
    for (std::size_t i = 0;; ++i) {
        if (i == len) { amp.noteOff(); filt.noteOff(); }
        const double a = amp.next();
        const double f = filt.next();
        if (amp.finished()) break;
        const double src = saw.next(hz, Wave::Saw) * 0.7 + sub.next(hz * 0.5, Wave::Sine) * 0.6;
        const double y = ladder.process(src * 0.9, cutoff * (1.0 + 5.0 * f), 0.35) * a * vel;
        m.duck.add(at + i, y, y);
    }
}

void padNote(Mix& m, std::size_t at, std::size_t len, double midi, double vel, double cutoff, double release) {
    constexpr std::array<double, 4> detune = {-0.13, -0.05, 0.06, 0.14};  // semitones
    constexpr std::array<double, 4> pans = {-0.8, -0.3, 0.35, 0.85};
    std::array<Oscillator, 4> osc = {Oscillator(0.11), Oscillator(0.53), Oscillator(0.29), Oscillator(0.77)};
    Svf fl, fr;
    Adsr amp(0.5, 1.2, 0.8, release);
    for (std::size_t i = 0;; ++i) {
        if (i == len) amp.noteOff();
        const double a = amp.next();
        if (amp.finished()) break;
        double l = 0.0, r = 0.0;
        for (std::size_t k = 0; k < osc.size(); ++k) {
            const double s = osc[k].next(midiToHz(midi + detune[k]), Wave::Saw);
            const auto [gl, gr] = pan(pans[k]);
            l += s * gl;
            r += s * gr;
        }
        const double c = cutoff * (0.8 + 0.4 * a);
        l = fl.process(l, c, 0.8).low * a * vel * 0.25;
        r = fr.process(r, c, 0.8).low * a * vel * 0.25;
        m.pad.add(at + i, l, r);
        m.reverbSend.add(at + i, l * 0.6, r * 0.6);
    }
}

void leadNote(Mix& m, std::size_t at, std::size_t len, double midi, double vel, double brightness) {
    Oscillator o1, o2(0.4), vib;
    Svf filter;
    Adsr amp(0.012, 0.35, 0.7, 0.22);
    Adsr filt(0.01, 0.25, 0.35, 0.2);
    for (std::size_t i = 0;; ++i) {
        if (i == len) { amp.noteOff(); filt.noteOff(); }
        const double a = amp.next();
        const double f = filt.next();
        if (amp.finished()) break;
        const double t = static_cast<double>(i) / kSampleRate;
        const double depth = std::clamp((t - 0.25) / 0.4, 0.0, 1.0) * 0.14;
        const double hz = midiToHz(midi + depth * vib.next(5.4, Wave::Sine));
        const double src = o1.next(hz, Wave::Saw) * 0.55 + o2.next(hz * 1.003, Wave::Square, 0.42) * 0.35;
        const double y = filter.process(src, brightness * (0.6 + 1.8 * f), 1.1).low * a * vel * 0.5;
        m.lead.add(at + i, y, y);
        m.delaySend.add(at + i, y * 0.45, y * 0.45);
        m.reverbSend.add(at + i, y * 0.5, y * 0.5);
    }
}

void pluckNote(Mix& m, std::size_t at, double midi, double vel, double cutoff, double panPos) {
    Oscillator o;
    Svf filter;
    Adsr amp(0.002, 0.22, 0.0, 0.08);
    const std::size_t len = static_cast<std::size_t>(0.12 * kSampleRate);
    const auto [gl, gr] = pan(panPos);
    for (std::size_t i = 0;; ++i) {
        if (i == len) amp.noteOff();
        const double a = amp.next();
        if (amp.finished() || i > static_cast<std::size_t>(1.5 * kSampleRate)) break;
        const double t = static_cast<double>(i) / kSampleRate;
        const double c = cutoff * (0.3 + 2.5 * std::exp(-t / 0.05));
        const double y = filter.process(o.next(midiToHz(midi), Wave::Square, 0.3), c, 1.4).low * a * vel * 0.35;
        m.duck.add(at + i, y * gl, y * gr);
        m.delaySend.add(at + i, y * gl * 0.5, y * gr * 0.5);
        m.reverbSend.add(at + i, y * 0.3, y * 0.3);
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Score
// ---------------------------------------------------------------------------------------------

struct Chord {
    int bass;
    std::array<int, 4> pad;
};

constexpr Chord kAm{33, {57, 60, 64, 67}};
constexpr Chord kF{29, {53, 57, 60, 64}};
constexpr Chord kC{36, {52, 55, 60, 64}};
constexpr Chord kG{31, {55, 59, 62, 66}};
constexpr Chord kDm{38, {53, 57, 62, 65}};
constexpr Chord kE{40, {52, 56, 59, 64}};
constexpr Chord kAmFinal{33, {57, 64, 69, 71}};

Chord chordForBar(int bar) {
    static constexpr std::array<Chord, 4> main = {kAm, kF, kC, kG};
    static constexpr std::array<Chord, 4> bridge = {kDm, kAm, kF, kE};
    if (bar >= 44 && bar < 52) return bridge[static_cast<std::size_t>(bar - 44) % 4];
    if (bar == 56) return kDm;
    if (bar == 57) return kF;
    if (bar == 58) return kE;
    if (bar == 63) return kF;
    if (bar == 64) return kG;
    if (bar == 65) return kE;
    if (bar >= 66) return kAmFinal;
    return main[static_cast<std::size_t>(bar) % 4];
}

struct MelodyNote {
    int step;    // sixteenths from the phrase start
    int length;  // sixteenths
    int midi;
};

// "E5:4 r:2 G#5:8": note name with octave (or r for rest) and length in sixteenths.
std::vector<MelodyNote> parseMelody(std::string_view text) {
    std::vector<MelodyNote> notes;
    std::istringstream in{std::string(text)};
    std::string token;
    int step = 0;
    while (in >> token) {
        const auto colon = token.find(':');
        if (colon == std::string::npos) throw std::runtime_error("Bad melody token: " + token);
        const int length = std::stoi(token.substr(colon + 1));
        const std::string name = token.substr(0, colon);
        if (name != "r") {
            static constexpr std::array<int, 7> pcs = {9, 11, 0, 2, 4, 5, 7};  // A..G
            int pc = pcs[static_cast<std::size_t>(name[0] - 'A')];
            std::size_t pos = 1;
            if (name[pos] == '#') { ++pc; ++pos; }
            else if (name[pos] == 'b') { --pc; ++pos; }
            const int octave = std::stoi(name.substr(pos));
            notes.push_back({step, length, 12 * (octave + 1) + pc});
        }
        step += length;
    }
    return notes;
}

constexpr std::string_view kMelodyA =
    "r:2 E5:2 A5:4 G5:2 E5:2 D5:4 "
    "C5:4 D5:2 E5:2 F5:2 E5:2 C5:4 "
    "r:2 E5:2 G5:4 A5:2 G5:2 E5:4 "
    "D5:8 B4:4 G4:4 "
    "r:2 E5:2 A5:4 B5:2 C6:2 B5:4 "
    "A5:4 G5:2 F5:2 E5:4 C5:4 "
    "E5:4 G5:4 E5:2 D5:2 C5:4 "
    "D5:4 C5:4 B4:8";

constexpr std::string_view kMelodyB =
    "F5:4 E5:2 D5:2 A5:8 "
    "G5:2 E5:2 C5:4 E5:8 "
    "F5:4 G5:2 A5:2 C6:6 A5:2 "
    "B5:8 G#5:4 E5:4 "
    "D6:4 C6:2 A5:2 F5:8 "
    "E5:4 A5:4 C6:4 B5:4 "
    "A5:6 G5:2 F5:4 A5:4 "
    "G#5:8 B5:4 E5:4";

constexpr std::string_view kMelodyFinale =
    "C6:4 A5:4 F5:4 A5:4 "
    "B5:4 D6:4 B5:4 G5:4 "
    "G#5:8 B5:6 D6:2 "
    "C6:2 B5:2 A5:28";

void playMelody(Mix& m, std::string_view text, int firstBar, int transpose, double vel, double brightness) {
    for (const MelodyNote& n : parseMelody(text)) {
        const std::size_t at = barToSample(firstBar) + static_cast<std::size_t>(n.step) * kStepSamples;
        const auto len = static_cast<std::size_t>(static_cast<double>(n.length) * kStep * 0.92);
        leadNote(m, at, len, n.midi + transpose, vel, brightness);
    }
}

// Pad cutoff over the piece: opens through the intro, darker in the breakdown.
double padCutoff(int bar) {
    if (bar < 4) return 350.0 + 450.0 * bar;
    if (bar >= 20 && bar < 28) return 900.0 + 180.0 * (bar - 20);
    if (bar >= 52 && bar < 59) return 1200.0 + 300.0 * (bar - 52);
    if (bar >= 63) return 3200.0;
    return 2400.0;
}

void arrange(Mix& m, std::vector<double>& kicks) {
    constexpr int kLastBar = 68;
    auto has = [](int bar, int from, int to) { return bar >= from && bar < to; };

    for (int bar = 0; bar < kLastBar; ++bar) {
        const Chord chord = chordForBar(bar);
        const std::size_t start = barToSample(bar);

        // Pads: one chord per bar; the last chord holds two bars and fades long.
        if (bar <= 66) {
            const bool last = bar == 66;
            const std::size_t len = last ? 2 * kBarSamples : kBarSamples;
            const double vel = bar < 4 ? 0.5 + 0.12 * bar : (has(bar, 20, 28) ? 0.9 : 0.75);
            for (int note : chord.pad) padNote(m, start, len, note, vel, padCutoff(bar), last ? 1.1 : 0.35);
        }

        // Bass.
        const bool pumping = has(bar, 4, 20) || has(bar, 28, 56) || has(bar, 59, 66);
        const bool sustained = has(bar, 20, 28) || has(bar, 56, 59);
        if (pumping) {
            static constexpr std::array<int, 16> pattern = {0, -1, 0, 12, -1, 0, -1, 0, 0, -1, 12, -1, 0, -1, 7, 0};
            for (std::size_t s = 0; s < 16; ++s) {
                if (pattern[s] < 0) continue;
                const double vel = (s % 4 == 0) ? 0.8 : 0.62;
                bassNote(m, start + s * kStepSamples, static_cast<std::size_t>(kStep * 0.7), chord.bass + pattern[s], vel,
                         bar >= 59 ? 520.0 : 380.0);
            }
        } else if (sustained) {
            bassNote(m, start, kBarSamples - kStepSamples, chord.bass, 0.6, 260.0);
        } else if (bar == 66) {
            bassNote(m, start, 2 * kBarSamples, chord.bass, 0.75, 300.0);
        }

        // Arpeggio: sixteenths over the chord, up two octaves and back.
        const bool arp = has(bar, 2, 66);
        if (arp) {
            static constexpr std::array<int, 16> order = {0, 1, 2, 3, 4, 5, 6, 7, 6, 5, 4, 3, 2, 1, 2, 3};
            const double vel = bar < 4 ? 0.35 + 0.15 * (bar - 2) : (has(bar, 20, 28) ? 0.75 : 0.55);
            const double cutoff = has(bar, 20, 28) ? 1400.0 + 150.0 * (bar - 20) : 2200.0;
            for (std::size_t s = 0; s < 16; ++s) {
                const int idx = order[s];
                const int note = chord.pad[static_cast<std::size_t>(idx % 4)] + 12 * (idx / 4) + 12;
                pluckNote(m, start + s * kStepSamples, note, vel * (s % 4 == 0 ? 1.0 : 0.8), cutoff, (s % 2) ? 0.45 : -0.45);
            }
        }
        if (bar == 66) {  // the last chord, rolled slowly upward
            for (std::size_t k = 0; k < 8; ++k) {
                const int note = chord.pad[k % 4] + 12 * static_cast<int>(k / 4) + 12;
                pluckNote(m, start + k * 2 * kStepSamples, note, 0.5 - 0.04 * static_cast<double>(k), 2600.0, k % 2 ? 0.5 : -0.5);
            }
        }

        // Drums.
        const bool kickOn = has(bar, 4, 20) || has(bar, 28, 56) || has(bar, 59, 66);
        const bool snareOn = has(bar, 12, 20) || has(bar, 28, 52) || has(bar, 59, 66);
        for (std::size_t beat = 0; beat < 4; ++beat) {
            const std::size_t b = start + beat * kBeatSamples;
            if (kickOn) {
                kick(m, b, 0.95);
                kicks.push_back(static_cast<double>(b));
            }
            if (snareOn && (beat == 1 || beat == 3)) snare(m, b, 0.7);
            const bool hats8 = has(bar, 4, 20) || has(bar, 44, 56) || has(bar, 59, 66);
            const bool hats16 = has(bar, 24, 44) || has(bar, 56, 58);
            if (hats16) {
                for (std::size_t s = 0; s < 4; ++s) {
                    const double vel = has(bar, 24, 28) ? 0.12 + 0.03 * (bar - 24) : (s % 2 ? 0.2 : 0.28);
                    hat(m, b + s * kStepSamples, vel, 0.03, 0x4a7);
                }
            } else if (hats8) {
                hat(m, b + 2 * kStepSamples, 0.3, 0.035, 0x4a7);
                if (bar >= 12) hat(m, b, 0.14, 0.03, 0x4a7);
            }
            if ((has(bar, 12, 20) || has(bar, 28, 44) || has(bar, 59, 66)) && beat % 2 == 1)
                hat(m, b + 2 * kStepSamples, 0.14, 0.22, 0x09e);
        }
        if (bar == 4 || bar == 28 || bar == 36 || bar == 44 || bar == 59 || bar == 63) crash(m, start, 0.5);
        if (bar == 66) {
            kick(m, start, 1.0);
            kicks.push_back(static_cast<double>(start));
            crash(m, start, 0.55);
        }
    }

    // Snare builds: a fill into the full section and an accelerating roll before the peak.
    for (std::size_t s = 8; s < 16; ++s) snare(m, barToSample(27) + s * kStepSamples, 0.25 + 0.04 * static_cast<double>(s - 8));
    for (int bar = 52; bar < 59; ++bar) {
        const std::size_t per = bar < 54 ? 4 : (bar < 56 ? 2 : 1);
        for (std::size_t s = 0; s < 16; s += per) {
            if (bar == 58 && s >= 12) break;  // a beat of air before the peak
            const double u = (static_cast<double>(bar - 52) + static_cast<double>(s) / 16.0) / 7.0;
            snare(m, barToSample(bar) + s * kStepSamples, 0.2 + 0.5 * u);
        }
    }
    riser(m, barToSample(2), 2.0, 0.5);
    riser(m, barToSample(26), 2.0, 0.45);
    riser(m, barToSample(56), 2.75, 0.55);
    riser(m, barToSample(61), 2.0, 0.35);

    // Lead.
    playMelody(m, kMelodyA, 12, 0, 0.62, 2600.0);
    playMelody(m, kMelodyA, 20, -12, 0.5, 1500.0);
    playMelody(m, kMelodyA, 28, 0, 0.62, 3000.0);
    playMelody(m, kMelodyA, 36, 0, 0.5, 3400.0);
    playMelody(m, kMelodyA, 36, -12, 0.42, 2200.0);
    playMelody(m, kMelodyB, 44, 0, 0.62, 3200.0);
    playMelody(m, kMelodyA.substr(0, kMelodyA.find("r:2 E5:2 A5:4 B5:2")), 59, 0, 0.62, 3600.0);
    playMelody(m, kMelodyA.substr(0, kMelodyA.find("r:2 E5:2 A5:4 B5:2")), 59, 12, 0.3, 3000.0);
    playMelody(m, kMelodyFinale, 63, 0, 0.62, 3400.0);
    playMelody(m, kMelodyFinale, 63, -12, 0.4, 2200.0);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Master
// ---------------------------------------------------------------------------------------------

// Look-ahead peak limiter: the gain reaches its target before the peak arrives, so the
// ceiling holds without clipping, and it recovers slowly enough not to pump audibly.
void limit(std::vector<double>& l, std::vector<double>& r, double ceiling) {
    const std::size_t n = l.size();
    const std::size_t look = static_cast<std::size_t>(0.004 * kSampleRate);
    std::vector<double> req(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double peak = std::max(std::abs(l[i]), std::abs(r[i]));
        req[i] = peak > ceiling ? ceiling / peak : 1.0;
    }
    // Sliding minimum over the window [i - look + 1, i].
    std::vector<double> held(n);
    std::deque<std::size_t> window;
    for (std::size_t i = 0; i < n; ++i) {
        while (!window.empty() && req[window.back()] >= req[i]) window.pop_back();
        window.push_back(i);
        if (window.front() + look <= i) window.pop_front();
        held[i] = req[window.front()];
    }
    // Slow release towards unity, never above the held requirement.
    const double rel = std::exp(-1.0 / (0.12 * kSampleRate));
    double g = 1.0;
    for (std::size_t i = 0; i < n; ++i) {
        g = std::min(held[i], 1.0 - (1.0 - g) * rel);
        held[i] = g;
    }
    // Averaging `look` samples ahead keeps the gain under every requirement it covers.
    double sum = 0.0;
    for (std::size_t i = 0; i < look && i < n; ++i) sum += held[i];
    for (std::size_t i = 0; i < n; ++i) {
        const double gain = sum / static_cast<double>(look);
        l[i] *= gain;
        r[i] *= gain;
        sum -= held[i];
        sum += (i + look < n) ? held[i + look] : 1.0;
    }
}

}  // namespace

StereoPcm renderSong() {
    const auto total = static_cast<std::size_t>(kSongSeconds * kSongRate);
    Mix m(total);
    std::vector<double> kicks;
    arrange(m, kicks);

    // Sidechain ducking of bass, pads and arpeggio from the kick.
    std::vector<float> duckGain(total, 1.0f);
    for (double k : kicks) {
        const auto at = static_cast<std::size_t>(k);
        const std::size_t len = static_cast<std::size_t>(0.45 * kSampleRate);
        for (std::size_t i = 0; i < len && at + i < total; ++i) {
            const double t = static_cast<double>(i) / kSampleRate;
            const double shape = std::min(1.0, t / 0.006) * std::exp(-t / 0.16);
            duckGain[at + i] = std::min(duckGain[at + i], static_cast<float>(1.0 - 0.45 * (t < 0.006 ? t / 0.006 : shape)));
        }
    }

    // Chorus on the pads, ping-pong delay on the sends, the shared room.
    DelayLine chorusL(2400), chorusR(2400);
    Oscillator lfoL(0.0), lfoR(0.25);
    DelayLine delayL(40000), delayR(40000);
    const double dottedEighth = 0.75 * static_cast<double>(kBeatSamples);
    Svf delayToneL, delayToneR;
    Reverb room;
    double fbL = 0.0, fbR = 0.0;

    std::vector<double> outL(total), outR(total);
    for (std::size_t i = 0; i < total; ++i) {
        const double pl = m.pad.l[i], pr = m.pad.r[i];
        chorusL.push(pl);
        chorusR.push(pr);
        const double cl = chorusL.read(480.0 + 240.0 * lfoL.next(0.31, Wave::Sine));
        const double cr = chorusR.read(480.0 + 240.0 * lfoR.next(0.27, Wave::Sine));
        const double padL = pl * 0.7 + cr * 0.55;
        const double padR = pr * 0.7 + cl * 0.55;

        const double sendL = m.delaySend.l[i], sendR = m.delaySend.r[i];
        const double dl = delayL.read(dottedEighth);
        const double dr = delayR.read(dottedEighth * 2.0 / 1.5 * 0.75);
        delayL.push(sendL + delayToneR.process(fbR, 3500.0, 0.7).low * 0.42);
        delayR.push(sendR * 0.4 + delayToneL.process(fbL, 3500.0, 0.7).low * 0.42);
        fbL = dl;
        fbR = dr;

        double revL = 0.0, revR = 0.0;
        room.process(m.reverbSend.l[i], m.reverbSend.r[i], revL, revR);

        const double duck = duckGain[i];
        outL[i] = m.drums.l[i] * 0.9 + (m.duck.l[i] + padL * 0.8) * duck + m.lead.l[i] + dl * 0.5 + revL * 0.9;
        outR[i] = m.drums.r[i] * 0.9 + (m.duck.r[i] + padR * 0.8) * duck + m.lead.r[i] + dr * 0.5 + revR * 0.9;
    }

    // Master: remove DC, set the level, limit under -1.5 dBFS, fade the very end.
    double peakBefore = 0.0;
    Svf dcL, dcR;
    for (std::size_t i = 0; i < total; ++i) {
        outL[i] = dcL.process(outL[i], 18.0, 0.7).high;
        outR[i] = dcR.process(outR[i], 18.0, 0.7).high;
        peakBefore = std::max({peakBefore, std::abs(outL[i]), std::abs(outR[i])});
    }
    const double drive = dbToGain(-1.0) / std::max(peakBefore, 1e-9) * 1.2;
    for (std::size_t i = 0; i < total; ++i) {
        outL[i] *= drive;
        outR[i] *= drive;
    }
    limit(outL, outR, dbToGain(-2.5));
    const auto fade = static_cast<std::size_t>(1.0 * kSampleRate);
    StereoPcm pcm;
    pcm.left.resize(total);
    pcm.right.resize(total);
    for (std::size_t i = 0; i < total; ++i) {
        const double g = i + fade > total ? static_cast<double>(total - i) / static_cast<double>(fade) : 1.0;
        pcm.left[i] = static_cast<float>(outL[i] * g);
        pcm.right[i] = static_cast<float>(outR[i] * g);
    }
    return pcm;
}

}  // namespace brisvale::showgen
