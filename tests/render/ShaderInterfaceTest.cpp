// Keeps docs/shader-interface.md, render/ShaderInterface.h and real compiled shaders in step:
// the example printed in the document is the example file and compiles; the document's
// tables give the offsets and bindings the header declares; and the SPIR-V compiled from the
// example carries those same offsets and bindings.
//
// [SECTION] The example
// [SECTION] Push constants
// [SECTION] Bindings
// [SECTION] Indirect and feedback records
// [SECTION] Names shared with the compiler
#include <gtest/gtest.h>

#include <spirv-tools/libspirv.hpp>

#include <array>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "render/ShaderCompiler.h"
#include "render/ShaderInterface.h"

namespace brisvale {
namespace {

namespace si = shader_interface;

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

const std::string& documentText() {
    static const std::string text = readFile(BRISVALE_TEST_DOC);
    return text;
}

const std::string& exampleFile() {
    static const std::string text =
        readFile(std::string(BRISVALE_TEST_SHADER_DIR) + "/example.glsl");
    return text;
}

// The text between two marker lines, without the ```glsl fence around it.
std::string exampleFromDocument() {
    const std::string& doc = documentText();
    const std::string begin = "<!-- example:begin -->\n```glsl\n";
    const std::string end = "```\n<!-- example:end -->";
    const std::size_t from = doc.find(begin);
    if (from == std::string::npos) return {};
    const std::size_t to = doc.find(end, from);
    if (to == std::string::npos) return {};
    return doc.substr(from + begin.size(), to - from - begin.size());
}

std::string trimCell(std::string cell) {
    while (!cell.empty() && (cell.front() == ' ' || cell.front() == '`')) cell.erase(cell.begin());
    while (!cell.empty() && (cell.back() == ' ' || cell.back() == '`')) cell.pop_back();
    return cell;
}

// Rows of the markdown table right after `<!-- table:NAME -->`, header and rule dropped.
std::vector<std::vector<std::string>> table(const std::string& name) {
    const std::string& doc = documentText();
    const std::string marker = "<!-- table:" + name + " -->\n";
    std::size_t at = doc.find(marker);
    std::vector<std::vector<std::string>> rows;
    if (at == std::string::npos) return rows;
    std::istringstream lines(doc.substr(at + marker.size()));
    std::string line;
    int index = 0;
    while (std::getline(lines, line) && line.starts_with("|")) {
        if (index++ < 2) continue; // header and |---| rule
        std::vector<std::string> cells;
        std::size_t start = 1;
        for (std::size_t bar = line.find('|', start); bar != std::string::npos;
             start = bar + 1, bar = line.find('|', start))
            cells.push_back(trimCell(line.substr(start, bar - start)));
        rows.push_back(cells);
    }
    return rows;
}

// The offsets that the document's table lists, by field name (column `nameColumn`).
std::map<std::string, std::size_t> offsetsIn(const std::string& tableName, std::size_t nameColumn) {
    std::map<std::string, std::size_t> out;
    for (const auto& row : table(tableName)) {
        if (row.size() <= nameColumn) continue;
        out[row[nameColumn]] = std::stoul(row[0]);
    }
    return out;
}

std::string disassemble(const std::vector<std::uint32_t>& words) {
    spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_3);
    std::string text;
    if (!tools.Disassemble(words, &text, SPV_BINARY_TO_TEXT_OPTION_FRIENDLY_NAMES)) return {};
    return text;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The example
// ---------------------------------------------------------------------------------------------

TEST(ShaderInterfaceDocument, ExampleIsTheExampleFile) {
    const std::string fromDoc = exampleFromDocument();
    ASSERT_FALSE(fromDoc.empty()) << "example markers missing in docs/shader-interface.md";
    EXPECT_EQ(fromDoc, exampleFile());
}

TEST(ShaderInterfaceDocument, ExampleCompilesForAllThreeStages) {
    const CompiledShaders shaders = compileSceneShaders(exampleFromDocument());
    EXPECT_FALSE(shaders.vertex.empty());
    EXPECT_FALSE(shaders.fragment.empty());
    EXPECT_FALSE(shaders.compute.empty());
    EXPECT_EQ(shaders.computeLocalSizeX, 64u);
}

TEST(ShaderInterfaceDocument, DeclarationsToCopyAreTheExamplesOwn) {
    // The blocks the document tells authors to copy appear word for word in the example.
    const std::string& doc = documentText();
    const std::string example = exampleFile();
    for (const std::string& opener :
         {std::string("```glsl\nlayout(push_constant"),
          std::string("```glsl\n#ifdef BRISVALE_COMPUTE\nlayout(std430")}) {
        const std::size_t from = doc.find(opener);
        ASSERT_NE(from, std::string::npos) << opener;
        const std::size_t bodyStart = from + std::string("```glsl\n").size();
        const std::size_t to = doc.find("```", bodyStart);
        const std::string block = doc.substr(bodyStart, to - bodyStart);
        EXPECT_NE(example.find(block), std::string::npos) << block;
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Push constants
// ---------------------------------------------------------------------------------------------

const std::map<std::string, std::size_t>& expectedPushConstantOffsets() {
    static const std::map<std::string, std::size_t> offsets = [] {
        const std::size_t scene = offsetof(FramePushConstants, scene);
        const std::size_t pass = offsetof(FramePushConstants, pass);
        const std::size_t reserved = pass + offsetof(PassParams, reserved);
        return std::map<std::string, std::size_t>{
            {"resolution.x", scene + offsetof(SceneUniforms, resolution)},
            {"resolution.y", scene + offsetof(SceneUniforms, resolution) + sizeof(float)},
            {"timeSeconds", scene + offsetof(SceneUniforms, timeSeconds)},
            {"deltaSeconds", scene + offsetof(SceneUniforms, deltaSeconds)},
            {"showDurationSeconds", scene + offsetof(SceneUniforms, showDurationSeconds)},
            {"renderEndSeconds", scene + offsetof(SceneUniforms, renderEndSeconds)},
            {"vertexCapacity", scene + offsetof(SceneUniforms, vertexCapacity)},
            {"imageCount", scene + offsetof(SceneUniforms, imageCount)},
            {"passIndex", pass + offsetof(PassParams, passIndex)},
            {"passReserved0", reserved},
            {"passReserved1", reserved + 4},
            {"passReserved2", reserved + 8},
        };
    }();
    return offsets;
}

TEST(ShaderInterfaceDocument, PushConstantTableMatchesTheHeader) {
    EXPECT_EQ(offsetsIn("push-constants", 2), expectedPushConstantOffsets());
    const auto rows = table("push-constants");
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(std::stoul(rows.back()[0]) + 4, si::kPushConstantSize);
    EXPECT_NE(documentText().find("**" + std::to_string(si::kPushConstantSize) + " bytes**"),
              std::string::npos);
}

TEST(ShaderInterfaceDocument, CompiledExampleUsesTheDocumentedPushConstantOffsets) {
    // glslang lays the block out by std430; these decorations are what the GPU will use.
    const std::string text = disassemble(compileSceneShaders(exampleFile()).compute);
    ASSERT_FALSE(text.empty());
    const std::regex decoration(R"(OpMemberDecorate %Frame (\d+) Offset (\d+))");
    std::vector<std::size_t> offsets;
    for (std::sregex_iterator it(text.begin(), text.end(), decoration), end; it != end; ++it)
        offsets.push_back(std::stoul((*it)[2]));
    std::vector<std::size_t> documented;
    for (const auto& row : table("push-constants")) documented.push_back(std::stoul(row[0]));
    // resolution is one vec2 member in GLSL, two rows in the table.
    ASSERT_GE(documented.size(), 2u);
    documented.erase(documented.begin() + 1);
    EXPECT_EQ(offsets, documented);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Bindings
// ---------------------------------------------------------------------------------------------

TEST(ShaderInterfaceDocument, BindingTableMatchesTheHeader) {
    const auto rows = table("bindings");
    ASSERT_EQ(rows.size(), si::kBindingCount);
    const struct {
        const char* contentStart;
        std::uint32_t binding;
    } expected[] = {
        {"vertex pool", si::kVertexPoolBinding},
        {"indirect draw record", si::kIndirectArgumentsBinding},
        {"geometry request", si::kGeometryRequestBinding},
        {"the show's images", si::kImageArrayBinding},
        {"depth of this frame's scene pass", si::kSceneDepthBinding},
    };
    for (const auto& e : expected) {
        bool found = false;
        for (const auto& row : rows) {
            if (row.size() > 2 && row[2].starts_with(e.contentStart)) {
                EXPECT_EQ(std::stoul(row[0]), e.binding) << e.contentStart;
                found = true;
            }
        }
        EXPECT_TRUE(found) << e.contentStart;
    }
    EXPECT_NE(documentText().find(std::to_string(si::kVertexStrideBytes) + " bytes"),
              std::string::npos);
}

TEST(ShaderInterfaceDocument, CompiledExampleUsesTheDocumentedBindings) {
    const CompiledShaders shaders = compileSceneShaders(exampleFile());
    const std::string compute = disassemble(shaders.compute);
    const std::string fragment = disassemble(shaders.fragment);
    const std::string vertex = disassemble(shaders.vertex);
    auto binding = [](const std::string& text, const std::string& variable) {
        const std::regex decoration("OpDecorate %" + variable + " Binding (\\d+)");
        std::smatch m;
        return std::regex_search(text, m, decoration) ? std::stol(m[1]) : -1L;
    };
    EXPECT_EQ(binding(compute, "pool"), si::kVertexPoolBinding);
    EXPECT_EQ(binding(compute, "drawArguments"), si::kIndirectArgumentsBinding);
    EXPECT_EQ(binding(compute, "request"), si::kGeometryRequestBinding);
    EXPECT_EQ(binding(vertex, "pool"), si::kVertexPoolBinding);
    EXPECT_EQ(binding(fragment, "images"), si::kImageArrayBinding);
    EXPECT_EQ(binding(fragment, "sceneDepth"), si::kSceneDepthBinding);
    // The vertex stage sees the pool read-only.
    EXPECT_NE(vertex.find("NonWritable"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Indirect and feedback records
// ---------------------------------------------------------------------------------------------

TEST(ShaderInterfaceDocument, IndirectRecordTableMatchesTheHeader) {
    const std::map<std::string, std::size_t> expected{
        {"vertexCount", offsetof(DrawIndirectArguments, vertexCount)},
        {"instanceCount", offsetof(DrawIndirectArguments, instanceCount)},
        {"firstVertex", offsetof(DrawIndirectArguments, firstVertex)},
        {"firstInstance", offsetof(DrawIndirectArguments, firstInstance)},
    };
    EXPECT_EQ(offsetsIn("indirect", 2), expected);
}

TEST(ShaderInterfaceDocument, FeedbackRecordTableMatchesTheHeader) {
    const std::map<std::string, std::size_t> expected{
        {"ownWord0", offsetof(GeometryRequest, shaderWord0)},
        {"requestedVertexCount", offsetof(GeometryRequest, requestedVertexCount)},
        {"overflowFlag", offsetof(GeometryRequest, overflowFlag)},
        {"ownWord3", offsetof(GeometryRequest, shaderWord3)},
    };
    EXPECT_EQ(offsetsIn("feedback", 2), expected);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Names shared with the compiler
// ---------------------------------------------------------------------------------------------

TEST(ShaderInterfaceDocument, StageMacrosAndEntryFunctionsAreDocumented) {
    const std::string& doc = documentText();
    for (std::string_view name :
         {si::kVertexStageMacro, si::kFragmentStageMacro, si::kComputeStageMacro, si::kVertexEntry,
          si::kFragmentEntry, si::kComputeEntry})
        EXPECT_NE(doc.find("`" + std::string(name) + "`"), std::string::npos) << name;
    EXPECT_NE(doc.find("#define " + std::string(si::kVertexStageMacro) + " 1\n#define " +
                       std::string(si::kVertexEntry) + " main\n#line 1\n"),
              std::string::npos);
}

TEST(ShaderInterfaceRecords, FramePushConstantsIsSceneThenPass) {
    FramePushConstants frame;
    frame.scene.resolution = {1920.0f, 1080.0f};
    frame.scene.vertexCapacity = 4096;
    frame.pass.passIndex = si::kPassCompositeQuad;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&frame);
    float width = 0.0f;
    std::uint32_t capacity = 0, pass = 0;
    std::memcpy(&width, bytes + 0, 4);
    std::memcpy(&capacity, bytes + 24, 4);
    std::memcpy(&pass, bytes + 32, 4);
    EXPECT_EQ(width, 1920.0f);
    EXPECT_EQ(capacity, 4096u);
    EXPECT_EQ(pass, 2u);
    EXPECT_EQ(frame.pass.reserved, (std::array<std::uint32_t, 3>{0, 0, 0}));
}

} // namespace
} // namespace brisvale
