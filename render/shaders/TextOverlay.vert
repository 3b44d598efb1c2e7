#version 450
// Text over the picture: quads of stb_easy_font (four corners each, x and y in font units with y
// down, then the colour's four bytes), drawn as two triangles per quad without an index buffer.

layout(std430, set = 0, binding = 0) readonly buffer Quads { vec4 corners[]; } quads;
layout(push_constant, std430) uniform Target {
    vec2 size;      // the colour target, in pixels
    float scale;    // pixels per font unit
} target;

layout(location = 0) out vec4 colour;

const uint kCorner[6] = uint[6](0u, 1u, 2u, 0u, 2u, 3u);

void main() {
    uint quad = uint(gl_VertexIndex) / 6u;
    vec4 corner = quads.corners[quad * 4u + kCorner[uint(gl_VertexIndex) % 6u]];
    vec2 pixel = corner.xy * target.scale;
    // The viewport is flipped so that clip-space y points up: the top row is y = 1.
    gl_Position = vec4(pixel.x / target.size.x * 2.0 - 1.0, 1.0 - pixel.y / target.size.y * 2.0, 0.0, 1.0);
    colour = unpackUnorm4x8(floatBitsToUint(corner.w));
}
