#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "content/ShaderSource.h"

namespace brisvale {

// SPIR-V for the three entry functions of one show shader source.
struct CompiledShaders {
    std::vector<std::uint32_t> vertex, fragment, compute;
    std::uint32_t computeLocalSizeX = 0; // the compute function's declared local_size_x
};

// Compiles the include-expanded GLSL source (no #version line) once per stage for
// Vulkan 1.3 / SPIR-V 1.5; docs/shader-interface.md describes what the source must hold.
// Throws std::runtime_error with one line:
//   "Failed to compile Metal shader source: <first errors>" when any stage fails to
//   compile (checked for all stages before any missing function is reported), then
//   "Missing scene_vertex shader", "Missing scene_fragment shader",
//   "Missing scene_compute shader" in that order. A source whose macros would expand
//   past 500,000 tokens fails with the first form before glslang sees it, naming the line
//   and macro where the bound was passed ("0:<line>: '<macro>' : macro expansion exceeds
//   500000 tokens"). Safe to call from any thread; the stages compile on threads of their own.
CompiledShaders compileSceneShaders(const std::string& expandedSource);

// The same for a source expanded with its line map: the compiler's locations in the messages
// name the show's files, as in "Failed to compile Metal shader source: fragment stage:
// shaders/lib/noise.glsl:12: 'x' : undeclared identifier".
CompiledShaders compileSceneShaders(const ExpandedShaderSource& source);

} // namespace brisvale
