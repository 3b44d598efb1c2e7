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

// Every pass runs this whole function on a software rasteriser, so what several passes
// use (the grain, the scene picture) is computed once, before the pass decides.
void scene_fragment() {
    float t = frame.timeSeconds;
    vec2 fragCoord = gl_FragCoord.xy;
    vec2 q = (fragCoord - 0.5 * frame.resolution) / frame.resolution.y;
    q.y = -q.y;  // fragCoord runs down the screen; scenes think y up
    vec2 grain = pixelGrain(fragCoord, t);
    vec3 dither = ditherNoise(grain);
    // The middle's scenes, the intro's hand-over to them, and the finale's sky.
    vec3 picture = tonemap(middleScene(q, t));
    if (frame.passIndex == 0u) {
        outColour = vec4(clamp(vColour.rgb + dither, 0.0, 1.0), vColour.a);
    } else if (frame.passIndex == 1u) {
        if (t < INTRO_END) {
            outColour = introOverlay(q, picture, t, grain.x);
        } else {
            outColour = vec4(clamp(picture + dither, 0.0, 1.0), 1.0);
        }
    } else {
        outColour = finaleComposite(vUv, t, grain.x);
    }
}
#endif
