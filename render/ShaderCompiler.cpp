// Compiles a show's single GLSL source into three SPIR-V modules with glslang.
//
// The source holds scene_vertex, scene_fragment and scene_compute side by side. Each stage
// is compiled separately with a preamble that defines the stage macro and renames that
// stage's function to main, so a stage whose function is absent fails to link with
// glslang's "Missing entry point". Errors are checked in two rounds: every stage must
// compile and link before any missing function is reported.
#include "render/ShaderCompiler.h"

#include <array>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <glslang/Public/ResourceLimits.h>
#include <glslang/Public/ShaderLang.h>
#include <glslang/SPIRV/GlslangToSpv.h>

#include "render/ShaderInterface.h"

namespace brisvale {
namespace {

// [SECTION] Messages
constexpr std::string_view kCompileFailed = "Failed to compile Metal shader source";
constexpr std::string_view kMissingVertex = "Missing scene_vertex shader";
constexpr std::string_view kMissingFragment = "Missing scene_fragment shader";
constexpr std::string_view kMissingCompute = "Missing scene_compute shader";

// [SECTION] Stages
struct Stage {
    EShLanguage language;
    std::string_view macro;
    std::string_view entry;
    std::string_view name; // for error descriptions
    std::string_view missingMessage;
};

constexpr std::array<Stage, 3> kStages{{
    {EShLangVertex, shader_interface::kVertexStageMacro, shader_interface::kVertexEntry, "vertex",
     kMissingVertex},
    {EShLangFragment, shader_interface::kFragmentStageMacro, shader_interface::kFragmentEntry,
     "fragment", kMissingFragment},
    {EShLangCompute, shader_interface::kComputeStageMacro, shader_interface::kComputeEntry,
     "compute", kMissingCompute},
}};

constexpr auto kMessages = static_cast<EShMessages>(EShMsgSpvRules | EShMsgVulkanRules);

// glslang keeps its built-in symbol tables in process-wide state that InitializeProcess
// builds and FinalizeProcess frees. Setting it up once per process (a function-local static
// is initialised exactly once even when threads race to it) avoids rebuilding the tables for
// every compile, and keeps a teardown in one thread from pulling them out from under a
// compile in another.
class GlslangProcess {
public:
    GlslangProcess() : initialised_(glslang::InitializeProcess()) {}
    ~GlslangProcess() {
        if (initialised_) glslang::FinalizeProcess();
    }
    GlslangProcess(const GlslangProcess&) = delete;
    GlslangProcess& operator=(const GlslangProcess&) = delete;
    bool initialised() const { return initialised_; }

private:
    bool initialised_;
};

// The description, when there is one, follows ": " and names the stage that failed.
[[noreturn]] void failCompile(std::string_view description) {
    std::string message(kCompileFailed);
    if (!description.empty()) {
        message += ": ";
        message += description;
    }
    throw std::runtime_error(message);
}

[[noreturn]] void failStage(std::string_view stageName, std::string_view description) {
    failCompile(std::string(stageName) + " stage: " + std::string(description));
}

// [SECTION] Info log to one line
std::string_view trim(std::string_view s) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

// glslang's log has one "ERROR: " line per error followed by summary lines ("compilation
// terminated", "N compilation errors. No code generated."); keep the first few real errors.
std::string oneLineDescription(std::string_view log) {
    constexpr std::string_view kErrorPrefix = "ERROR: ";
    constexpr std::size_t kMaxErrors = 3;
    std::string out;
    std::size_t kept = 0;
    std::size_t start = 0;
    while (start < log.size() && kept < kMaxErrors) {
        std::size_t end = log.find('\n', start);
        if (end == std::string_view::npos) end = log.size();
        std::string_view line = trim(log.substr(start, end - start));
        start = end + 1;
        if (!line.starts_with(kErrorPrefix)) continue;
        line = trim(line.substr(kErrorPrefix.size()));
        if (line.empty() || line.ends_with("compilation terminated") ||
            line.find("compilation errors.") != std::string_view::npos ||
            line.find("linking errors.") != std::string_view::npos)
            continue;
        if (!out.empty()) out += "; ";
        out += line;
        ++kept;
    }
    if (!out.empty()) return out;
    // No recognisable error line: keep whatever the log says, folded onto one line.
    for (char c : trim(log)) out += (c == '\n' || c == '\r') ? ' ' : c;
    return out;
}

// [SECTION] One stage
struct StageBuild {
    // The program refers to the shader, so it is declared after it and destroyed first.
    std::unique_ptr<glslang::TShader> shader;
    std::unique_ptr<glslang::TProgram> program;
    bool missingEntry = false;
};

std::string stageText(const Stage& stage, const std::string& source) {
    std::string text;
    text.reserve(source.size() + 128);
    text += "#version 450\n#define ";
    text += stage.macro;
    text += " 1\n#define ";
    text += stage.entry;
    text += " main\n#line 1\n";
    text += source;
    text += '\n';
    return text;
}

void parseStage(const Stage& stage, const std::string& text, StageBuild& build) {
    build.shader = std::make_unique<glslang::TShader>(stage.language);
    const char* strings[] = {text.c_str()};
    build.shader->setStrings(strings, 1);
    build.shader->setEnvInput(glslang::EShSourceGlsl, stage.language, glslang::EShClientVulkan,
                              100);
    build.shader->setEnvClient(glslang::EShClientVulkan, glslang::EShTargetVulkan_1_3);
    build.shader->setEnvTarget(glslang::EShTargetSpv, glslang::EShTargetSpv_1_5);
    if (!build.shader->parse(GetDefaultResources(), 450, ENoProfile, false, false, kMessages))
        failStage(stage.name, oneLineDescription(build.shader->getInfoLog()));
}

// Returns the link log when linking failed for a reason other than a missing entry point.
std::string linkStage(StageBuild& build) {
    build.program = std::make_unique<glslang::TProgram>();
    build.program->addShader(build.shader.get());
    if (build.program->link(kMessages)) return {};
    const std::string_view log = build.program->getInfoLog();
    if (log.find("Missing entry point") != std::string_view::npos) {
        build.missingEntry = true;
        return {};
    }
    const std::string description = oneLineDescription(log);
    return description.empty() ? std::string("link failed") : description;
}

std::vector<std::uint32_t> generateSpirv(const Stage& stage, StageBuild& build) {
    std::vector<unsigned int> words;
    spv::SpvBuildLogger logger;
    glslang::SpvOptions options;
    options.disableOptimizer = true;
    glslang::GlslangToSpv(*build.program->getIntermediate(stage.language), words, &logger,
                          &options);
    const std::string messages = logger.getAllMessages();
    if (words.empty() || messages.find("error") != std::string::npos)
        failStage(stage.name, messages.empty() ? std::string("no SPIR-V generated")
                                               : oneLineDescription(messages));
    return {words.begin(), words.end()};
}

} // namespace

CompiledShaders compileSceneShaders(const std::string& expandedSource) {
    static const GlslangProcess process;
    if (!process.initialised()) failCompile("glslang could not be initialised");

    std::array<StageBuild, kStages.size()> builds;

    // Compile errors come before missing functions: every stage is parsed and linked first.
    for (std::size_t i = 0; i < kStages.size(); ++i)
        parseStage(kStages[i], stageText(kStages[i], expandedSource), builds[i]);
    for (std::size_t i = 0; i < kStages.size(); ++i) {
        const std::string linkError = linkStage(builds[i]);
        if (!linkError.empty()) failStage(kStages[i].name, linkError);
    }
    for (std::size_t i = 0; i < kStages.size(); ++i)
        if (builds[i].missingEntry)
            throw std::runtime_error(std::string(kStages[i].missingMessage));

    CompiledShaders out;
    out.vertex = generateSpirv(kStages[0], builds[0]);
    out.fragment = generateSpirv(kStages[1], builds[1]);
    out.compute = generateSpirv(kStages[2], builds[2]);

    glslang::TProgram& compute = *builds[2].program;
    if (!compute.buildReflection()) failStage("compute", "reflection failed");
    out.computeLocalSizeX = compute.getLocalSize(0);
    return out;
}

CompiledShaders compileSceneShaders(const ExpandedShaderSource& source) {
    try {
        return compileSceneShaders(source.text);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(mapShaderMessage(error.what(), source));
    }
}

} // namespace brisvale
