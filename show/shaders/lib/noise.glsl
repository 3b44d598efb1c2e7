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

// Value noise on an integer hash: the four corners share their multiplications, so it costs
// about half of valueNoise, and integer arithmetic gives the same pattern on every GPU. The
// pattern is not valueNoise's; fbm uses it, where no single value is seen on its own.
float latticeNoise(vec2 p) {
    vec2 i = floor(p), f = p - i;
    vec2 u = f * f * f * (f * (f * 6.0 - 15.0) + 10.0);
    uvec2 c = uvec2(ivec2(i)) * uvec2(0x8da6b343u, 0xd8163841u);
    uint x0 = c.x, x1 = c.x + 0x8da6b343u, y0 = c.y, y1 = c.y + 0xd8163841u;
    uvec4 n = (uvec4(x0, x1, x0, x1) ^ uvec4(y0, y0, y1, y1)) * 0xcb1ab31fu;
    n ^= n >> 16u;
    vec4 h = vec4(ivec4(n >> 8u)) * (1.0 / 16777216.0);
    return mix(mix(h.x, h.y, u.x), mix(h.z, h.w, u.x), u.y);
}

// A fractal sum of `octaves` layers (a constant at every call, so the loop unrolls), scaled
// to 0..1. Every layer is paid by every pixel: use no more than the picture shows.
float fbm(vec2 p, int octaves) {
    float sum = 0.0, amp = 0.5, total = 0.0;
    for (int i = 0; i < octaves; ++i) {
        sum += amp * latticeNoise(p);
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
