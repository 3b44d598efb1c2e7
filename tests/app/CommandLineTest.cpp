// The player's command line as plain logic: no arguments, each option and its values, the forms
// of SHOW, and every command line that must be refused.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "support/TestSupport.h"

namespace brisvale {
namespace {

using Args = std::vector<std::string>;

// A file system in which only "shows/dir" and "shows/dir/" are directories.
bool fakeIsDirectory(const std::string& path) { return path == "shows/dir" || path == "shows/dir/"; }

PlayerOptions parse(const Args& args) { return parseCommandLine(args, fakeIsDirectory); }

// Every field in one line, so that a case shows what an option changed and what it left alone.
std::string fieldsOf(const PlayerOptions& o) {
    std::ostringstream text;
    text << "show " << static_cast<int>(o.showKind) << " '" << o.showPath << "' windowed " << o.windowed << " start "
         << o.startSeconds << " validation " << o.validation << " stats " << o.framePumpStats << " help " << o.help
         << " version " << o.version << " arguments " << o.withArguments;
    return text.str();
}

TEST(CommandLine, NoArgumentsIsThePlayerAsShippedAndEachOptionSetsItsFieldOnly) {
    EXPECT_EQ(fieldsOf(parse({})), "show 0 '' windowed 0 start 0 validation 0 stats 0 help 0 version 0 arguments 0");
    EXPECT_EQ(fieldsOf(parse({"--windowed"})),
              "show 0 '' windowed 1 start 0 validation 0 stats 0 help 0 version 0 arguments 1");
    EXPECT_EQ(fieldsOf(parse({"--start", "142"})),
              "show 0 '' windowed 0 start 142 validation 0 stats 0 help 0 version 0 arguments 1");
    EXPECT_EQ(fieldsOf(parse({"--validation"})),
              "show 0 '' windowed 0 start 0 validation 1 stats 0 help 0 version 0 arguments 1");
    EXPECT_EQ(fieldsOf(parse({"--frame-pump-stats"})),
              "show 0 '' windowed 0 start 0 validation 0 stats 1 help 0 version 0 arguments 1");
    // --timings, author mode's switch of its own.
    EXPECT_FALSE(parse({"shows/dir"}).timings);
    EXPECT_TRUE(parse({"--timings", "shows/dir"}).timings);
    EXPECT_EQ(fieldsOf(parse({"--timings", "shows/dir"})),
              "show 2 'shows/dir' windowed 1 start 0 validation 0 stats 0 help 0 version 0 arguments 1");
}

TEST(CommandLine, StartTakesItsValueInEitherFormAndTheLastOneCounts) {
    EXPECT_EQ(parse({"--start", "12.5"}).startSeconds, 12.5);
    EXPECT_EQ(parse({"--start=0.25"}).startSeconds, 0.25);
    EXPECT_EQ(parse({"--start", "1e2"}).startSeconds, 100.0);
    EXPECT_EQ(parse({"--start", "86400"}).startSeconds, 86400.0);
    EXPECT_EQ(parse({"--start", "5", "--start=7"}).startSeconds, 7.0);
    // A value that looks like an option is still the value.
    EXPECT_THROW(parse({"--start", "--windowed"}), CommandLineError);
}

TEST(CommandLine, HelpAndVersionEndTheParseWhereTheyStand) {
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_TRUE(parse({"--version"}).version);
    EXPECT_TRUE(parse({"demo.dat", "--help", "--no-such-option"}).help);
    EXPECT_THROW(parse({"--no-such-option", "--help"}), CommandLineError);
}

TEST(CommandLine, ShowFormsAndWhereEachStarts) {
    // A file: the path exactly as given, full screen unless told otherwise.
    PlayerOptions o = parse({"../my show.dat"});
    EXPECT_EQ(o.showKind, ShowKind::PackedFile);
    EXPECT_EQ(o.showPath, "../my show.dat");
    EXPECT_FALSE(o.windowed);
    EXPECT_TRUE(parse({"--windowed", "demo.dat"}).windowed);

    // A directory: author mode, in a window.
    o = parse({"shows/dir/", "--start", "3"});
    EXPECT_EQ(o.showKind, ShowKind::Directory);
    EXPECT_EQ(o.showPath, "shows/dir/");
    EXPECT_TRUE(o.windowed);
    EXPECT_EQ(o.startSeconds, 3.0);

    // After "--" even a name that starts with a dash is SHOW; "-" alone always is.
    EXPECT_EQ(parse({"--", "--windowed"}).showPath, "--windowed");
    EXPECT_FALSE(parse({"--", "--windowed"}).windowed);
    EXPECT_EQ(parse({"-"}).showPath, "-");

    // The real file system decides by default.
    const testing::TempDir temp;
    const std::filesystem::path dir = temp.path();
    std::ofstream(dir / "demo.dat") << "x";
    EXPECT_EQ(parseCommandLine({dir.string()}).showKind, ShowKind::Directory);
    EXPECT_EQ(parseCommandLine({(dir / "demo.dat").string()}).showKind, ShowKind::PackedFile);
    EXPECT_EQ(parseCommandLine({(dir / "missing.dat").string()}).showKind, ShowKind::PackedFile);
}

TEST(CommandLine, RefusedCommandLinesSayWhy) {
    struct Case {
        Args args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--start=5x"}, "--start wants seconds from 0 to 86400, not '5x'"},
        {{"--start"}, "--start needs a value (SECONDS)"},
        {{"--start", ""}, "--start wants seconds from 0 to 86400, not ''"},
        {{"--start", "-1"}, "--start wants seconds from 0 to 86400, not '-1'"},
        {{"--start", "86400.5"}, "--start wants seconds from 0 to 86400, not '86400.5'"},
        {{"--start", "nan"}, "--start wants seconds from 0 to 86400, not 'nan'"},
        {{"--start", "inf"}, "--start wants seconds from 0 to 86400, not 'inf'"},
        {{"--start", " 5"}, "--start wants seconds from 0 to 86400, not ' 5'"},
        {{"--windowed=yes"}, "--windowed takes no value"},
        {{"a.dat", "b.dat"}, "one show at a time: 'a.dat' and 'b.dat'"},
        {{""}, "SHOW is an empty path"},
    };
    for (const Case& c : cases) {
        try {
            parse(c.args);
            ADD_FAILURE() << "accepted: " << ::testing::PrintToString(c.args);
        } catch (const CommandLineError& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
    }
}

// The picture is rendered exactly without arguments; with any, at a scale picked frame by frame
// unless --scale fixes one.
TEST(CommandLine, ScaleIsExactWithoutArgumentsAutomaticWithAnyAndFixedWhenGiven) {
    EXPECT_FALSE(parse({}).renderScale.automatic);
    EXPECT_EQ(parse({}).renderScale.fixed, 1.0f);
    EXPECT_TRUE(parse({"demo.dat"}).renderScale.automatic);
    EXPECT_TRUE(parse({"--windowed"}).renderScale.automatic);
    EXPECT_TRUE(parse({"--scale", "0.5", "--scale=auto"}).renderScale.automatic);
    for (const float fixed : {0.25f, 0.5f, 0.8f, 1.0f}) {
        const RenderScale scale = parse({"--scale", std::to_string(fixed), "demo.dat"}).renderScale;
        EXPECT_FALSE(scale.automatic) << fixed;
        EXPECT_EQ(scale.fixed, fixed);
    }
    for (const char* refused : {"0.2", "1.01", "0", "-0.5", "nan", "inf", "Auto", "half", "0.5x", ""}) {
        try {
            parse({"--scale", refused});
            ADD_FAILURE() << "accepted: " << refused;
        } catch (const CommandLineError& e) {
            EXPECT_EQ(std::string(e.what()),
                      "--scale wants auto or a fraction from 0.25 to 1, not '" + std::string(refused) + "'");
        }
    }
}

// --help is the manual page's source: every option it describes is one the parser takes and the
// usage line names.
TEST(CommandLine, EveryOptionTheHelpDescribesIsTakenAndInTheUsageLine) {
    const std::string help = helpText();
    EXPECT_EQ(help.rfind("Usage: brisvale [OPTIONS] [SHOW]\n", 0), 0u);
    EXPECT_EQ(versionText().rfind("brisvale ", 0), 0u);
    std::istringstream lines(help.substr(help.find("\nOptions:\n") + 1));
    int described = 0;
    for (std::string line; std::getline(lines, line) && line != "";) {
        if (line.rfind("  --", 0) != 0) continue;
        std::istringstream words(line);
        std::string name, value;
        words >> name >> value;
        const bool takesValue = !value.empty() && std::isupper(static_cast<unsigned char>(value[0]));
        EXPECT_NE(usageLine().find("[" + name + (takesValue ? " " + value : "") + "]"), std::string::npos) << name;
        EXPECT_NO_THROW(parse(takesValue ? Args{name, "1"} : Args{name})) << name;
        ++described;
    }
    EXPECT_GE(described, 6);
}

} // namespace
} // namespace brisvale
