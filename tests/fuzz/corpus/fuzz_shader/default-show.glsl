// Brisvale's default show. One source for all three stages: the player compiles it per
// stage with BRISVALE_<STAGE> defined and renames that stage's entry to main.
//   intro  (t < 9.25)        lanterns made by the compute stage, a vignette quad over them
//   middle (9.25 .. 142)     full-screen scenes that follow the music's sections
//   finale (t >= 142)        depth-tested cubes from the compute stage, fog and ink composite

#include "lib/interface.glsl"
#include "lib/math.glsl"
#include "lib/noise.glsl"
#include "finale.glsl"
#include "middle.glsl"
#include "intro.glsl"

#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;

void scene_compute() {
    uint i = gl_GlobalInvocationID.x;
    if (i >= frame.vertexCapacity) return;
    if (frame.timeSeconds < INTRO_END) {
        introCompute(i);
    } else {
        finaleCompute(i);
    }
}
#endif

#ifdef BRISVALE_VERTEX
layout(location = 0) out vec4 vColour;
layout(location = 1) out vec2 vUv;

void scene_vertex() {
    if (frame.passIndex == 0u) {
        uint base = uint(gl_VertexIndex) * FLOATS_PER_VERTEX;
        gl_Position = vec4(pool.words[base], pool.words[base + 1u], pool.words[base + 2u], 1.0);
        vColour = vec4(pool.words[base + 3u], pool.words[base + 4u], pool.words[base + 5u], pool.words[base + 6u]);
        vUv = vec2(0.0);
    } else {
        // Strip order: bottom left, bottom right, top left, top right.
        vec2 corner = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
        gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
        vColour = vec4(1.0);
        vUv = vec2(corner.x, 1.0 - corner.y);
    }
}
#endif

#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec4 vColour;
layout(location = 1) in vec2 vUv;
layout(location = 0) out vec4 outColour;

void scene_fragment() {
    float t = frame.timeSeconds;
    vec2 fragCoord = gl_FragCoord.xy;
    if (frame.passIndex == 0u) {
        outColour = vec4(clamp(vColour.rgb + ditherNoise(fragCoord, t), 0.0, 1.0), vColour.a);
    } else if (frame.passIndex == 1u) {
        if (t < INTRO_END) {
            outColour = introOverlay(fragCoord, vUv, t);
        } else if (t < FINALE_START) {
            outColour = vec4(clamp(tonemap(middleScene(fragCoord, vUv, t)) + ditherNoise(fragCoord, t), 0.0, 1.0), 1.0);
        } else {
            vec2 q = (fragCoord - 0.5 * frame.resolution) / frame.resolution.y;
            q.y = -q.y;
            outColour = vec4(clamp(tonemap(finaleSky(q, t)) + ditherNoise(fragCoord, t), 0.0, 1.0), 1.0);
        }
    } else {
        outColour = finaleComposite(fragCoord, vUv, t);
    }
}
#endif
//>> lib/interface.glsl
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
//>> lib/math.glsl
// Small maths shared by every phase: rotations, palettes, easing, dithering.
const float PI = 3.14159265359;
const float TAU = 6.28318530718;

mat2 rot2(float a) { float c = cos(a), s = sin(a); return mat2(c, s, -s, c); }

mat3 rotY(float a) { float c = cos(a), s = sin(a); return mat3(c, 0.0, -s, 0.0, 1.0, 0.0, s, 0.0, c); }
mat3 rotX(float a) { float c = cos(a), s = sin(a); return mat3(1.0, 0.0, 0.0, 0.0, c, s, 0.0, -s, c); }

vec3 cosinePalette(float t, vec3 a, vec3 b, vec3 c, vec3 d) { return a + b * cos(TAU * (c * t + d)); }

// Warm lantern colours, amber to rose to teal.
vec3 lanternColor(float t) {
    return cosinePalette(t, vec3(0.62, 0.45, 0.40), vec3(0.38, 0.30, 0.28), vec3(1.0, 0.9, 0.8), vec3(0.02, 0.18, 0.35));
}

float saturate(float x) { return clamp(x, 0.0, 1.0); }
float easeInOut(float x) { x = saturate(x); return x * x * (3.0 - 2.0 * x); }

