// Compiles a show's single GLSL source into three SPIR-V modules with glslang.
//
// The source holds scene_vertex, scene_fragment and scene_compute side by side. Each stage
// is compiled separately with a preamble that defines the stage macro and renames that
// stage's function to main, so a stage whose function is absent fails to link with
// glslang's "Missing entry point". The three stages compile side by side on threads of their
// own; their errors are reported in two rounds, as if one stage had followed another: every
// stage must compile and link before any missing function is reported. A source whose macros
// would expand past a fixed number of tokens never reaches glslang (MacroExpansion.h).
#include "render/ShaderCompiler.h"

#include <array>
#include <exception>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include <glslang/Public/ResourceLimits.h>
#include <glslang/Public/ShaderLang.h>
#include <glslang/SPIRV/GlslangToSpv.h>

#include "render/MacroExpansion.h"
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
// Everything one stage's compile found; the stages are built side by side and their findings
// reported afterwards, in the order a one-stage-at-a-time compile would have met them.
struct StageBuild {
    // The program refers to the shader, so it is declared after it and destroyed first.
    std::unique_ptr<glslang::TShader> shader;
    std::unique_ptr<glslang::TProgram> program;
    std::string parseError;   // one line; empty when the stage parsed
    std::string linkError;    // one line; empty when it linked or only lacked its entry point
    bool missingEntry = false;
    std::string spirvError;   // one line; empty when SPIR-V was made
    std::vector<std::uint32_t> spirv;
    std::uint32_t localSizeX = 0;
    std::exception_ptr failure;  // anything else (out of memory), rethrown in stage order
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

bool parseStage(const Stage& stage, const std::string& text, StageBuild& build) {
    build.shader = std::make_unique<glslang::TShader>(stage.language);
    const char* strings[] = {text.c_str()};
    build.shader->setStrings(strings, 1);
    build.shader->setEnvInput(glslang::EShSourceGlsl, stage.language, glslang::EShClientVulkan,
                              100);
    build.shader->setEnvClient(glslang::EShClientVulkan, glslang::EShTargetVulkan_1_3);
    build.shader->setEnvTarget(glslang::EShTargetSpv, glslang::EShTargetSpv_1_5);
    if (build.shader->parse(GetDefaultResources(), 450, ENoProfile, false, false, kMessages))
        return true;
    build.parseError = oneLineDescription(build.shader->getInfoLog());
    return false;
}

// False when linking failed, for a missing entry point or another reason (kept in linkError).
bool linkStage(StageBuild& build) {
    build.program = std::make_unique<glslang::TProgram>();
    build.program->addShader(build.shader.get());
    if (build.program->link(kMessages)) return true;
    const std::string_view log = build.program->getInfoLog();
    if (log.find("Missing entry point") != std::string_view::npos) {
        build.missingEntry = true;
        return false;
    }
    const std::string description = oneLineDescription(log);
    build.linkError = description.empty() ? std::string("link failed") : description;
    return false;
}

bool generateSpirv(const Stage& stage, StageBuild& build) {
    std::vector<unsigned int> words;
    spv::SpvBuildLogger logger;
    glslang::SpvOptions options;
    options.disableOptimizer = true;
    glslang::GlslangToSpv(*build.program->getIntermediate(stage.language), words, &logger,
                          &options);
    const std::string messages = logger.getAllMessages();
    if (words.empty() || messages.find("error") != std::string::npos) {
        build.spirvError = messages.empty() ? std::string("no SPIR-V generated")
                                            : oneLineDescription(messages);
        return false;
    }
    build.spirv.assign(words.begin(), words.end());
    return true;
}

void buildStage(const Stage& stage, const std::string& source, StageBuild& build) {
    try {
        if (!parseStage(stage, stageText(stage, source), build) || !linkStage(build) ||
            !generateSpirv(stage, build))
            return;
        if (stage.language != EShLangCompute) return;
        if (!build.program->buildReflection()) {
            build.spirvError = "reflection failed";
            return;
        }
        build.localSizeX = build.program->getLocalSize(0);
    } catch (...) {
        build.failure = std::current_exception();
    }
}

// The stages on threads of their own (glslang is set up for the process once, and each compile
// keeps to its own objects); where no thread can be started, here one after another.
void buildStages(const std::string& source, std::array<StageBuild, kStages.size()>& builds) {
    std::vector<std::thread> helpers;
    for (std::size_t i = 1; i < kStages.size(); ++i) {
        try {
            helpers.emplace_back(buildStage, std::cref(kStages[i]), std::cref(source), std::ref(builds[i]));
        } catch (const std::system_error&) {
            buildStage(kStages[i], source, builds[i]);
        }
    }
    buildStage(kStages[0], source, builds[0]);
    for (std::thread& helper : helpers) helper.join();
}

// [SECTION] Macro expansion limit
// Far beyond any real show (the default show is about 8,000 tokens), and about the most glslang
// builds in a second and a few hundred megabytes per stage.
constexpr double kMaxExpandedTokens = 500000;

void checkExpansion(const std::string& source) {
    const MacroExpansionCheck check = checkMacroExpansion(source, kMaxExpandedTokens);
    if (check.withinLimit) return;
    failCompile(check.line > 0 ? "0:" + std::to_string(check.line) + ": " + check.reason : check.reason);
}

} // namespace

CompiledShaders compileSceneShaders(const std::string& expandedSource) {
    static const GlslangProcess process;
    if (!process.initialised()) failCompile("glslang could not be initialised");
    checkExpansion(expandedSource);

    std::array<StageBuild, kStages.size()> builds;
    buildStages(expandedSource, builds);

    for (const StageBuild& build : builds)
        if (build.failure) std::rethrow_exception(build.failure);
    // Compile errors come before missing functions: every stage is parsed and linked first.
    for (std::size_t i = 0; i < kStages.size(); ++i)
        if (!builds[i].parseError.empty()) failStage(kStages[i].name, builds[i].parseError);
    for (std::size_t i = 0; i < kStages.size(); ++i)
        if (!builds[i].linkError.empty()) failStage(kStages[i].name, builds[i].linkError);
    for (std::size_t i = 0; i < kStages.size(); ++i)
        if (builds[i].missingEntry)
            throw std::runtime_error(std::string(kStages[i].missingMessage));
    for (std::size_t i = 0; i < kStages.size(); ++i)
        if (!builds[i].spirvError.empty()) failStage(kStages[i].name, builds[i].spirvError);

    CompiledShaders out;
    out.vertex = std::move(builds[0].spirv);
    out.fragment = std::move(builds[1].spirv);
    out.compute = std::move(builds[2].spirv);
    out.computeLocalSizeX = builds[2].localSizeX;
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
