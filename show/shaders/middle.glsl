// Middle (9.25 <= t < 142): one full-screen quad per frame. The scene follows the
// music's sections, counted in bars from the show clock, with a one-beat crossfade
// at each section change. Fragment stage only: everything here samples the images.
//
// Cost: a software rasteriser such as lavapipe runs every branch of a shader for every
// pixel, taken or not, and every call is inlined. So each scene appears once in the whole
// shader: the frame first makes a plan (which scenes, how much of each, their settings; the
// same for every pixel), and the picture is the plan's weighted sum. A GPU skips the scenes
// the plan leaves out. Noise keeps only the octaves that show.
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
// The water mirrors the sky: one look-up of sky and lanterns serves both halves.
vec3 sceneHarbour(vec2 q, float t, float beatPulse) {
    const float horizon = -0.12;
    bool water = q.y <= horizon;
    float depth = max(horizon - q.y, 0.0);
    float ripple = (fbm(vec2(q.x * 8.0, depth * 40.0 - t * 0.8), 2) - 0.5) * 0.06 * (0.3 + depth * 3.0);
    vec2 p = water ? vec2(q.x + ripple, 2.0 * horizon - q.y) : q;
    vec3 sky = nightSky(p, t, 0.3);
    vec3 lanterns = lanternField(p, t, 0.45, 1.0);
    float skyline = horizon + 0.05 * valueNoise(vec2(q.x * 6.0, 1.0)) + 0.035 * step(0.6, valueNoise(vec2(q.x * 22.0, 2.0)));
    if (!water && q.y < skyline) sky = vec3(0.02, 0.018, 0.03) + vec3(0.6, 0.4, 0.2) * step(0.97, hash12(floor(q * vec2(140.0, 90.0)))) * 0.6;
    vec3 col = sky + lanterns * 0.9;
    if (water) col = (sky * 0.55 + lanterns * 0.5) * (1.0 - 0.5 * smoothstep(0.0, 0.5, depth));
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
    uv += 0.05 * vec2(fbm(uv * 3.0 + t * 0.1, 2), fbm(uv * 3.0 - t * 0.1, 2));
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
        float curve = 0.06 + 0.09 * fi + 0.14 * (fbm(vec2(p.x * 1.3 + t * 0.05 * (1.0 + fi), fi * 3.1), 2) - 0.5);
        float above = p.y - curve;
        float curtain = exp(-max(above, 0.0) * (4.5 - fi * 0.6)) * smoothstep(-0.05, 0.0, above);
        float rays = 0.5 + 0.5 * valueNoise(vec2(p.x * 28.0 + fi * 9.0, t * 0.3));
        vec3 c = paletteRamp(0.2 + 0.18 * fi + 0.1 * sin(t * 0.1 + p.x), 3.0);
        col += c * curtain * rays * (0.55 - 0.09 * fi) * (1.0 + 0.5 * beatPulse);
    }
    return col;
}