// 0 outside [a, d], ramps over [a, b] and [c, d], 1 between.
float window(float x, float a, float b, float c, float d) {
    return smoothstep(a, b, x) * (1.0 - smoothstep(c, d, x));
}

// Linear up to 0.8, then a soft shoulder: bright sums roll off instead of clipping flat.
vec3 tonemap(vec3 c) {
    c = max(c, 0.0);
    vec3 shoulder = 0.8 + 0.2 * (1.0 - exp(-(c - 0.8) / 0.2));
    return mix(c, shoulder, step(0.8, c));
}
//>> lib/noise.glsl
// Hashes, value noise and fractal sums; free of textures so every stage can use them.
float hash12(vec2 p) {
    vec3 p3 = fract(vec3(p.xyx) * 0.1031);
    p3 += dot(p3, p3.yzx + 33.33);
    return fract((p3.x + p3.y) * p3.z);
}

float hash11(float p) {
    p = fract(p * 0.1031);
    p *= p + 33.33;
    p *= p + p;
    return fract(p);
}

vec2 hash22(vec2 p) {
    vec3 p3 = fract(vec3(p.xyx) * vec3(0.1031, 0.1030, 0.0973));
    p3 += dot(p3, p3.yzx + 33.33);
    return fract((p3.xx + p3.yz) * p3.zy);
}

float valueNoise(vec2 p) {
    vec2 i = floor(p), f = fract(p);
    vec2 u = f * f * f * (f * (f * 6.0 - 15.0) + 10.0);
    float a = hash12(i), b = hash12(i + vec2(1.0, 0.0));
    float c = hash12(i + vec2(0.0, 1.0)), d = hash12(i + vec2(1.0, 1.0));
    return mix(mix(a, b, u.x), mix(c, d, u.x), u.y);
}

float fbm(vec2 p) {
    float sum = 0.0, amp = 0.5;
    for (int i = 0; i < 5; ++i) {
        sum += amp * valueNoise(p);
        p = mat2(1.6, 1.2, -1.2, 1.6) * p + vec2(3.1, 7.7);
        amp *= 0.5;
    }
    return sum / 0.96875;
}

// Triangular noise of one 8-bit step, against banding in smooth gradients.
vec3 ditherNoise(vec2 fragCoord, float t) {
    vec2 p = fragCoord + fract(t * 7.13) * 97.0;
    float n = hash12(p) + hash12(p + 19.19) - 1.0;
    return vec3(n / 255.0);
}
//>> finale.glsl
// Finale (t >= 142): a torus of flat-shaded cubes, some of them lit lanterns, turning
// under a night sky. The cubes are depth-tested; the composite pass reads that depth
// for distance fog and ink outlines, and fades the show out with the music.

const uint RING_CUBES = 40u;
const uint TUBE_CUBES = 12u;
const uint CUBE_COUNT = RING_CUBES * TUBE_CUBES;
const uint VERTS_PER_CUBE = 36u;
const float NEAR_PLANE = 0.5;
const float FAR_PLANE = 20.0;
const float LAST_CHORD = 148.75;  // bar 66: the final chord

// Seconds from the finale's start; the camera and the torus share it.
float finaleTime(float t) { return max(t - FINALE_START, 0.0); }

vec3 finaleSky(vec2 q, float t) {
    float ft = finaleTime(t);
    vec3 top = vec3(0.01, 0.012, 0.04);
    vec3 low = vec3(0.20, 0.10, 0.16);
    vec3 col = mix(low, top, smoothstep(-0.35, 0.45, q.y));
    vec2 starCell = floor(q * 200.0);
    float star = step(0.995, hash12(starCell));
    col += vec3(0.85, 0.88, 1.0) * star * (0.5 + 0.5 * sin(t * 1.7 + hash12(starCell + 1.0) * 20.0)) * 0.7;
    // A slow band of haze crossing the sky.
    float band = exp(-pow((q.y - 0.15 * sin(q.x * 1.5 + ft * 0.05)) * 4.0, 2.0));
    col += vec3(0.25, 0.12, 0.18) * band * (0.6 + 0.4 * fbm(q * 3.0 + vec2(ft * 0.03, 0.0)));
    return col;
}

