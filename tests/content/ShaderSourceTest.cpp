// Expanding include lines in shader source from the archive (paths, recursion, limits, line
// ends) and the line map that leads compiler messages back to the show's own files.
//
// [SECTION] Expansion
// [SECTION] Line map

#include <gtest/gtest.h>

#include "ContentTestSupport.h"
#include "content/ShaderSource.h"

namespace brisvale {
namespace {

using testing::errorOf;
using testing::TempDir;
using testing::toBytes;

// Loads an archive of shader files and expands one of them with a fresh include stack.
class ShaderSourceTest : public ::testing::Test {
protected:
    void files(const std::vector<std::pair<std::string, std::string>>& contents) {
        std::vector<ArchiveFile> archiveFiles;
        for (const auto& [path, text] : contents) {
            archiveFiles.push_back({path, toBytes(text)});
        }
        archive_ = testing::loadFiles(dir_, archiveFiles);
    }
    std::string expand(std::string_view path) {
        std::vector<std::string> stack;
        std::string result = loadMetalSourceWithIncludes(*archive_, path, stack);
        EXPECT_TRUE(stack.empty());
        return result;
    }
    std::string errorFor(std::string_view path) {
        return errorOf([&] { expand(path); });
    }

    TempDir dir_;
    std::shared_ptr<DemoArchive> archive_;
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Expansion
// ---------------------------------------------------------------------------------------------

TEST_F(ShaderSourceTest, LineEndsBecomeLineFeeds) {
    files({{"a.glsl", "one\r\ntwo\rthree\n\nfour\xC2\x85" "five\xE2\x80\xA8six\xE2\x80\xA9seven"},
           {"empty.glsl", ""},
           {"crcr.glsl", "x\r\r\ny\n"},
           {"vt.glsl", "p\vq\fr"}});
    EXPECT_EQ(expand("a.glsl"), "one\ntwo\nthree\n\nfour\nfive\nsix\nseven\n");
    EXPECT_EQ(expand("empty.glsl"), "");
    EXPECT_EQ(expand("crcr.glsl"), "x\n\ny\n");
    EXPECT_EQ(expand("vt.glsl"), "p\vq\fr\n"); // VT and FF are not line ends here
}

TEST_F(ShaderSourceTest, ExpandsIncludesRelativeToTheIncludingFile) {
    files({{"main.metal", "#include <metal_stdlib>\r\n  #include \"lib/common.metal\"  \r\nkernel...\r\n"},
           {"lib/common.metal", "float k;"}});
    EXPECT_EQ(expand("main.metal"), "#include <metal_stdlib>\nfloat k;\n\nkernel...\n");
}

TEST_F(ShaderSourceTest, IncludesClimbAndNeverLeaveTheRoot) {
    files({{"shaders/main.glsl", "#include \"../common.glsl\"\n#include \"/x.glsl\"\n"},
           {"common.glsl", "C"},
           {"shaders/x.glsl", "X\n"}});
    EXPECT_EQ(expand("shaders/main.glsl"), "C\n\nX\n\n");
}

TEST_F(ShaderSourceTest, OnlyTheExactFormIsAnInclude) {
    const std::string ordinary = "#include <metal_stdlib>\n"
                                 "#import \"b.glsl\"\n"
                                 "# include \"b.glsl\"\n"
                                 "#include\"b.glsl\"\n"
                                 "#include  \"b.glsl\"\n"
                                 "#include \"b.glsl\" // trailing\n"
                                 "#INCLUDE \"b.glsl\"\n"
                                 "#include \"\n"
                                 "\t #include \"\t \n";
    files({{"a.glsl", ordinary}, {"b.glsl", "B"}});
    EXPECT_EQ(expand("a.glsl"), ordinary);
}

TEST_F(ShaderSourceTest, WhiteSpaceAroundIncludesIsDroppedAndInsideQuotesKept) {
    files({{"a.glsl", "\t  #include \"b.glsl\"\t \xE3\x80\x80\n"
                      "#include \" b.glsl\"\n"
                      "   keep   \n"
                      "/*\n#include \"b.glsl\"\n*/\n"},
           {"b.glsl", "B"},
           {" b.glsl", "spaced"}});
    EXPECT_EQ(expand("a.glsl"), "B\n\nspaced\n\n   keep   \n/*\nB\n\n*/\n");
}

TEST_F(ShaderSourceTest, RepeatedIncludesExpandEachTime) {
    files({{"a.glsl", "#include \"b.glsl\"\n#include \"./b.glsl\"\n"},
           {"b.glsl", "#include \"c.glsl\"\n"},
           {"c.glsl", ""}});
    EXPECT_EQ(expand("a.glsl"), "\n\n\n\n");
}

TEST_F(ShaderSourceTest, RecursionIsRefusedWhateverTheSpelling) {
    files({{"self.glsl", "#include \"self.glsl\"\n"},
           {"dir/self.glsl", "#include \"../dir/x/../self.glsl\"\n"},
           {"a.glsl", "#include \"b.glsl\"\n"},
           {"b.glsl", "ok\n#include \"a.glsl\"\n"},
           {"empty-name.glsl", "#include \"\"\n"},
           {"dot.glsl", "#include \".\"\n"}});
    for (const char* path : {"self.glsl", "dir/self.glsl", "a.glsl", "./b.glsl", "empty-name.glsl",
                             "dot.glsl"}) {
        EXPECT_EQ(errorFor(path), "Recursive Metal include detected") << path;
    }
}

TEST_F(ShaderSourceTest, StackIsRestoredAndChecked) {
    files({{"a.glsl", "#include \"b.glsl\"\n"}, {"b.glsl", "B\n"}});
    std::vector<std::string> stack = {"outer.glsl"};
    EXPECT_EQ(loadMetalSourceWithIncludes(*archive_, "./a.glsl", stack), "B\n\n");
    EXPECT_EQ(stack, std::vector<std::string>{"outer.glsl"});
    std::vector<std::string> holding = {"b.glsl"};
    EXPECT_EQ(errorOf([&] { loadMetalSourceWithIncludes(*archive_, "a.glsl", holding); }),
              "Recursive Metal include detected");
}

TEST_F(ShaderSourceTest, FailuresLeaveTheChainDownToTheFailingFile) {
    files({{"a.glsl", "#include \"lib/b.glsl\"\n"},
           {"lib/b.glsl", "#include \"../a.glsl\"\n"},
           {"c.glsl", "#include \"lib/none.glsl\"\n"}});
    std::vector<std::string> stack;
    EXPECT_EQ(errorOf([&] { loadMetalSourceWithIncludes(*archive_, "a.glsl", stack); }),
              "Recursive Metal include detected");
    EXPECT_EQ(stack, (std::vector<std::string>{"a.glsl", "lib/b.glsl", "a.glsl"}));
    stack.clear();
    errorOf([&] { loadMetalSourceWithIncludes(*archive_, "c.glsl", stack); });
    EXPECT_EQ(stack, (std::vector<std::string>{"c.glsl", "lib/none.glsl"}));
}

// A hostile show must not expand for minutes, take gigabytes or overflow the stack.
TEST_F(ShaderSourceTest, IncludeBombsStopAtTheirLimits) {
    std::vector<std::pair<std::string, std::string>> sources;
    auto include = [](const std::string& name) { return "#include \"" + name + "\"\n"; };
    // Each file includes the next twice: 2^26 copies of the last one.
    for (int i = 0; i < 26; ++i) {
        const std::string next = "bomb" + std::to_string(i + 1) + ".glsl";
        sources.push_back({"bomb" + std::to_string(i) + ".glsl", include(next) + include(next)});
    }
    sources.push_back({"bomb26.glsl", ""});
    // A chain 100 files deep.
    for (int i = 0; i < 100; ++i) {
        sources.push_back({"deep" + std::to_string(i) + ".glsl", include("deep" + std::to_string(i + 1) + ".glsl")});
    }
    sources.push_back({"deep100.glsl", "end\n"});
    // 17 copies of a MiB, in few includes.
    sources.push_back({"mib.glsl", std::string((1 << 20) - 1, 'x')});
    std::string big;
    for (int i = 0; i < 17; ++i) {
        big += include("mib.glsl");
    }
    sources.push_back({"big.glsl", big});
    files(sources);

    EXPECT_EQ(errorFor("bomb0.glsl"), "More than 4096 Metal includes in one source");
    std::vector<std::string> stack;
    EXPECT_EQ(errorOf([&] { loadMetalSourceWithIncludes(*archive_, "deep0.glsl", stack); }),
              "Metal includes nested more than 64 deep");
    EXPECT_EQ(stack.size(), 65u);
    EXPECT_EQ(errorFor("big.glsl"), "Expanded Metal shader source larger than 16 MiB");
    EXPECT_EQ(expand("deep37.glsl"), "end\n" + std::string(63, '\n')); // 64 files deep
    EXPECT_EQ(expand("bomb15.glsl").size(), 4094u);                      // 4094 includes

    // The line map is bounded too: a million empty lines expand, but are not mapped one by one.
    files({{"lines.glsl", std::string((1 << 20) + 1, '\n')}});
    EXPECT_EQ(expand("lines.glsl").size(), (1u << 20) + 1);
    EXPECT_EQ(errorOf([&] { expandShaderSource(*archive_, "lines.glsl"); }),
              "Expanded Metal shader source longer than 1048576 lines");
}

TEST_F(ShaderSourceTest, MissingFilesAndBadTextNameTheCanonicalPath) {
    files({{"shaders/main.glsl", "#include \"lib.glsl\"\n"},
           {"bad.glsl", "ok\n\xC3\x28\n"},
           {"uses-bad.glsl", "#include \"./bad.glsl\"\n"},
           {"nul.glsl", std::string("kept\n\0\xFF", 7)},
           {"bom.glsl", "\xEF\xBB\xBF#include \"nul.glsl\"\n"}});
    EXPECT_EQ(errorFor("shaders/main.glsl"), "Missing file in demo archive: shaders/lib.glsl");
    EXPECT_EQ(errorFor("./x\\..\\none.glsl"), "Missing file in demo archive: none.glsl");
    EXPECT_EQ(errorFor("uses-bad.glsl"), "Failed to decode Metal shader source: bad.glsl");
    EXPECT_EQ(expand("nul.glsl"), "kept\n");
    EXPECT_EQ(expand("bom.glsl"), "kept\n\n");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Line map
// ---------------------------------------------------------------------------------------------

std::vector<std::string> originsOf(const ExpandedShaderSource& source) {
    std::vector<std::string> out;
    for (const SourceOrigin& origin : source.origins) {
        out.push_back(origin.file + ":" + std::to_string(origin.line));
    }
    return out;
}

TEST_F(ShaderSourceTest, TheLineMapNamesTheFileAndLineOfEveryExpandedLine) {
    files({{"shaders/main.glsl", "\xEF\xBB\xBF" "first\r\n  #include \"lib/a.glsl\"\r\nmiddle\r\n"
                                 "#include \"lib/a.glsl\"\rlast"},
           {"shaders/lib/a.glsl", "a1\n#include \"b.glsl\"\na3\xE2\x80\xA8" "a4\n"},
           {"shaders/lib/b.glsl", ""}});
    const ExpandedShaderSource source = expandShaderSource(*archive_, "./shaders//main.glsl");
    EXPECT_EQ(source.text, expand("shaders/main.glsl"));
    EXPECT_EQ(source.text, "first\na1\n\na3\na4\n\nmiddle\na1\n\na3\na4\n\nlast\n");
    // The empty line after an included file's text belongs to the include line that made it.
    EXPECT_EQ(originsOf(source),
              (std::vector<std::string>{"shaders/main.glsl:1", "shaders/lib/a.glsl:1", "shaders/lib/a.glsl:2",
                                        "shaders/lib/a.glsl:3", "shaders/lib/a.glsl:4", "shaders/main.glsl:2",
                                        "shaders/main.glsl:3", "shaders/lib/a.glsl:1", "shaders/lib/a.glsl:2",
                                        "shaders/lib/a.glsl:3", "shaders/lib/a.glsl:4", "shaders/main.glsl:4",
                                        "shaders/main.glsl:5"}));
    EXPECT_EQ(source.files,
              (std::vector<std::string>{"shaders/main.glsl", "shaders/lib/a.glsl", "shaders/lib/b.glsl"}));

    // Expansion errors are loadMetalSourceWithIncludes' own.
    files({{"a.glsl", "#include \"missing.glsl\"\n"}});
    EXPECT_EQ(errorOf([&] { expandShaderSource(*archive_, "a.glsl"); }),
              "Missing file in demo archive: missing.glsl");
}

TEST_F(ShaderSourceTest, CompilerLocationsAreRewrittenToTheShowsFiles) {
    files({{"main.glsl", "one\n#include \"lib.glsl\"\nthree\n"}, {"lib.glsl", "l1\nl2\n"}});
    const ExpandedShaderSource source = expandShaderSource(*archive_, "main.glsl");
    ASSERT_EQ(source.origins.size(), 5u);
    EXPECT_EQ(mapShaderMessage("vertex stage: 0:3: 'x' : undeclared identifier; 0:5: 'y' : bad", source),
              "vertex stage: lib.glsl:2: 'x' : undeclared identifier; main.glsl:3: 'y' : bad");
    // Past the end is the end of the text; other numbers with colons stay as they are.
    EXPECT_EQ(mapShaderMessage("0:9: unexpected end of file", source), "main.glsl:3: unexpected end of file");
    EXPECT_EQ(mapShaderMessage("10:2: v0:1: 0:0: 0:x: 0:", source), "10:2: v0:1: 0:0: 0:x: 0:");
    EXPECT_EQ(mapShaderMessage("0:1: a", ExpandedShaderSource{}), "0:1: a");
}

TEST_F(ShaderSourceTest, ArchiveErrorsPassThrough) {
    const auto gzip = gzipDeterministic(toBytes("void main() {}\n"));
    testing::RawArchive raw(2, 1);
    raw.record2("m.glsl", 12 + 32 + 6, gzip.size(), 3, DemoArchive::kGzipFlag).raw(gzip);
    archive_ = testing::loadBytes(dir_, raw.bytes());
    EXPECT_EQ(errorFor("m.glsl"), "Failed to decompress demo archive entry");
}

} // namespace
} // namespace brisvale
