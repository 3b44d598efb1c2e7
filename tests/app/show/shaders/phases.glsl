// The player's test show. Each phase paints its own colours so a screenshot tells them apart:
//   intro (t < 9.25):  quad red on the left half, generated triangles green on the right half,
//                      and a band along the top of the right half whose red and green are the
//                      drawable's width and height over 4096 (the size the renderer was given)
//   middle:            quad the image (blue) over the whole frame
//   finale (t >= 142): quad yellow, triangles green, composite magenta band at the top

#include "lib/frame.glsl"

const uint kFloatsPerVertex = 7u;
const uint kWantedVertices = 6u;

bool isIntro() { return frame.timeSeconds < 9.25; }
bool isFinale() { return frame.timeSeconds >= 142.0; }

#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;

void scene_compute() {
    uint i = gl_GlobalInvocationID.x;
    if (i == 0u) {
        uint count = min(kWantedVertices, frame.vertexCapacity);
        drawArguments.vertexCount = count;
        drawArguments.instanceCount = 1u;
        drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = kWantedVertices;
        request.overflowFlag = kWantedVertices > frame.vertexCapacity ? 1u : 0u;
    }
    if (i >= frame.vertexCapacity || i >= kWantedVertices) {
        return;
    }
    // A square in the middle of the right half, two triangles.
    const vec2 corners[6] = vec2[6](vec2(0.25, -0.5), vec2(0.75, -0.5), vec2(0.25, 0.5),
                                    vec2(0.75, -0.5), vec2(0.75, 0.5), vec2(0.25, 0.5));
    uint base = i * kFloatsPerVertex;
    pool.words[base + 0u] = corners[i].x;
    pool.words[base + 1u] = corners[i].y;
    pool.words[base + 2u] = 0.5;
    pool.words[base + 3u] = 0.0;
    pool.words[base + 4u] = 1.0;
    pool.words[base + 5u] = 0.0;
    pool.words[base + 6u] = 1.0;
}
#endif

#ifdef BRISVALE_VERTEX
layout(location = 0) out vec4 vertexColour;
layout(location = 1) out vec2 quadUv;

void scene_vertex() {
    if (frame.passIndex == 0u) {
        uint base = uint(gl_VertexIndex) * kFloatsPerVertex;
        gl_Position = vec4(pool.words[base + 0u], pool.words[base + 1u], pool.words[base + 2u], 1.0);
        vertexColour = vec4(pool.words[base + 3u], pool.words[base + 4u], pool.words[base + 5u], pool.words[base + 6u]);
        quadUv = vec2(0.0);
        return;
    }
    // The 4-vertex strip: (0,0) (1,0) (0,1) (1,1) in uv, v = 0 at the top.
    vec2 uv = vec2(float(gl_VertexIndex & 1), float((gl_VertexIndex >> 1) & 1));
    gl_Position = vec4(uv.x * 2.0 - 1.0, 1.0 - uv.y * 2.0, 0.0, 1.0);
    vertexColour = vec4(1.0);
    quadUv = uv;
}
#endif

#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec4 vertexColour;
layout(location = 1) in vec2 quadUv;
layout(location = 0) out vec4 outColour;

void scene_fragment() {
    if (frame.passIndex == 0u) {
        outColour = vertexColour;
    } else if (frame.passIndex == 2u) {
        // Composite: a magenta band at the top; the depth of the scene is sampled to honour the
        // binding (it is 1.0 where nothing was drawn).
        float depth = texture(sceneDepth, quadUv).r;
        outColour = quadUv.y < 0.2 ? vec4(1.0, 0.0, 1.0, 1.0) : vec4(0.0, 0.0, 0.0, depth < 0.0 ? 1.0 : 0.0);
    } else if (isIntro()) {
        if (quadUv.x < 0.5) {
            outColour = vec4(1.0, 0.0, 0.0, 1.0);
        } else if (quadUv.y < 0.1) {
            outColour = vec4(frame.resolution / 4096.0, 1.0, 1.0);
        } else {
            outColour = vec4(0.0);
        }
    } else if (isFinale()) {
        outColour = vec4(1.0, 1.0, 0.0, 1.0);
    } else {
        vec4 image = frame.imageCount > 0u ? texture(images, vec3(quadUv, 0.0)) : vec4(0.0, 0.0, 1.0, 1.0);
        outColour = vec4(image.rgb, 1.0);
    }
}
#endif
