// A complete small show shader: a ring of spinning triangles over the show's images,
// with a depth-based darkening in the finale's composite pass.

// The frame and set 0, as every show declares them: show/shaders/lib/frame.glsl.
#include "lib/frame.glsl"

const uint TRIANGLES = 2000u;        // 6000 vertices: more than the first pool of 4096
const uint FLOATS_PER_VERTEX = 7u;   // x, y, z, r, g, b, a (this shader's own layout)

#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;

void scene_compute() {
    uint i = gl_GlobalInvocationID.x;
    uint wanted = TRIANGLES * 3u;
    uint placed = min(wanted, frame.vertexCapacity) / 3u * 3u;
    if (i == 0u) {
        drawArguments.vertexCount = placed;
        drawArguments.instanceCount = 1u;
        drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = wanted;
        request.overflowFlag = wanted > frame.vertexCapacity ? 1u : 0u;
    }
    if (i >= frame.vertexCapacity || i >= placed) return;

    uint triangle = i / 3u;
    float angle = float(triangle) / float(TRIANGLES) * 6.2831853 + frame.timeSeconds * 0.3;
    float radius = 0.6 + 0.25 * sin(float(triangle) * 0.37 + frame.timeSeconds);
    float spin = angle * 3.0 + float(i % 3u) * 2.0943951 + frame.timeSeconds;
    vec2 p = radius * vec2(cos(angle), sin(angle)) + 0.03 * vec2(cos(spin), sin(spin));
    p.x *= frame.resolution.y / max(frame.resolution.x, 1.0);

    uint base = i * FLOATS_PER_VERTEX;
    pool.words[base + 0u] = p.x;
    pool.words[base + 1u] = p.y;
    pool.words[base + 2u] = 0.5 + 0.4 * sin(angle);   // depth, 0 near .. 1 far
    pool.words[base + 3u] = 0.5 + 0.5 * cos(angle);
    pool.words[base + 4u] = 0.5 + 0.5 * sin(angle);
    pool.words[base + 5u] = 1.0;
    pool.words[base + 6u] = 0.8;                       // straight alpha
}
#endif

#ifdef BRISVALE_VERTEX
layout(location = 0) out vec4 vColor;
layout(location = 1) out vec2 vUv;

void scene_vertex() {
    if (frame.passIndex == 0u) {
        uint base = uint(gl_VertexIndex) * FLOATS_PER_VERTEX;
        gl_Position = vec4(pool.words[base], pool.words[base + 1u], pool.words[base + 2u], 1.0);
        vColor = vec4(pool.words[base + 3u], pool.words[base + 4u],
                      pool.words[base + 5u], pool.words[base + 6u]);
        vUv = vec2(0.0);
    } else {
        // Strip order 0..3: bottom left, bottom right, top left, top right (y up).
        vec2 corner = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
        gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
        vColor = vec4(1.0);
        vUv = vec2(corner.x, 1.0 - corner.y);          // v = 0 at the top
    }
}
#endif

#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec4 vColor;
layout(location = 1) in vec2 vUv;
layout(location = 0) out vec4 outColor;

void scene_fragment() {
    if (frame.passIndex == 0u) {
        outColor = vColor;
    } else if (frame.passIndex == 1u) {
        uint layer = uint(frame.timeSeconds / 10.0) % max(frame.imageCount, 1u);
        vec4 image = texture(images, vec3(vUv, float(layer)));  // premultiplied
        outColor = vec4(image.rgb, 1.0);                         // the image over black
    } else {
        float depth = texture(sceneDepth, vUv).r;                // 1.0 where nothing was drawn
        outColor = vec4(0.0, 0.0, 0.0, 0.5 * depth);
    }
}
#endif
