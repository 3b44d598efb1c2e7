#pragma once

// The player's command line, `brisvale [OPTIONS] [SHOW]`, read before SDL starts. Plain logic:
// the only question it asks of the system is whether SHOW names a directory.
//
// With no argument at all the player is the one a show's audience runs: demo.dat from its
// bundle, full screen, and nothing read from the environment or the user's files. Everything
// here exists for the show's author. Each option is one entry of the table in CommandLine.cpp,
// which also writes the usage line and --help from it.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace brisvale {

// A command line the player does not understand; the message is one line without the
// program's name. The player prints it with the usage line and exits 2.
struct CommandLineError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Where the show comes from.
enum class ShowKind {
    Bundled,     // no SHOW: demo.dat in the player's bundle
    PackedFile,  // SHOW is a file (anything that is not a directory): played as if in the bundle
    Directory,   // SHOW is a directory: author mode, from the show's own files
};

// The size the scene is rendered at, against the drawable's (--scale).
struct RenderScale {
    bool automatic = false;  // chosen frame by frame from the GPU's frame times
    float fixed = 1.0f;      // otherwise this fraction of the drawable, 0.25 to 1 (1: exact)
};

struct PlayerOptions {
    bool help = false;     // --help: print the help and exit 0
    bool version = false;  // --version: print the version and exit 0

    ShowKind showKind = ShowKind::Bundled;
    std::string showPath;  // SHOW exactly as given; empty when Bundled

    bool windowed = false;        // --windowed, and the default for a directory SHOW
    double startSeconds = 0.0;    // --start: the show clock's time at the show's start
    bool validation = false;      // --validation: the Vulkan validation layer and our messenger
    bool framePumpStats = false;  // --frame-pump-stats: the counters line at exit
    // --scale; automatic whenever the player has any argument, exact without one.
    RenderScale renderScale;
    bool timings = false;         // --timings: author mode reports how long each move took

    // True when the player was given any argument: author's-tool features may apply.
    bool withArguments = false;
};

// Whether the path names a directory (following links), as the file system says.
bool isDirectoryOnDisk(const std::string& path);

// Throws CommandLineError for an unknown option, a missing or invalid value, an empty SHOW or a
// second one. --help and --version end the parse where they stand.
PlayerOptions parseCommandLine(const std::vector<std::string>& arguments,
                               const std::function<bool(const std::string&)>& isDirectory = isDirectoryOnDisk);

// "Usage: brisvale [OPTIONS] [SHOW]" and the options, on one line, without a newline.
std::string usageLine();
// The whole --help text, good enough to be the manual page (help2man reads it).
std::string helpText();
// "brisvale <version>" and a newline.
std::string versionText();

} // namespace brisvale
