// What the player hands every stage: the frame's push constants and descriptor set 0. Every
// show needs these declarations as they stand; a new show copies this file and includes it.
layout(push_constant, std430) uniform Frame {
    vec2 resolution; float timeSeconds; float deltaSeconds;
    float showDurationSeconds; float renderEndSeconds; uint vertexCapacity; uint imageCount;
    uint passIndex; uint passReserved0; uint passReserved1; uint passReserved2;
} frame;

// Only the compute function writes the pool; the vertex function must see it read-only.
#ifdef BRISVALE_COMPUTE
layout(std430, set = 0, binding = 0) buffer VertexPool { float words[]; } pool;
#else
layout(std430, set = 0, binding = 0) readonly buffer VertexPool { float words[]; } pool;
#endif
layout(std430, set = 0, binding = 1) buffer DrawArguments {
    uint vertexCount; uint instanceCount; uint firstVertex; uint firstInstance;
} drawArguments;
layout(std430, set = 0, binding = 2) buffer GeometryRequest {
    uint ownWord0; uint requestedVertexCount; uint overflowFlag; uint ownWord3;
} request;
layout(set = 0, binding = 3) uniform sampler2DArray images;
layout(set = 0, binding = 4) uniform sampler2D sceneDepth;
