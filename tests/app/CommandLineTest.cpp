// The player's command line as plain logic: no arguments, each option and its values, the forms
// of SHOW, and every command line that must be refused.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/CommandLine.h"

namespace brisvale {
namespace {

using Args = std::vector<std::string>;

// A file system in which only "shows/dir" and "shows/dir/" are directories.
bool fakeIsDirectory(const std::string& path) { return path == "shows/dir" || path == "shows/dir/"; }

PlayerOptions parse(const Args& args) { return parseCommandLine(args, fakeIsDirectory); }

TEST(CommandLine, NoArgumentsIsThePlayerAsShipped) {
    const PlayerOptions o = parse({});
    EXPECT_EQ(o.showKind, ShowKind::Bundled);
    EXPECT_EQ(o.showPath, "");
    EXPECT_FALSE(o.windowed);
    EXPECT_EQ(o.startSeconds, 0.0);
    EXPECT_FALSE(o.validation);
    EXPECT_FALSE(o.framePumpStats);
    EXPECT_FALSE(o.help);
    EXPECT_FALSE(o.version);
    EXPECT_FALSE(o.withArguments);
}

TEST(CommandLine, EachOptionSetsItsOwnFieldOnly) {
    PlayerOptions o = parse({"--windowed"});
    EXPECT_TRUE(o.windowed);
    EXPECT_FALSE(o.validation);
    EXPECT_TRUE(o.withArguments);
    EXPECT_EQ(o.showKind, ShowKind::Bundled);

    o = parse({"--validation"});
    EXPECT_TRUE(o.validation);
    EXPECT_FALSE(o.windowed);
    EXPECT_FALSE(o.framePumpStats);

    o = parse({"--frame-pump-stats"});
    EXPECT_TRUE(o.framePumpStats);
    EXPECT_FALSE(o.validation);

    o = parse({"--start", "142"});
    EXPECT_EQ(o.startSeconds, 142.0);
    EXPECT_FALSE(o.windowed);  // a later start still goes full screen
}

TEST(CommandLine, StartTakesItsValueInEitherFormAndTheLastOneCounts) {
    EXPECT_EQ(parse({"--start", "12.5"}).startSeconds, 12.5);
    EXPECT_EQ(parse({"--start=0.25"}).startSeconds, 0.25);
    EXPECT_EQ(parse({"--start", "1e2"}).startSeconds, 100.0);
    EXPECT_EQ(parse({"--start", "0"}).startSeconds, 0.0);
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
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("brisvale-cli-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "demo.dat") << "x";
    EXPECT_EQ(parseCommandLine({dir.string()}).showKind, ShowKind::Directory);
    EXPECT_EQ(parseCommandLine({(dir / "demo.dat").string()}).showKind, ShowKind::PackedFile);
    EXPECT_EQ(parseCommandLine({(dir / "missing.dat").string()}).showKind, ShowKind::PackedFile);
    std::filesystem::remove_all(dir);
}

TEST(CommandLine, RefusedCommandLinesSayWhy) {
    struct Case {
        Args args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"-w"}, "unknown option '-w'"},
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
