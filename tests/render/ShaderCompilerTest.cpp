// compileSceneShaders: SPIR-V for all three stages, one-line compile errors, the order of
// the missing-function messages, and SPIR-V that the Khronos validator accepts for Vulkan 1.3.
//
// [SECTION] Sources
// [SECTION] A good source
// [SECTION] Compile errors
// [SECTION] Errors in the show's own files
// [SECTION] Missing functions
// [SECTION] Macro expansion
// [SECTION] The example shipped for show authors
#include <gtest/gtest.h>

#include <spirv-tools/libspirv.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "content/ArchiveWriter.h"
#include "content/ShaderSource.h"
#include "render/ShaderCompiler.h"

namespace brisvale {
namespace {

constexpr std::uint32_t kSpirvMagic = 0x07230203;

// ---------------------------------------------------------------------------------------------
// [SECTION] Sources
// ---------------------------------------------------------------------------------------------

// A complete source in the shape a show uses: shared declarations, then each entry function
// under its stage macro. Pieces can be left out to make the missing-function cases.
struct SourceParts {
    bool vertex = true;
    bool fragment = true;
    bool compute = true;
    int localSizeX = 64;
};

std::string shaderSource(const SourceParts& parts) {
    std::string s = R"(
layout(push_constant, std430) uniform Frame {
    vec2 resolution; float timeSeconds; float deltaSeconds;
    float showDurationSeconds; float renderEndSeconds; uint vertexCapacity; uint imageCount;
    uint passIndex; uint passReserved0; uint passReserved1; uint passReserved2;
} frame;
#ifdef BRISVALE_COMPUTE
layout(std430, set = 0, binding = 0) buffer VertexPool { float words[]; } pool;
#else
layout(std430, set = 0, binding = 0) readonly buffer VertexPool { float words[]; } pool;
#endif
layout(std430, set = 0, binding = 1) buffer Indirect {
    uint vertexCount; uint instanceCount; uint firstVertex; uint firstInstance;
} indirect;
layout(std430, set = 0, binding = 2) buffer Request {
    uint word0; uint requestedVertexCount; uint overflowFlag; uint word3;
} request;
layout(set = 0, binding = 3) uniform sampler2DArray images;
layout(set = 0, binding = 4) uniform sampler2D sceneDepth;

float pulse(float t) { return 0.5 + 0.5 * sin(t); }
)";
    if (parts.vertex)
        s += R"(
#ifdef BRISVALE_VERTEX
layout(location = 0) out vec2 uv;
void scene_vertex() {
    vec2 corner = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
    if (frame.passIndex == 0u) {
        uint base = uint(gl_VertexIndex) * 7u;
        gl_Position = vec4(pool.words[base], pool.words[base + 1u], pool.words[base + 2u], 1.0);
    } else {
        gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
    }
    uv = vec2(corner.x, 1.0 - corner.y);
}
#endif
)";
    if (parts.fragment)
        s += R"(
#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec2 uv;
layout(location = 0) out vec4 color;
void scene_fragment() {
    vec4 image = texture(images, vec3(uv, 0.0));
    float depth = texture(sceneDepth, uv).r;
    color = vec4(image.rgb * pulse(frame.timeSeconds), depth);
}
#endif
)";
    if (parts.compute) {
        s +=
            "\n#ifdef BRISVALE_COMPUTE\nlayout(local_size_x = " + std::to_string(parts.localSizeX) +
            ") in;\n";
        s += R"(
void scene_compute() {
    uint i = gl_GlobalInvocationID.x;
    if (i >= frame.vertexCapacity) return;
    pool.words[i * 7u] = pulse(frame.timeSeconds);
    if (i == 0u) {
        indirect.vertexCount = 3u; indirect.instanceCount = 1u;
        indirect.firstVertex = 0u; indirect.firstInstance = 0u;
        request.requestedVertexCount = 3u; request.overflowFlag = 0u;
    }
}
#endif
)";
    }
    return s;
}