// The finale's camera: an orbit around the torus, slowly rising.
void finaleCamera(float t, out vec3 eye, out vec3 right, out vec3 up, out vec3 forward) {
    float ft = finaleTime(t);
    float angle = 0.6 + ft * 0.16;
    eye = vec3(6.4 * cos(angle), 1.6 + 0.12 * ft, 6.4 * sin(angle));
    forward = normalize(-eye);
    right = normalize(cross(forward, vec3(0.0, 1.0, 0.0)));
    up = cross(right, forward);
}

float linearDepth(float d) { return NEAR_PLANE * FAR_PLANE / (FAR_PLANE - d * (FAR_PLANE - NEAR_PLANE)); }

#ifdef BRISVALE_COMPUTE
void finaleCompute(uint i) {
    float t = frame.timeSeconds;
    float ft = finaleTime(t);
    uint wanted = CUBE_COUNT * VERTS_PER_CUBE;
    uint fit = min(wanted, frame.vertexCapacity) / VERTS_PER_CUBE * VERTS_PER_CUBE;
    if (i == 0u) {
        drawArguments.vertexCount = fit;
        drawArguments.instanceCount = fit > 0u ? 1u : 0u;
        drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = wanted;
        request.overflowFlag = wanted > frame.vertexCapacity ? 1u : 0u;
    }
    if (i >= fit) return;

    uint cube = i / VERTS_PER_CUBE;
    uint local = i % VERTS_PER_CUBE;
    uint face = local / 6u;
    uint corner = local % 6u;
    uint ring = cube / TUBE_CUBES;
    uint tube = cube % TUBE_CUBES;
    float id = float(cube);
    float h = hash11(id * 1.618 + 0.5);

    // Place the cube on the torus; after the last chord the torus loosens and drifts apart.
    float release = easeInOut((t - LAST_CHORD) / 6.0);
    float theta = TAU * float(ring) / float(RING_CUBES) + ft * 0.12;
    float phi = TAU * float(tube) / float(TUBE_CUBES) + ft * 0.35 + theta * 2.0;
    float bigR = 2.2 + release * (0.8 + 1.5 * h);
    float smallR = 0.75 + 0.06 * sin(ft * 1.3 + theta * 3.0) + release * 0.4;
    vec3 centre = vec3((bigR + smallR * cos(phi)) * cos(theta), smallR * sin(phi) + release * (h - 0.5) * 2.0,
                       (bigR + smallR * cos(phi)) * sin(theta));
    centre = rotX(0.35) * centre;
    float pulse = kickPulse(t);
    float size = 0.17 * (1.0 + 0.18 * pulse * step(0.5, h)) * (1.0 - 0.85 * release) * easeInOut(ft / 1.2 + 0.3);

    // Cube corner from face and corner index: two triangles per face.
    const ivec2 quad[6] = ivec2[6](ivec2(-1, -1), ivec2(1, -1), ivec2(1, 1), ivec2(-1, -1), ivec2(1, 1), ivec2(-1, 1));
    vec3 n = vec3(0.0);
    uint axis = face % 3u;
    float sgn = face < 3u ? 1.0 : -1.0;
    n[axis] = sgn;
    vec3 tu = vec3(0.0), tv = vec3(0.0);
    tu[(axis + 1u) % 3u] = 1.0;
    tv[(axis + 2u) % 3u] = 1.0;
    vec3 corner3 = n + tu * float(quad[corner].x) + tv * float(quad[corner].y);
    mat3 spin = rotY(ft * (0.4 + h) + h * 6.0) * rotX(ft * 0.3 + h * 3.0);
    vec3 world = centre + spin * corner3 * size;
    vec3 normal = spin * n;

    vec3 eye, right, up, forward;
    finaleCamera(t, eye, right, up, forward);
    vec3 rel = world - eye;
    vec3 view = vec3(dot(rel, right), dot(rel, up), dot(rel, forward));
    float z = max(view.z, NEAR_PLANE);
    float focal = 1.9;
    vec2 p = view.xy * focal / z;
    p.x *= frame.resolution.y / max(frame.resolution.x, 1.0);
    float depth = FAR_PLANE * (z - NEAR_PLANE) / (z * (FAR_PLANE - NEAR_PLANE));

    // Flat shading: a cool key light, a warm fill from below, a rim towards the camera.
    vec3 toEye = normalize(eye - world);
    float key = max(dot(normal, normalize(vec3(0.4, 0.8, 0.3))), 0.0);
    float fill = max(dot(normal, vec3(0.0, -1.0, 0.0)), 0.0);
    float rim = pow(1.0 - abs(dot(normal, toEye)), 2.0);
    vec3 stone = mix(vec3(0.10, 0.16, 0.28), vec3(0.18, 0.30, 0.36), h);
    vec3 colour = stone * (0.18 + 0.9 * key) + vec3(0.45, 0.22, 0.12) * fill * 0.5 + vec3(0.4, 0.5, 0.7) * rim * 0.35;
    if (h > 0.72) {
        float glow = 0.75 + 0.35 * pulse + 0.15 * sin(ft * 2.0 + id);
        colour = (lanternColor(h * 2.0 + 0.1) * vec3(1.2, 0.9, 0.6) + vec3(0.25, 0.1, 0.0)) * glow * (0.8 + 0.25 * key);
    }

    uint base = i * FLOATS_PER_VERTEX;
    pool.words[base + 0u] = p.x;
    pool.words[base + 1u] = p.y;
    pool.words[base + 2u] = clamp(depth, 0.0, 1.0);
    pool.words[base + 3u] = colour.r;
    pool.words[base + 4u] = colour.g;
    pool.words[base + 5u] = colour.b;
    pool.words[base + 6u] = 1.0;
}
#endif