// Below the horizon the water mirrors the aurora: one look-up of the sky serves both.
vec3 sceneAurora(vec2 q, float t, float beatPulse) {
    const float horizon = -0.1;
    bool water = q.y <= horizon;
    float depth = max(horizon - q.y, 0.0);
    vec2 ripple = vec2(fbm(vec2(q.x * 6.0, depth * 50.0 - t * 0.7), 2) - 0.5, 0.0) * 0.08 * (0.2 + depth * 3.0);
    vec3 sky = auroraSky(water ? vec2(q.x, horizon + depth * 1.6) + ripple : q, t, beatPulse);
    float ridge = horizon + 0.02 + 0.07 * fbm(vec2(q.x * 2.5 + 4.0, 0.5), 4) + 0.02 * valueNoise(vec2(q.x * 20.0, 1.0));
    if (q.y > ridge) return sky;
    if (q.y > horizon) {
        // The ridge: near black, lit faintly from above by the aurora.
        return vec3(0.015, 0.025, 0.035) + vec3(0.05, 0.12, 0.08) * smoothstep(horizon, ridge, q.y) * (0.6 + 0.4 * fbm(q * 30.0, 2));
    }
    float glint = smoothstep(0.75, 0.95, fbm(vec2(q.x * 40.0, depth * 160.0 - t), 2));
    return sky * (0.45 - 0.3 * smoothstep(0.0, 0.4, depth)) + vec3(0.1, 0.2, 0.15) * glint * 0.3;
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

// What the frame shows, the same for every pixel: the weight of each scene in the picture and
// the settings of the marble and tunnel layers. Each of those has two slots, so that the two
// scenes of a crossfade never need the same one.
struct MarbleLayer { float weight, turn, ramp, speed; };
struct TunnelLayer { float weight, speed, ramp; };
struct MiddlePlan {
    float harbour, aurora;
    MarbleLayer marble[2];
    TunnelLayer tunnel[2];
};

void addScene(inout MiddlePlan plan, int index, float weight, float t, float pulse) {
    if (weight <= 0.0) return;
    float bar = barAt(t);
    if (index == 0) {
        plan.harbour = weight;
    } else if (index == 1) {
        plan.marble[0] = MarbleLayer(weight, 0.0, 0.0, 1.0);
    } else if (index == 2) {
        plan.tunnel[0] = TunnelLayer(weight * 1.3, 0.12, 4.0);
    } else if (index == 3) {
        plan.marble[1] = MarbleLayer(weight, t * 0.05, 5.0, 2.0);
    } else if (index == 4) {
        plan.marble[0] = MarbleLayer(weight * 0.55, 0.0, 6.0, 2.5);
        plan.tunnel[1] = TunnelLayer(weight * 0.45, 0.2, 6.0);
    } else if (index == 5) {
        plan.aurora = weight;
    } else if (index == 6) {
        // The build: the tunnel speeds up and brightens; the snare roll flickers it.
        float u = saturate((bar - 52.0) / 7.0);
        float roll = 1.0 + 0.25 * u * (0.5 + 0.5 * cos(beatAt(t) * TAU * (bar < 54.0 ? 1.0 : (bar < 56.0 ? 2.0 : 4.0))));
        plan.tunnel[0] = TunnelLayer(weight * (0.7 + 0.6 * u) * roll, 0.15 + 0.5 * u * u, 2.0);
    } else {
        // The peak: everything at once, turning faster.
        float gain = weight * (1.0 + 0.2 * pulse);
        plan.marble[1] = MarbleLayer(gain * 0.65, t * 0.2, 5.0, 4.0);
        plan.tunnel[1] = TunnelLayer(gain * 0.35, 0.5, 5.0);
    }
}

// The middle's picture at q; from the last beat before the finale on, the finale's sky.
vec3 middleScene(vec2 q, float t) {
    float bar = barAt(t);
    int index = sceneIndex(bar);
    float pulse = kickPulse(t);
    float toFinale = easeInOut((t - (FINALE_START - BEAT_SECONDS)) / BEAT_SECONDS);
    float intoSection = (bar - sceneFirstBar(index)) * 4.0;  // beats
    float incoming = index > 0 ? easeInOut(intoSection) : 1.0;

    MiddlePlan plan = MiddlePlan(0.0, 0.0, MarbleLayer[2](MarbleLayer(0.0, 0.0, 0.0, 0.0), MarbleLayer(0.0, 0.0, 0.0, 0.0)),
                                 TunnelLayer[2](TunnelLayer(0.0, 0.0, 0.0), TunnelLayer(0.0, 0.0, 0.0)));
    addScene(plan, index, incoming * (1.0 - toFinale), t, pulse);
    addScene(plan, index - 1, (1.0 - incoming) * (1.0 - toFinale), t, pulse);

    vec3 col = vec3(0.0);
    if (plan.harbour > 0.0) col += plan.harbour * sceneHarbour(q, t, pulse);
    MarbleLayer m0 = plan.marble[0], m1 = plan.marble[1];
    if (m0.weight > 0.0) col += m0.weight * sceneMarble(q * rot2(m0.turn), t, pulse, m0.ramp, m0.speed);
    if (m1.weight > 0.0) col += m1.weight * sceneMarble(q * rot2(m1.turn), t, pulse, m1.ramp, m1.speed);
    TunnelLayer t0 = plan.tunnel[0], t1 = plan.tunnel[1];
    if (t0.weight > 0.0) col += t0.weight * sceneTunnel(q, t, pulse, t0.speed, t0.ramp);
    if (t1.weight > 0.0) col += t1.weight * sceneTunnel(q, t, pulse, t1.speed, t1.ramp);
    if (plan.aurora > 0.0) col += plan.aurora * sceneAurora(q, t, pulse);
    if (toFinale > 0.0) col += toFinale * finaleSky(q, t);
    return col;
}

#endif
