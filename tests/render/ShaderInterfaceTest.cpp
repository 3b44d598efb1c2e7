// Keeps docs/shader-interface.md, render/ShaderInterface.h and the shared GLSL interface
// (show/shaders/lib/frame.glsl) in step: the example printed in the document is the example
// file, the declarations it shows are the shared file's; the document's tables give the offsets
// and bindings the header declares; and the SPIR-V compiled from the example with the shared
// file carries those same offsets and bindings.
//
// [SECTION] The example and the shared declarations
// [SECTION] Records: header, document table and compiled GLSL
// [SECTION] Names shared with the compiler
#include <gtest/gtest.h>

#include <spirv-tools/libspirv.hpp>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "content/ArchiveWriter.h"
#include "content/ShaderSource.h"
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

const std::string& frameInterface() {
    static const std::string text = readFile(BRISVALE_FRAME_INTERFACE);
    return text;
}

// The example as a show holds it, with the shared interface beside it.
const CompiledShaders& compiledExample() {
    static const CompiledShaders shaders = [] {
        auto bytes = [](const std::string& text) { return std::vector<std::uint8_t>(text.begin(), text.end()); };
        const auto archive = DemoArchive::fromFiles(
            {{"example.glsl", bytes(exampleFile())}, {"lib/frame.glsl", bytes(frameInterface())}});
        return compileSceneShaders(expandShaderSource(*archive, "example.glsl"));
    }();
    return shaders;
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
// [SECTION] The example and the shared declarations
// ---------------------------------------------------------------------------------------------

TEST(ShaderInterfaceDocument, ExampleIsTheExampleFileAndCompiles) {
    const std::string fromDoc = exampleFromDocument();
    ASSERT_FALSE(fromDoc.empty()) << "example markers missing in docs/shader-interface.md";
    EXPECT_EQ(fromDoc, exampleFile());
    EXPECT_EQ(compiledExample().computeLocalSizeX, 64u);
}

TEST(ShaderInterfaceDocument, DeclarationsShownAreTheSharedFile) {
    // The blocks the document shows appear word for word in the file every show includes.
    const std::string& doc = documentText();
    for (const std::string& opener :
         {std::string("```glsl\nlayout(push_constant"),
          std::string("```glsl\n#ifdef BRISVALE_COMPUTE\nlayout(std430")}) {
        const std::size_t from = doc.find(opener);
        ASSERT_NE(from, std::string::npos) << opener;
        const std::size_t bodyStart = from + std::string("```glsl\n").size();
        const std::size_t to = doc.find("```", bodyStart);
        const std::string block = doc.substr(bodyStart, to - bodyStart);
        EXPECT_NE(frameInterface().find(block), std::string::npos) << block;
    }
    EXPECT_NE(doc.find("`show/shaders/lib/frame.glsl`"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Records: header, document table and compiled GLSL
// ---------------------------------------------------------------------------------------------

// The member offsets of GLSL block `block` as the compiler laid them out (std430), in order.
std::vector<std::size_t> compiledOffsets(const std::string& block) {
    const std::string text = disassemble(compiledExample().compute);
    const std::regex decoration("OpMemberDecorate %" + block + R"( (\d+) Offset (\d+))");
    std::vector<std::size_t> offsets;
    for (std::sregex_iterator it(text.begin(), text.end(), decoration), end; it != end; ++it)
        offsets.push_back(std::stoul((*it)[2]));
    return offsets;
}

TEST(ShaderInterfaceDocument, RecordLayoutsAgreeInHeaderDocumentAndCompiledShader) {
    using Fields = std::vector<std::pair<std::string, std::size_t>>;
    const std::size_t scene = offsetof(FramePushConstants, scene);
    const std::size_t pass = offsetof(FramePushConstants, pass);
    const std::size_t reserved = pass + offsetof(PassParams, reserved);
    const struct {
        const char* table;
        const char* block;
        Fields header;
    } records[] = {
        {"push-constants", "Frame",
         {{"resolution.x", scene + offsetof(SceneUniforms, resolution)},
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
          {"passReserved2", reserved + 8}}},
        {"indirect", "DrawArguments",
         {{"vertexCount", offsetof(DrawIndirectArguments, vertexCount)},
          {"instanceCount", offsetof(DrawIndirectArguments, instanceCount)},
          {"firstVertex", offsetof(DrawIndirectArguments, firstVertex)},
          {"firstInstance", offsetof(DrawIndirectArguments, firstInstance)}}},
        {"feedback", "GeometryRequest",
         {{"ownWord0", offsetof(GeometryRequest, shaderWord0)},
          {"requestedVertexCount", offsetof(GeometryRequest, requestedVertexCount)},
          {"overflowFlag", offsetof(GeometryRequest, overflowFlag)},
          {"ownWord3", offsetof(GeometryRequest, shaderWord3)}}},
    };
    for (const auto& record : records) {
        SCOPED_TRACE(record.table);
        EXPECT_EQ(offsetsIn(record.table, 2), (std::map<std::string, std::size_t>(record.header.begin(), record.header.end())));
        std::vector<std::size_t> members;  // resolution is one vec2 member in GLSL, two rows elsewhere
        for (const auto& [name, offset] : record.header)
            if (!name.ends_with(".y")) members.push_back(offset);
        EXPECT_EQ(compiledOffsets(record.block), members);
    }
    EXPECT_NE(documentText().find("**" + std::to_string(si::kPushConstantSize) + " bytes**"), std::string::npos);
    EXPECT_EQ(si::kPushConstantSize, offsetsIn("push-constants", 2).at("passReserved2") + 4);
}

TEST(ShaderInterfaceDocument, BindingsAgreeInHeaderDocumentAndCompiledShader) {
    const auto rows = table("bindings");
    ASSERT_EQ(rows.size(), si::kBindingCount);
    const CompiledShaders& shaders = compiledExample();
    const struct {
        const char* contentStart;
        const char* variable;
        const std::vector<std::uint32_t>& stage;
        std::uint32_t binding;
    } expected[] = {
        {"vertex pool", "pool", shaders.compute, si::kVertexPoolBinding},
        {"vertex pool", "pool", shaders.vertex, si::kVertexPoolBinding},
        {"indirect draw record", "drawArguments", shaders.compute, si::kIndirectArgumentsBinding},
        {"geometry request", "request", shaders.compute, si::kGeometryRequestBinding},
        {"the show's images", "images", shaders.fragment, si::kImageArrayBinding},
        {"depth of this frame's scene pass", "sceneDepth", shaders.fragment, si::kSceneDepthBinding},
    };
    for (const auto& e : expected) {
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [&](const auto& r) { return r.size() > 2 && r[2].starts_with(e.contentStart); });
        ASSERT_NE(row, rows.end()) << e.contentStart;
        EXPECT_EQ(std::stoul((*row)[0]), e.binding) << e.contentStart;
        const std::string text = disassemble(e.stage);
        std::smatch m;
        ASSERT_TRUE(std::regex_search(text, m, std::regex("OpDecorate %" + std::string(e.variable) + " Binding (\\d+)")))
            << e.variable;
        EXPECT_EQ(std::stoul(m[1]), e.binding) << e.variable;
    }
    // The vertex stage sees the pool read-only.
    EXPECT_NE(disassemble(shaders.vertex).find("NonWritable"), std::string::npos);
    EXPECT_NE(documentText().find(std::to_string(si::kVertexStrideBytes) + " bytes"), std::string::npos);
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

} // namespace
} // namespace brisvale