#ifdef BRISVALE_FRAGMENT
// Composite over the finished scene: fog by distance, ink where depth jumps, and the
// fade to black as the music ends.
vec4 finaleComposite(vec2 fragCoord, vec2 uv, float t) {
    ivec2 size = textureSize(sceneDepth, 0);
    ivec2 texel = clamp(ivec2(uv * vec2(size)), ivec2(0), size - 1);
    float d = texelFetch(sceneDepth, texel, 0).r;
    float z = linearDepth(d);
    float dl = linearDepth(texelFetch(sceneDepth, clamp(texel + ivec2(-1, 0), ivec2(0), size - 1), 0).r);
    float dr = linearDepth(texelFetch(sceneDepth, clamp(texel + ivec2(1, 0), ivec2(0), size - 1), 0).r);
    float du = linearDepth(texelFetch(sceneDepth, clamp(texel + ivec2(0, -1), ivec2(0), size - 1), 0).r);
    float dd = linearDepth(texelFetch(sceneDepth, clamp(texel + ivec2(0, 1), ivec2(0), size - 1), 0).r);
    float jump = max(max(abs(dl - z), abs(dr - z)), max(abs(du - z), abs(dd - z)));
    float ink = smoothstep(0.08, 0.3, jump / max(z, 1.0)) * 0.65;

    float fog = d < 1.0 ? 1.0 - exp(-max(z - 5.0, 0.0) * 0.35) : 0.0;
    vec3 fogColour = vec3(0.16, 0.09, 0.14);

    vec4 over = vec4(fogColour, fog * 0.85);
    over = vec4((vec3(0.01) * ink + over.rgb * over.a * (1.0 - ink)) / max(ink + over.a * (1.0 - ink), 1e-4),
                ink + over.a * (1.0 - ink));

    // Fade out with the music: its length when known, else the piece's own length.
    float songEnd = frame.showDurationSeconds > 0.0 ? frame.showDurationSeconds : 157.0;
    float fade = easeInOut((t - (songEnd - 5.0)) / 5.0);
    over = vec4((vec3(0.0) * fade + over.rgb * over.a * (1.0 - fade)) / max(fade + over.a * (1.0 - fade), 1e-4),
                fade + over.a * (1.0 - fade));
    over.a = saturate(over.a + (hash12(fragCoord + t) - 0.5) / 255.0);
    return over;
}
#endif
//>> middle.glsl
// Middle (9.25 <= t < 142): one full-screen quad per frame. The scene follows the
// music's sections, counted in bars from the show clock, with a one-beat crossfade
// at each section change. Fragment stage only: everything here samples the images.
#ifdef BRISVALE_FRAGMENT

vec4 image(vec2 uv, float layer) { return texture(images, vec3(uv, layer)); }

// One of the eight ramps of the palette strip (premultiplied but opaque).
vec3 paletteRamp(float x, float row) {
    return image(vec2(clamp(x, 0.002, 0.998), (row + 0.5) / 8.0), LAYER_PALETTE).rgb;
}

