// The reverb's tuning; the rest of the DSP lives inline in Dsp.h.
#include "music/Dsp.h"

namespace brisvale::showgen {

namespace {
// Freeverb's comb and all-pass lengths at 44.1 kHz, rescaled to our rate.
constexpr std::size_t kCombs[] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
constexpr std::size_t kAllPasses[] = {556, 441, 341, 225};
constexpr std::size_t kStereoSpread = 23;

std::size_t scaled(std::size_t n) { return static_cast<std::size_t>(static_cast<double>(n) * kSampleRate / 44100.0); }
}  // namespace

Reverb::Reverb() {
    for (std::size_t n : kCombs) {
        combsL_.push_back({DelayLine(scaled(n)), scaled(n)});
        combsR_.push_back({DelayLine(scaled(n + kStereoSpread)), scaled(n + kStereoSpread)});
    }
    for (std::size_t n : kAllPasses) {
        allL_.push_back({DelayLine(scaled(n)), scaled(n)});
        allR_.push_back({DelayLine(scaled(n + kStereoSpread)), scaled(n + kStereoSpread)});
    }
}

void Reverb::process(double inL, double inR, double& outL, double& outR) {
    const double in = (inL + inR) * 0.5 * 0.03;
    auto run = [&](std::vector<Comb>& combs, std::vector<AllPass>& alls) {
        double acc = 0.0;
        for (Comb& c : combs) {
            const double y = c.line.read(static_cast<double>(c.length));
            c.store = y * (1.0 - damp_) + c.store * damp_;
            c.line.push(in + c.store * feedback_);
            acc += y;
        }
        for (AllPass& a : alls) {
            const double buffered = a.line.read(static_cast<double>(a.length));
            a.line.push(acc + buffered * 0.5);
            acc = buffered - acc;
        }
        return acc;
    };
    outL = run(combsL_, allL_);
    outR = run(combsR_, allR_);
}

}  // namespace brisvale::showgen
