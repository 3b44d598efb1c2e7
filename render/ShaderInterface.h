#pragma once

// The records and binding numbers that the renderer and a show's shaders share.
// docs/shader-interface.md describes the same interface for show authors; a test
// keeps the two in step. Everything here is little-endian, tightly packed and
// mirrors std430 layout on the GLSL side.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace brisvale {

// Rebuilt for every frame; the first 32 bytes of the push-constant range.
struct SceneUniforms {
    std::array<float, 2> resolution{}; // size rendered: the last resize, or the scaled target below scale 1
    float timeSeconds = 0.0f;
    float deltaSeconds = 0.0f;
    float showDurationSeconds = 0.0f;
    float renderEndSeconds = 0.0f;
    std::uint32_t vertexCapacity = 0; // vertices the pool holds for this frame
    std::uint32_t imageCount = 0;     // layers of the image array
};

// Which draw a shader invocation belongs to; the last 16 bytes of the push constants.
struct PassParams {
    std::uint32_t passIndex = 0;
    std::array<std::uint32_t, 3> reserved{}; // always 0
};

// Vulkan's VkDrawIndirectCommand; the compute function writes it, the draw reads it.
struct DrawIndirectArguments {
    std::uint32_t vertexCount = 0;
    std::uint32_t instanceCount = 0;
    std::uint32_t firstVertex = 0;
    std::uint32_t firstInstance = 0;
};

// Written by the compute function each frame and read back after the frame has
// finished; words 0 and 3 belong to the shader.
struct GeometryRequest {
    std::uint32_t shaderWord0 = 0;
    std::uint32_t requestedVertexCount = 0;
    std::uint32_t overflowFlag = 0;
    std::uint32_t shaderWord3 = 0;
};

// The whole push-constant range as the shaders declare it (`frame` in GLSL).
struct FramePushConstants {
    SceneUniforms scene;
    PassParams pass;
};

static_assert(sizeof(SceneUniforms) == 32);
static_assert(offsetof(SceneUniforms, resolution) == 0);
static_assert(offsetof(SceneUniforms, timeSeconds) == 8);
static_assert(offsetof(SceneUniforms, deltaSeconds) == 12);
static_assert(offsetof(SceneUniforms, showDurationSeconds) == 16);
static_assert(offsetof(SceneUniforms, renderEndSeconds) == 20);
static_assert(offsetof(SceneUniforms, vertexCapacity) == 24);
static_assert(offsetof(SceneUniforms, imageCount) == 28);

static_assert(sizeof(PassParams) == 16);
static_assert(offsetof(PassParams, passIndex) == 0);
static_assert(offsetof(PassParams, reserved) == 4);

static_assert(sizeof(DrawIndirectArguments) == 16);
static_assert(offsetof(DrawIndirectArguments, vertexCount) == 0);
static_assert(offsetof(DrawIndirectArguments, instanceCount) == 4);
static_assert(offsetof(DrawIndirectArguments, firstVertex) == 8);
static_assert(offsetof(DrawIndirectArguments, firstInstance) == 12);

static_assert(sizeof(GeometryRequest) == 16);
static_assert(offsetof(GeometryRequest, shaderWord0) == 0);
static_assert(offsetof(GeometryRequest, requestedVertexCount) == 4);
static_assert(offsetof(GeometryRequest, overflowFlag) == 8);
static_assert(offsetof(GeometryRequest, shaderWord3) == 12);

static_assert(sizeof(FramePushConstants) == 48);
static_assert(offsetof(FramePushConstants, pass) == 32);

namespace shader_interface {

// Push constants: one range, visible to every stage.
inline constexpr std::uint32_t kPushConstantOffset = 0;
inline constexpr std::uint32_t kPushConstantSize = sizeof(FramePushConstants);

// Descriptor set 0.
inline constexpr std::uint32_t kDescriptorSet = 0;
// Storage buffers: compute writes all three; the vertex stage reads the pool.
inline constexpr std::uint32_t kVertexPoolBinding = 0;
inline constexpr std::uint32_t kIndirectArgumentsBinding = 1;
inline constexpr std::uint32_t kGeometryRequestBinding = 2;
// Combined image samplers, fragment stage: the image array, and the scene depth that the
// composite pass reads (a 1x1 placeholder of depth 1.0 in the other passes).
inline constexpr std::uint32_t kImageArrayBinding = 3;
inline constexpr std::uint32_t kSceneDepthBinding = 4;
inline constexpr std::uint32_t kBindingCount = 5;

// One pool vertex: seven 32-bit words whose meaning is the show's own.
inline constexpr std::uint32_t kVertexStrideBytes = 28;

// PassParams::passIndex values.
inline constexpr std::uint32_t kPassGeneratedTriangles = 0;
inline constexpr std::uint32_t kPassSceneQuad = 1;
inline constexpr std::uint32_t kPassCompositeQuad = 2;

// The quads are a triangle strip of this many vertices, no vertex buffer.
inline constexpr std::uint32_t kQuadVertexCount = 4;

// Each stage is compiled with its macro defined and its entry function renamed to main.
inline constexpr std::string_view kVertexStageMacro = "BRISVALE_VERTEX";
inline constexpr std::string_view kFragmentStageMacro = "BRISVALE_FRAGMENT";
inline constexpr std::string_view kComputeStageMacro = "BRISVALE_COMPUTE";
inline constexpr std::string_view kVertexEntry = "scene_vertex";
inline constexpr std::string_view kFragmentEntry = "scene_fragment";
inline constexpr std::string_view kComputeEntry = "scene_compute";

} // namespace shader_interface

} // namespace brisvale