// Soft round lanterns in a drifting grid of cells; returns emitted light.
vec3 lanternField(vec2 q, float t, float density, float seed) {
    vec3 light = vec3(0.0);
    for (int layer = 0; layer < 3; ++layer) {
        float scale = 5.0 + 3.0 * float(layer);
        vec2 p = q * scale + vec2(seed * 13.0 + float(layer) * 7.3, -t * (0.25 + 0.1 * float(layer)));
        vec2 cell = floor(p);
        vec2 local = fract(p) - 0.5;
        vec2 h = hash22(cell + float(layer) * 31.0);
        if (h.x > density) continue;
        // Each lantern lights only its own cell, so it stays at least 0.3 from the cell's
        // border and its halo reaches zero by then: no glow is cut off at a cell edge.
        vec2 centre = (h - 0.5) * 0.3 + 0.05 * vec2(sin(t * 0.7 + h.y * 6.0), 0.0);
        float d = length(local - centre);
        float size = 0.06 + 0.05 * h.y;
        float glow = exp(-d * d / (size * size)) + 0.25 * exp(-d * 6.0) * smoothstep(0.3, 0.1, d);
        float flicker = 0.8 + 0.2 * sin(t * 3.0 + h.x * 40.0);
        light += lanternColor(h.y * 0.6 + float(layer) * 0.1) * glow * flicker / (1.0 + float(layer) * 0.6);
    }
    return light;
}

vec3 nightSky(vec2 q, float t, float warmth) {
    vec3 top = vec3(0.015, 0.02, 0.06);
    vec3 mid = vec3(0.10, 0.06, 0.16);
    vec3 low = mix(vec3(0.35, 0.16, 0.12), vec3(0.55, 0.28, 0.14), warmth);
    float y = q.y + 0.1;
    vec3 sky = mix(low, mid, smoothstep(-0.05, 0.25, y));
    sky = mix(sky, top, smoothstep(0.2, 0.6, y));
    vec2 starCell = floor(q * 180.0);
    float star = step(0.996, hash12(starCell)) * smoothstep(0.0, 0.3, y);
    float twinkle = 0.6 + 0.4 * sin(t * 2.0 + hash12(starCell + 3.0) * 30.0);
    return sky + vec3(0.9, 0.9, 1.0) * star * twinkle * 0.8;
}

// The harbour at night: sky, a low skyline, water with rippled reflections, lanterns.
vec3 sceneHarbour(vec2 q, float t, float beatPulse) {
    const float horizon = -0.12;
    vec3 col;
    if (q.y > horizon) {
        col = nightSky(q, t, 0.3);
        float skyline = horizon + 0.05 * valueNoise(vec2(q.x * 6.0, 1.0)) + 0.035 * step(0.6, valueNoise(vec2(q.x * 22.0, 2.0)));
        if (q.y < skyline) col = vec3(0.02, 0.018, 0.03) + vec3(0.6, 0.4, 0.2) * step(0.97, hash12(floor(q * vec2(140.0, 90.0)))) * 0.6;
        col += lanternField(q, t, 0.45, 1.0) * 0.9;
    } else {
        float depth = horizon - q.y;
        vec2 ripple = vec2(fbm(vec2(q.x * 8.0, depth * 40.0 - t * 0.8)) - 0.5, 0.0) * 0.06 * (0.3 + depth * 3.0);
        vec2 mirrored = vec2(q.x, 2.0 * horizon - q.y) + ripple;
        col = nightSky(mirrored, t, 0.3) * 0.55 + lanternField(mirrored, t, 0.45, 1.0) * 0.5;
        col *= 1.0 - 0.5 * smoothstep(0.0, 0.5, depth);
    }
    col *= 1.0 + 0.25 * beatPulse;

    // The title card rises out of the dark and leaves before the melody comes in.
    float title = window(t, 10.0, 12.5, 22.5, 26.0);
    if (title > 0.0) {
        vec2 uv = vec2(q.x, -(q.y - 0.17 - 0.02 * (1.0 - title))) * 1.05 + 0.5;
        if (all(greaterThanEqual(uv, vec2(0.0))) && all(lessThanEqual(uv, vec2(1.0)))) {
            vec4 card = image(uv, LAYER_TITLE) * title;  // premultiplied
            col = col * (1.0 - card.a) + card.rgb * 1.1;
        }
    }
    return col;
}

