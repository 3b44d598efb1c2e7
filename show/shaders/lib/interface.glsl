// What the player hands every stage: the frame's push constants and set 0.
layout(push_constant, std430) uniform Frame {
    vec2 resolution; float timeSeconds; float deltaSeconds;
    float showDurationSeconds; float renderEndSeconds; uint vertexCapacity; uint imageCount;
    uint passIndex; uint passReserved0; uint passReserved1; uint passReserved2;
} frame;

#ifdef BRISVALE_COMPUTE
layout(std430, set = 0, binding = 0) buffer VertexPool { float words[]; } pool;
#else
layout(std430, set = 0, binding = 0) readonly buffer VertexPool { float words[]; } pool;
#endif
layout(std430, set = 0, binding = 1) buffer DrawArguments {
    uint vertexCount; uint instanceCount; uint firstVertex; uint firstInstance;
} drawArguments;
layout(std430, set = 0, binding = 2) buffer GeometryRequest {
    uint ownWord0; uint requestedVertexCount; uint overflowFlag; uint ownWord3;
} request;
layout(set = 0, binding = 3) uniform sampler2DArray images;
layout(set = 0, binding = 4) uniform sampler2D sceneDepth;

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
