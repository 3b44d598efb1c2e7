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
    col += vec3(0.25, 0.12, 0.18) * band * (0.6 + 0.4 * fbm(q * 3.0 + vec2(ft * 0.03, 0.0), 2));
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
// fade to black as the music ends. `grain` is the pixel's dithering noise, 0..1.
vec4 finaleComposite(vec2 uv, float t, float grain) {
    // Two gathers give the texel and its four neighbours (clamped at the edges by the sampler).
    vec2 size = vec2(textureSize(sceneDepth, 0));
    vec2 texel = clamp(floor(uv * size), vec2(0.0), size - 1.0);
    vec4 upLeft = textureGather(sceneDepth, texel / size);              // x left, y centre, z up
    vec4 downRight = textureGather(sceneDepth, (texel + 1.0) / size);   // x down, z right
    float d = upLeft.y;
    float z = linearDepth(d);
    float dl = linearDepth(upLeft.x), dr = linearDepth(downRight.z);
    float du = linearDepth(upLeft.z), dd = linearDepth(downRight.x);
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
    over.a = saturate(over.a + (grain - 0.5) / 255.0);
    return over;
}
#endif