// Flowing marble, folded into a six-way kaleidoscope and recoloured through a ramp.
vec3 sceneMarble(vec2 q, float t, float beatPulse, float ramp, float speed) {
    float a = atan(q.y, q.x);
    float r = length(q);
    float seg = TAU / 6.0;
    a = abs(mod(a + t * 0.05 * speed, seg) - seg * 0.5);
    vec2 k = vec2(cos(a), sin(a)) * r;
    vec2 uv = k * (0.55 - 0.08 * beatPulse) + vec2(t * 0.02 * speed, t * 0.013 * speed);
    uv += 0.05 * vec2(fbm(uv * 3.0 + t * 0.1), fbm(uv * 3.0 - t * 0.1));
    vec3 m = image(fract(uv), LAYER_MARBLE).rgb;
    float lum = dot(m, vec3(0.3, 0.5, 0.2));
    vec3 col = mix(m, paletteRamp(lum * 1.1 + t * 0.01, ramp), 0.55);
    col *= 0.55 + 0.9 * smoothstep(1.2, 0.0, r);
    return col * (1.0 + 0.4 * beatPulse);
}

// A tunnel lined with the Truchet lattice; `speed` sets the flight.
vec3 sceneTunnel(vec2 q, float t, float beatPulse, float speed, float ramp) {
    float r = max(length(q), 1e-3);
    float a = atan(q.y, q.x) / TAU;
    vec2 uv = vec2(a * 3.0 + t * 0.02, 0.3 / r + t * speed);
    vec4 lattice = image(fract(uv), LAYER_PATTERN);
    vec3 tint = paletteRamp(fract(uv.y * 0.1 + 0.3), ramp);
    vec3 wall = image(fract(uv * vec2(0.5, 0.25)), LAYER_MARBLE).rgb * 0.22;
    vec3 col = lattice.rgb * tint * 1.6 + wall * (1.0 - lattice.a);
    float fog = smoothstep(0.0, 0.45, r);
    col = col * fog + vec3(0.04, 0.03, 0.08) * (1.0 - fog);
    col += tint * 0.5 * exp(-r * 8.0) * (0.6 + beatPulse);
    return col * (0.8 + 0.3 * beatPulse);
}

// Aurora curtains over a dark ridge and the water that mirrors them.
vec3 auroraSky(vec2 p, float t, float beatPulse) {
    vec3 col = nightSky(p + vec2(0.0, 0.1), t, 0.0) * vec3(0.55, 0.75, 1.0);
    for (int i = 0; i < 4; ++i) {
        float fi = float(i);
        float curve = 0.06 + 0.09 * fi + 0.14 * (fbm(vec2(p.x * 1.3 + t * 0.05 * (1.0 + fi), fi * 3.1)) - 0.5);
        float above = p.y - curve;
        float curtain = exp(-max(above, 0.0) * (4.5 - fi * 0.6)) * smoothstep(-0.05, 0.0, above);
        float rays = 0.5 + 0.5 * valueNoise(vec2(p.x * 28.0 + fi * 9.0, t * 0.3));
        vec3 c = paletteRamp(0.2 + 0.18 * fi + 0.1 * sin(t * 0.1 + p.x), 3.0);
        col += c * curtain * rays * (0.55 - 0.09 * fi) * (1.0 + 0.5 * beatPulse);
    }
    return col;
}

vec3 sceneAurora(vec2 q, float t, float beatPulse) {
    const float horizon = -0.1;
    float ridge = horizon + 0.02 + 0.07 * fbm(vec2(q.x * 2.5 + 4.0, 0.5)) + 0.02 * valueNoise(vec2(q.x * 20.0, 1.0));
    if (q.y > ridge) return auroraSky(q, t, beatPulse);
    if (q.y > horizon) {
        // The ridge: near black, lit faintly from above by the aurora.
        return vec3(0.015, 0.025, 0.035) + vec3(0.05, 0.12, 0.08) * smoothstep(horizon, ridge, q.y) * (0.6 + 0.4 * fbm(q * 30.0));
    }
    float depth = horizon - q.y;
    vec2 ripple = vec2(fbm(vec2(q.x * 6.0, depth * 50.0 - t * 0.7)) - 0.5, 0.0) * 0.08 * (0.2 + depth * 3.0);
    vec3 reflected = auroraSky(vec2(q.x, horizon + depth * 1.6) + ripple, t, beatPulse);
    float glint = smoothstep(0.75, 0.95, fbm(vec2(q.x * 40.0, depth * 160.0 - t)));
    return reflected * (0.45 - 0.3 * smoothstep(0.0, 0.4, depth)) + vec3(0.1, 0.2, 0.15) * glint * 0.3;
}

