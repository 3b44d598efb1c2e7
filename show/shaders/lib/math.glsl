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