std::string errorOf(const std::string& source) {
    try {
        compileSceneShaders(source);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

// Validates with the same rules a Vulkan 1.3 driver's loader-side validation would apply.
std::string spirvValidationErrors(const std::vector<std::uint32_t>& words) {
    spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_3);
    std::string errors;
    tools.SetMessageConsumer(
        [&errors](spv_message_level_t, const char*, const spv_position_t&, const char* message) {
            errors += message;
            errors += '\n';
        });
    spvtools::ValidatorOptions options;
    options.SetScalarBlockLayout(false);
    if (!tools.Validate(words.data(), words.size(), options) && errors.empty())
        errors = "invalid (no message)";
    return errors;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] A good source
// ---------------------------------------------------------------------------------------------

TEST(ShaderCompiler, GoodSourceGivesSpirvForEveryStageAndTheLocalSize) {
    const CompiledShaders shaders = compileSceneShaders(shaderSource({}));
    for (const auto* stage : {&shaders.vertex, &shaders.fragment, &shaders.compute}) {
        ASSERT_GT(stage->size(), 5u);
        EXPECT_EQ((*stage)[0], kSpirvMagic);
        EXPECT_EQ((*stage)[1], 0x00010500u) << "SPIR-V 1.5";
    }
    EXPECT_EQ(shaders.computeLocalSizeX, 64u);
}

TEST(ShaderCompiler, LocalSizeFollowsTheDeclaration) {
    SourceParts parts;
    parts.localSizeX = 32;
    EXPECT_EQ(compileSceneShaders(shaderSource(parts)).computeLocalSizeX, 32u);
    parts.localSizeX = 256;
    EXPECT_EQ(compileSceneShaders(shaderSource(parts)).computeLocalSizeX, 256u);
}

TEST(ShaderCompiler, EveryStageValidatesForVulkan13) {
    const CompiledShaders shaders = compileSceneShaders(shaderSource({}));
    EXPECT_EQ(spirvValidationErrors(shaders.vertex), "");
    EXPECT_EQ(spirvValidationErrors(shaders.fragment), "");
    EXPECT_EQ(spirvValidationErrors(shaders.compute), "");
}

TEST(ShaderCompiler, EachStageHasItsOwnEntryPoint) {
    // The three modules differ: each carries its own stage's code as main.
    const CompiledShaders shaders = compileSceneShaders(shaderSource({}));
    EXPECT_NE(shaders.vertex, shaders.fragment);
    EXPECT_NE(shaders.vertex, shaders.compute);
    EXPECT_NE(shaders.fragment, shaders.compute);
    spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_3);
    std::string vertexText, computeText;
    ASSERT_TRUE(tools.Disassemble(shaders.vertex, &vertexText));
    ASSERT_TRUE(tools.Disassemble(shaders.compute, &computeText));
    EXPECT_NE(vertexText.find("OpEntryPoint Vertex"), std::string::npos);
    EXPECT_NE(computeText.find("OpEntryPoint GLCompute"), std::string::npos);
    EXPECT_NE(computeText.find("LocalSize 64 1 1"), std::string::npos);
}

TEST(ShaderCompiler, StageOnlyDeclarationsCompileUnderTheirMacros) {
    // gl_VertexIndex, fragment outputs and a local size each exist in one stage only; the
    // same source would fail in the other stages without the macros.
    const std::string source = R"(
#if defined(BRISVALE_VERTEX)
void scene_vertex() { gl_Position = vec4(float(gl_VertexIndex), 0.0, 0.0, 1.0); }
#elif defined(BRISVALE_FRAGMENT)
layout(location = 0) out vec4 color;
void scene_fragment() { color = vec4(gl_FragCoord.xy, 0.0, 1.0); }
#elif defined(BRISVALE_COMPUTE)
layout(local_size_x = 8) in;
void scene_compute() { barrier(); }
#endif
)";
    const CompiledShaders shaders = compileSceneShaders(source);
    EXPECT_EQ(shaders.computeLocalSizeX, 8u);
    EXPECT_EQ(spirvValidationErrors(shaders.fragment), "");

    const std::string unguarded = "void scene_vertex() { gl_Position = vec4(gl_VertexIndex); }\n"
                                  "void scene_fragment() {}\n"
                                  "layout(local_size_x = 8) in; void scene_compute() {}\n";
    EXPECT_TRUE(errorOf(unguarded).starts_with("Failed to compile Metal shader source: "));
}

