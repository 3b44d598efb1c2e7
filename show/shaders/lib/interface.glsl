// The player's interface, then what this show's files share: its vertex, image layers,
// phases and beat grid.
#include "frame.glsl"

// Our vertex: clip-space x, y, depth (already divided by w), then straight-alpha colour.
const uint FLOATS_PER_VERTEX = 7u;

// Image layers, in the order of assets.txt.
const float LAYER_TITLE = 0.0;
const float LAYER_MARBLE = 1.0;
const float LAYER_PALETTE = 2.0;
const float LAYER_PATTERN = 3.0;

// Phase changes of the player.
const float INTRO_END = 9.25;
const float FINALE_START = 142.0;

// The music's grid: bars of four beats of 0.5625 s, the first bar at 0.25 s.
const float BEAT_SECONDS = 0.5625;
const float GRID_OFFSET = 0.25;

float beatAt(float t) { return (t - GRID_OFFSET) / BEAT_SECONDS; }
float barAt(float t) { return beatAt(t) * 0.25; }

// Bars where the kick drum plays (mirrors the arrangement).
bool kickInBar(float bar) {
    return (bar >= 4.0 && bar < 20.0) || (bar >= 28.0 && bar < 56.0) || (bar >= 59.0 && bar < 66.0);
}

// 1 on each kick, decaying through the beat; 0 where the kick rests.
float kickPulse(float t) {
    float beat = beatAt(t);
    if (beat < 0.0 || !kickInBar(floor(beat * 0.25))) return 0.0;
    return exp(-fract(beat) * 5.0);
}
