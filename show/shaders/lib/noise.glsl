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

// A fractal sum of `octaves` layers (a constant at every call, so the loop unrolls), scaled
// to 0..1. Each layer costs four hashes per pixel: use no more than the picture shows.
float fbm(vec2 p, int octaves) {
    float sum = 0.0, amp = 0.5, total = 0.0;
    for (int i = 0; i < octaves; ++i) {
        sum += amp * valueNoise(p);
        total += amp;
        p = mat2(1.6, 1.2, -1.2, 1.6) * p + vec2(3.1, 7.7);
        amp *= 0.5;
    }
    return sum / total;
}

// Two uniform random numbers per pixel and frame; every pass dithers with these.
vec2 pixelGrain(vec2 fragCoord, float t) {
    vec2 p = fragCoord + fract(t * 7.13) * 97.0;
    return vec2(hash12(p), hash12(p + 19.19));
}

// Triangular noise of one 8-bit step, against banding in smooth gradients.
vec3 ditherNoise(vec2 grain) { return vec3((grain.x + grain.y - 1.0) / 255.0); }