TEST(ShaderCompiler, CompilesFromSeveralThreadsAtOnce) {
    const std::string source = shaderSource({});
    std::vector<std::uint32_t> results[4];
    std::vector<std::thread> threads;
    for (auto& result : results)
        threads.emplace_back([&source, &result] { result = compileSceneShaders(source).compute; });
    for (auto& t : threads) t.join();
    for (const auto& result : results) EXPECT_EQ(result, results[0]);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Compile errors
// ---------------------------------------------------------------------------------------------

TEST(ShaderCompiler, SyntaxErrorGivesOneLineWithTheFirstError) {
    std::string source = shaderSource({});
    source += "\nvoid broken() { float x = ; }\n";
    const std::string message = errorOf(source);
    const std::string prefix = "Failed to compile Metal shader source: ";
    ASSERT_TRUE(message.starts_with(prefix)) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    EXPECT_EQ(message.find("ERROR:"), std::string::npos) << message;
    EXPECT_NE(message.find("syntax error"), std::string::npos) << message;
    // Line numbers count from the show's own first line, not the preamble.
    const int brokenLine = static_cast<int>(std::count(source.begin(), source.end(), '\n'));
    EXPECT_NE(message.find("0:" + std::to_string(brokenLine) + ":"), std::string::npos) << message;
    // The summary lines are dropped.
    EXPECT_EQ(message.find("compilation terminated"), std::string::npos) << message;
    EXPECT_EQ(message.find("No code generated"), std::string::npos) << message;
}

TEST(ShaderCompiler, UndeclaredIdentifierNamesIt) {
    std::string source = shaderSource({});
    source += "\nfloat g() { return notDeclaredAnywhere; }\n";
    const std::string message = errorOf(source);
    EXPECT_TRUE(message.starts_with("Failed to compile Metal shader source: vertex stage: "))
        << message;
    EXPECT_NE(message.find("'notDeclaredAnywhere' : undeclared identifier"), std::string::npos)
        << message;
}

TEST(ShaderCompiler, ErrorInOneStageNamesThatStage) {
    std::string source = shaderSource({});
    source += "\n#ifdef BRISVALE_COMPUTE\nvoid onlyCompute() { undefinedCall(); }\n#endif\n";
    const std::string message = errorOf(source);
    EXPECT_TRUE(message.starts_with("Failed to compile Metal shader source: compute stage: "))
        << message;
    EXPECT_NE(message.find("undefinedCall"), std::string::npos) << message;
}

TEST(ShaderCompiler, AVersionLineInTheSourceIsAnError) {
    const std::string message = errorOf("#version 450\n" + shaderSource({}));
    EXPECT_TRUE(message.starts_with("Failed to compile Metal shader source: ")) << message;
}

TEST(ShaderCompiler, CompileErrorComesBeforeMissingFunctions) {
    // Vertex and fragment functions are missing, but compute does not compile: the compile
    // failure is reported, whatever stage it is in.
    SourceParts parts;
    parts.vertex = false;
    parts.fragment = false;
    std::string source = shaderSource(parts);
    source += "\n#ifdef BRISVALE_COMPUTE\nvoid extra() { int x = 1.5 * ; }\n#endif\n";
    const std::string message = errorOf(source);
    EXPECT_TRUE(message.starts_with("Failed to compile Metal shader source: compute stage: "))
        << message;

    // The vertex function is missing and only the fragment stage has the fault.
    parts = SourceParts{};
    parts.vertex = false;
    source = shaderSource(parts);
    source += "\n#ifdef BRISVALE_FRAGMENT\nvoid extra() { undefinedCall(); }\n#endif\n";
    const std::string second = errorOf(source);
    EXPECT_TRUE(second.starts_with("Failed to compile Metal shader source: fragment stage: "))
        << second;
    EXPECT_NE(second.find("undefinedCall"), std::string::npos) << second;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Errors in the show's own files
// ---------------------------------------------------------------------------------------------

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

// The expanded source of main.glsl: the good source, then an include of lib/extra.glsl.
std::string errorThroughTheLineMap(const std::string& extra) {
    const std::string main = shaderSource({}) + "#include \"lib/extra.glsl\"\n";
    const auto archive = DemoArchive::fromFiles({{"main.glsl", bytesOf(main)}, {"lib/extra.glsl", bytesOf(extra)}});
    const ExpandedShaderSource source = expandShaderSource(*archive, "main.glsl");
    try {
        compileSceneShaders(source);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(ShaderCompiler, ErrorsNameTheIncludedFileAndItsLine) {
    EXPECT_EQ(errorThroughTheLineMap("float ok;\n\nfloat bad = missingThing;\n"),
              "Failed to compile Metal shader source: vertex stage: lib/extra.glsl:3: 'missingThing' : "
              "undeclared identifier");
    // The compiler finds an unfinished file at the next token or at the end of the text, which
    // both lie after the included text: the include line names them.
    const std::string good = shaderSource({});
    const auto includeLine = std::count(good.begin(), good.end(), '\n') + 1;
    EXPECT_EQ(errorThroughTheLineMap("float ok;\nvoid unfinished() {\n"),
              "Failed to compile Metal shader source: vertex stage: main.glsl:" + std::to_string(includeLine) +
                  ": '' :  syntax error, unexpected end of file");
    EXPECT_EQ(errorThroughTheLineMap("float ok;\n/* open"),
              "Failed to compile Metal shader source: vertex stage: lib/extra.glsl:2: 'comment' : End of input in "
              "comment");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Missing functions
// ---------------------------------------------------------------------------------------------

TEST(ShaderCompiler, MissingFunctionsAreReportedVertexThenFragmentThenCompute) {
    struct Case {
        bool vertex, fragment, compute;
        const char* message;
    };
    const Case cases[] = {
        {false, true, true, "Missing scene_vertex shader"},
        {true, false, true, "Missing scene_fragment shader"},
        {true, true, false, "Missing scene_compute shader"},
        {false, false, false, "Missing scene_vertex shader"},
        {false, true, false, "Missing scene_vertex shader"},
        {true, false, false, "Missing scene_fragment shader"},
        {false, false, true, "Missing scene_vertex shader"},
    };
    for (const Case& c : cases) {
        SourceParts parts;
        parts.vertex = c.vertex;
        parts.fragment = c.fragment;
        parts.compute = c.compute;
        EXPECT_EQ(errorOf(shaderSource(parts)), c.message)
            << "vertex " << c.vertex << " fragment " << c.fragment << " compute " << c.compute;
    }
}

TEST(ShaderCompiler, EmptySourceMissesTheVertexFunction) {
    EXPECT_EQ(errorOf(""), "Missing scene_vertex shader");
}

TEST(ShaderCompiler, AFunctionOfAnotherNameDoesNotCount) {
    const std::string source = R"(
#ifdef BRISVALE_VERTEX
void scene_vertex() { gl_Position = vec4(0.0); }
#endif
#ifdef BRISVALE_FRAGMENT
void scene_fragment_main() {}
#endif
#ifdef BRISVALE_COMPUTE
layout(local_size_x = 1) in;
void scene_compute() {}
#endif
)";
    EXPECT_EQ(errorOf(source), "Missing scene_fragment shader");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Macro expansion
// ---------------------------------------------------------------------------------------------

// `depth` nested uses of `macro`, around `leaf`: D(D(D(1.0))).
std::string nested(const std::string& macro, int depth, const std::string& leaf) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += macro + "(";
    text += leaf;
    return text + std::string(static_cast<std::size_t>(depth), ')');
}

// #define A0 1.0, then A<i> (A<i-1>+A<i-1>) up to A<depth>: each doubles the one before.
std::string doublingMacros(int depth) {
    std::string text = "#define A0 1.0\n";
    for (int i = 1; i <= depth; ++i)
        text += "#define A" + std::to_string(i) + " (A" + std::to_string(i - 1) + "+A" + std::to_string(i - 1) + ")\n";
    return text;
}

// glslang has no limit of its own: each of these would ask it for about 2^40 tokens.
TEST(ShaderCompiler, MacrosThatExpandBeyondTheLimitAreRefusedBeforeCompiling) {
    const std::string bomb = doublingMacros(40) + "const float big = A40;\n";
    EXPECT_EQ(errorOf(bomb + shaderSource({})),
              "Failed to compile Metal shader source: 0:42: 'A40' : macro expansion exceeds 500000 tokens");

    const std::string duplicating = "#define D(x) x x\nconst float big = " + nested("D", 40, "1.0") + ";\n";
    EXPECT_EQ(errorOf(duplicating + shaderSource({})),
              "Failed to compile Metal shader source: 0:2: 'D' : macro expansion exceeds 500000 tokens");

    // What only expansion would show counts as the largest macro could: an argument glslang
    // expands though the body drops it, a macro called through a parameter, a pasted name, a
    // call left open by a macro's body.
    const std::string refused = "Failed to compile Metal shader source: ";
    EXPECT_TRUE(errorOf(doublingMacros(40) + "#define DROP(x) 0\nconst float f = DROP(A40);\n").starts_with(refused));
    std::string apply = "#define D(x) x x\n#define APPLY(f, x) f(x)\nconst float f = ";
    for (int i = 0; i < 40; ++i) apply += "APPLY(D, ";
    EXPECT_TRUE(errorOf(apply + "1.0" + std::string(40, ')') + ";\n").starts_with(refused));
    EXPECT_TRUE(errorOf(doublingMacros(40) + "#define CAT(a, b) a##b\nconst float f = CAT(A, 40);\n")
                    .starts_with(refused));
    std::string open = "#define D(x) x x\n#define OPEN D(\nconst float f = ";
    for (int i = 0; i < 40; ++i) open += "OPEN ";
    EXPECT_TRUE(errorOf(open + "1.0" + std::string(40, ')') + ";\n").starts_with(refused));
    // In a branch never taken, and in a condition.
    EXPECT_TRUE(errorOf("#if 0\n" + doublingMacros(40) + "#endif\nconst float f = A40;\n").starts_with(refused));
    EXPECT_TRUE(errorOf(doublingMacros(40) + "#if A40 > 0\n#endif\n").starts_with(refused));
}

TEST(ShaderCompiler, MacrosWithinTheLimitCompile) {
    // 4096 terms each: well within the limit, and valid GLSL.
    std::string source = doublingMacros(12) + "#define D(x) x + x\n" +
                         "float big() { return A12 + " + nested("D", 12, "1.0") + "; }\n" +
                         shaderSource({});
    const CompiledShaders shaders = compileSceneShaders(source);
    EXPECT_FALSE(shaders.vertex.empty());
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The example shipped for show authors
// ---------------------------------------------------------------------------------------------

TEST(ShaderCompiler, ExampleShaderFileCompilesAndValidates) {
    std::ifstream in(std::string(BRISVALE_TEST_SHADER_DIR) + "/example.glsl");
    ASSERT_TRUE(in) << "tests/render/shaders/example.glsl";
    std::stringstream text;
    text << in.rdbuf();
    const CompiledShaders shaders = compileSceneShaders(text.str());
    EXPECT_GT(shaders.computeLocalSizeX, 0u);
    EXPECT_EQ(spirvValidationErrors(shaders.vertex), "");
    EXPECT_EQ(spirvValidationErrors(shaders.fragment), "");
    EXPECT_EQ(spirvValidationErrors(shaders.compute), "");
}

} // namespace
} // namespace brisvale
