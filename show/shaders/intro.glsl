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
// first scene of the middle section (`next`, already tone-mapped) arriving over everything.
// `grain` is the pixel's dithering noise, 0..1.
vec4 introOverlay(vec2 q, vec3 next, float t, float grain) {
    float vignette = smoothstep(0.45, 1.1, length(q)) * 0.6;
    float fromBlack = 1.0 - easeInOut(t / 0.8);
    float darkness = max(vignette, fromBlack);
    vec4 over = vec4(vec3(0.0), darkness + (grain - 0.5) / 255.0);
    float handover = easeInOut((t - (INTRO_END - 1.0)) / 1.0);
    if (handover > 0.0) {
        over = vec4(mix(over.rgb * over.a, next, handover) / max(mix(over.a, 1.0, handover), 1e-4),
                    mix(over.a, 1.0, handover));
    }
    return over;
}
#endif