int sceneIndex(float bar) {
    if (bar < 12.0) return 0;
    if (bar < 20.0) return 1;
    if (bar < 28.0) return 2;
    if (bar < 36.0) return 3;
    if (bar < 44.0) return 4;
    if (bar < 52.0) return 5;
    if (bar < 59.0) return 6;
    return 7;
}

float sceneFirstBar(int index) {
    const float starts[8] = float[8](0.0, 12.0, 20.0, 28.0, 36.0, 44.0, 52.0, 59.0);
    return starts[index];
}

vec3 sceneColour(int index, vec2 q, float t) {
    float pulse = kickPulse(t);
    float bar = barAt(t);
    if (index == 0) return sceneHarbour(q, t, pulse);
    if (index == 1) return sceneMarble(q, t, pulse, 0.0, 1.0);
    if (index == 2) return sceneTunnel(q, t, pulse, 0.12, 4.0) * 1.3;
    if (index == 3) return sceneMarble(q * rot2(t * 0.05), t, pulse, 5.0, 2.0);
    if (index == 4) return mix(sceneMarble(q, t, pulse, 6.0, 2.5), sceneTunnel(q, t, pulse, 0.2, 6.0), 0.45);
    if (index == 5) return sceneAurora(q, t, pulse);
    if (index == 6) {
        // The build: the tunnel speeds up and brightens; the snare roll flickers it.
        float u = saturate((bar - 52.0) / 7.0);
        float roll = 1.0 + 0.25 * u * (0.5 + 0.5 * cos(beatAt(t) * TAU * (bar < 54.0 ? 1.0 : (bar < 56.0 ? 2.0 : 4.0))));
        return sceneTunnel(q, t, pulse, 0.15 + 0.5 * u * u, 2.0) * (0.7 + 0.6 * u) * roll;
    }
    // The peak: everything at once, turning faster.
    return mix(sceneMarble(q * rot2(t * 0.2), t, pulse, 5.0, 4.0), sceneTunnel(q, t, pulse, 0.5, 5.0), 0.35) * (1.0 + 0.2 * pulse);
}

vec3 middleScene(vec2 fragCoord, vec2 uv, float t) {
    vec2 q = (fragCoord - 0.5 * frame.resolution) / frame.resolution.y;
    q.y = -q.y;  // fragCoord runs down the screen; scenes think y up
    float bar = barAt(t);
    int index = sceneIndex(bar);
    vec3 col = sceneColour(index, q, t);
    float intoSection = (bar - sceneFirstBar(index)) * 4.0;  // beats
    if (index > 0 && intoSection < 1.0) col = mix(sceneColour(index - 1, q, t), col, easeInOut(intoSection));
    // Hand over to the finale's sky in the last beat before it.
    float toFinale = easeInOut((t - (FINALE_START - BEAT_SECONDS)) / BEAT_SECONDS);
    if (toFinale > 0.0) col = mix(col, finaleSky(q, t), toFinale);
    return col;
}

#endif
//>> intro.glsl
// Intro (t < 9.25): a blossom of soft lanterns laid out on a golden-angle spiral. New
// lanterns keep arriving at the rim, so the geometry outgrows the vertex pool and asks
// for more as it goes (about 5400 vertices at the start, 24000 by the end).

const uint LANTERN_SIDES = 6u;                       // a hexagonal fan per lantern
const uint VERTS_PER_LANTERN = LANTERN_SIDES * 3u;
const float LANTERNS_AT_START = 300.0;
const float LANTERNS_PER_SECOND = 140.0;

uint introLanternCount(float t) {
    return uint(LANTERNS_AT_START + max(t, 0.0) * LANTERNS_PER_SECOND);
}

#ifdef BRISVALE_COMPUTE
void introCompute(uint i) {
    float t = frame.timeSeconds;
    uint wanted = introLanternCount(t) * VERTS_PER_LANTERN;
    uint fit = min(wanted, frame.vertexCapacity) / VERTS_PER_LANTERN * VERTS_PER_LANTERN;
    if (i == 0u) {
        drawArguments.vertexCount = fit;
        drawArguments.instanceCount = fit > 0u ? 1u : 0u;
        drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = wanted;
        request.overflowFlag = wanted > frame.vertexCapacity ? 1u : 0u;
    }
    if (i >= fit) return;

    uint lantern = i / VERTS_PER_LANTERN;
    uint local = i % VERTS_PER_LANTERN;
    uint side = local / 3u;
    uint corner = local % 3u;
    float k = float(lantern);

    // Golden-angle spiral; lanterns past the first few hundred are born over time.
    float birth = max(k - LANTERNS_AT_START, 0.0) / LANTERNS_PER_SECOND;
    float age = t - birth;
    float fadeIn = easeInOut(age / 0.8) * easeInOut(t / 1.5);
    float angle = k * 2.39996323 + t * 0.12;
    float radius = 0.042 * sqrt(k + 1.0) * (1.0 + 0.08 * sin(t * 0.7 + k * 0.05));
    float lift = 0.12 * sin(radius * 4.0 - t * 1.3) + 0.25 * (1.0 - fadeIn);
    vec3 world = vec3(radius * cos(angle), lift, radius * sin(angle));

    // A camera that sinks from above the blossom towards its rim.
    float tilt = mix(1.15, 0.55, easeInOut(t / INTRO_END));
    world = rotX(tilt) * rotY(t * 0.08) * world;
    float depth = world.z + 2.1 - 0.3 * easeInOut(t / INTRO_END);
    float focal = 1.5;
    vec2 centre = world.xy * focal / depth;

    float size = (0.03 + 0.025 * hash11(k * 1.37)) * (0.6 + 0.4 * fadeIn) * focal / depth;
    vec2 offset = vec2(0.0);
    if (corner != 0u) {
        float a = (float(side) + float(corner - 1u)) * (TAU / float(LANTERN_SIDES));
        offset = size * vec2(cos(a), sin(a));
    }
    vec2 p = centre + offset;
    p.x *= frame.resolution.y / max(frame.resolution.x, 1.0);

    float flicker = 0.75 + 0.25 * sin(t * (2.0 + 3.0 * hash11(k * 7.1)) + k);
    vec3 colour = lanternColor(hash11(k * 3.3) * 0.55 + radius * 0.25 + t * 0.02);
    float alpha = 0.0;
    if (corner == 0u) {
        colour = mix(colour, vec3(1.0, 0.95, 0.85), 0.3) * 1.2;
        alpha = fadeIn * flicker;
    }

    uint base = i * FLOATS_PER_VERTEX;
    pool.words[base + 0u] = p.x;
    pool.words[base + 1u] = p.y;
    pool.words[base + 2u] = 0.5;
    pool.words[base + 3u] = colour.r;
    pool.words[base + 4u] = colour.g;
    pool.words[base + 5u] = colour.b;
    pool.words[base + 6u] = alpha;
}
#endif

#ifdef BRISVALE_FRAGMENT
// Drawn over the lanterns: a fade from black, a vignette, and in the last second the
// first scene of the middle section arriving over everything.
vec4 introOverlay(vec2 fragCoord, vec2 uv, float t) {
    vec2 q = (fragCoord - 0.5 * frame.resolution) / frame.resolution.y;
    float vignette = smoothstep(0.45, 1.1, length(q)) * 0.6;
    float fromBlack = 1.0 - easeInOut(t / 0.8);
    float darkness = max(vignette, fromBlack);
    vec4 over = vec4(vec3(0.0), darkness + (hash12(fragCoord + t) - 0.5) / 255.0);
    float handover = easeInOut((t - (INTRO_END - 1.0)) / 1.0);
    if (handover > 0.0) {
        vec3 next = tonemap(middleScene(fragCoord, uv, t));
        over = vec4(mix(over.rgb * over.a, next, handover) / max(mix(over.a, 1.0, handover), 1e-4),
                    mix(over.a, 1.0, handover));
    }
    return over;
}
#endif
