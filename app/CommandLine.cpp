#include "app/CommandLine.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>

#ifndef BRISVALE_VERSION
#define BRISVALE_VERSION "unknown"
#endif

namespace brisvale {
namespace {

constexpr std::string_view kProgram = "brisvale";

// Show times are 32-bit floats: past a day they step by several milliseconds.
constexpr double kLatestStartSeconds = 86400.0;

// A show time in seconds, from the show's beginning to a day into it.
double parseSeconds(const std::string& text, std::string_view option) {
    double value = 0.0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end || !(value >= 0.0 && value <= kLatestStartSeconds)) {
        throw CommandLineError(std::string(option) + " wants seconds from 0 to 86400, not '" + text + "'");
    }
    return value;
}

// --scale: "auto", or a fraction of the drawable from 0.25 to 1.
RenderScale parseScale(const std::string& text) {
    RenderScale scale;
    if (text == "auto") {
        scale.automatic = true;
        return scale;
    }
    float value = 0.0f;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end || !(value >= 0.25f && value <= 1.0f)) {
        throw CommandLineError("--scale wants auto or a fraction from 0.25 to 1, not '" + text + "'");
    }
    scale.fixed = value;
    return scale;
}

// One option: its name, the name of its value (empty for a switch), its --help text (further
// lines after '\n' are indented under the first) and what it sets.
struct OptionEntry {
    std::string_view name;
    std::string_view valueName;
    std::string_view help;
    void (*apply)(PlayerOptions& options, const std::string& value);
};

// Every option of the player, in the order --help lists them.
constexpr OptionEntry kOptions[] = {
    {"--windowed", "",
     "stay in a window: no full screen, and the show starts as soon as\n"
     "the window is shown (the default for a show directory)",
     [](PlayerOptions& o, const std::string&) { o.windowed = true; }},
    {"--start", "SECONDS",
     "begin at this show time: the show clock starts there and the music\n"
     "is sought to it",
     [](PlayerOptions& o, const std::string& v) { o.startSeconds = parseSeconds(v, "--start"); }},
    {"--validation", "",
     "check every Vulkan call with the Khronos validation layer and print\n"
     "its messages on standard error",
     [](PlayerOptions& o, const std::string&) { o.validation = true; }},
    {"--scale", "SCALE",
     "render the scene at SCALE times the window's size, 0.25 to 1, and\n"
     "stretch it to fill the window; auto (the default with any argument)\n"
     "picks it from the GPU's frame times to keep up with the display",
     [](PlayerOptions& o, const std::string& v) { o.renderScale = parseScale(v); }},
    {"--frame-pump-stats", "",
     "at exit, print the frame pump's counters: display ticks, frames\n"
     "queued and drawn, main-thread processor time per frame, frames per\n"
     "second, and the render scales of --scale auto",
     [](PlayerOptions& o, const std::string&) { o.framePumpStats = true; }},
    {"--timings", "",
     "author mode: after each move through the show's time, print how\n"
     "long it took from the key to the first frame drawn at the new time,\n"
     "and with each reload where its time went",
     [](PlayerOptions& o, const std::string&) { o.timings = true; }},
    {"--help", "", "print this help and exit", [](PlayerOptions& o, const std::string&) { o.help = true; }},
    {"--version", "", "print the version and exit", [](PlayerOptions& o, const std::string&) { o.version = true; }},
};

const OptionEntry* findOption(std::string_view name) {
    for (const OptionEntry& entry : kOptions) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

constexpr std::size_t kHelpColumn = 24;

std::string optionLines(const OptionEntry& entry) {
    std::string head = "  " + std::string(entry.name);
    if (!entry.valueName.empty()) head += " " + std::string(entry.valueName);
    // A name too long for its column gets a line of its own.
    head += head.size() + 2 <= kHelpColumn ? std::string(kHelpColumn - head.size(), ' ')
                                           : "\n" + std::string(kHelpColumn, ' ');
    std::string lines = head;
    for (const char c : entry.help) {
        lines += c;
        if (c == '\n') lines += std::string(kHelpColumn, ' ');
    }
    return lines + "\n";
}

} // namespace

bool isDirectoryOnDisk(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_directory(path, ec);
}

PlayerOptions parseCommandLine(const std::vector<std::string>& arguments,
                               const std::function<bool(const std::string&)>& isDirectory) {
    PlayerOptions options;
    options.withArguments = !arguments.empty();
    // Without an argument the picture is rendered exactly, as the show's rules fix it.
    options.renderScale.automatic = options.withArguments;
    std::optional<std::string> show;
    auto takeShow = [&](const std::string& argument) {
        if (argument.empty()) throw CommandLineError("SHOW is an empty path");
        if (show) throw CommandLineError("one show at a time: '" + *show + "' and '" + argument + "'");
        show = argument;
    };

    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--") {
            for (++i; i < arguments.size(); ++i) takeShow(arguments[i]);
            break;
        }
        if (argument.size() < 2 || argument[0] != '-') {
            takeShow(argument);
            continue;
        }
        // --name or --name=value
        const std::size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const OptionEntry* entry = findOption(name);
        if (entry == nullptr) throw CommandLineError("unknown option '" + name + "'");
        std::string value;
        if (entry->valueName.empty()) {
            if (equals != std::string::npos) throw CommandLineError(name + " takes no value");
        } else if (equals != std::string::npos) {
            value = argument.substr(equals + 1);
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            throw CommandLineError(name + " needs a value (" + std::string(entry->valueName) + ")");
        }
        entry->apply(options, value);
        if (options.help || options.version) return options;
    }

    if (show) {
        options.showPath = *show;
        options.showKind = isDirectory(*show) ? ShowKind::Directory : ShowKind::PackedFile;
        // An author watching a directory works beside the window, not behind it.
        if (options.showKind == ShowKind::Directory) options.windowed = true;
    }
    return options;
}

std::string usageLine() {
    std::string line = "Usage: " + std::string(kProgram);
    for (const OptionEntry& entry : kOptions) {
        line += " [" + std::string(entry.name);
        if (!entry.valueName.empty()) line += " " + std::string(entry.valueName);
        line += "]";
    }
    return line + " [SHOW]";
}

std::string helpText() {
    std::string text = "Usage: " + std::string(kProgram) + " [OPTIONS] [SHOW]\n";
    text +=
        "Plays a Brisvale show: one window, full screen, the show's music and its GPU-drawn\n"
        "scenes until 3.75 seconds after the music ends, then quits.\n"
        "\n"
        "Without SHOW, plays demo.dat from beside the player, or from ../share/brisvale/\n"
        "relative to the player's directory once installed. SHOW may be a show file packed\n"
        "by brisvale-pack, played the same way, or a show directory holding demo.ini, played\n"
        "from its own files in a window (author mode).\n"
        "\n"
        "Options:\n";
    for (const OptionEntry& entry : kOptions) text += optionLines(entry);
    text +=
        "\n"
        "Keys:\n"
        "  Escape, Ctrl+Q        quit\n"
        "  f, Ctrl+Return        toggle full screen\n"
        "\n"
        "Author mode (SHOW is a directory): each file saved is taken up while the show\n"
        "plays; an error names the file and line and stays over the picture until it is\n"
        "fixed; at its end the show holds its last frame instead of quitting.\n"
        "  Space                 pause or resume picture and music\n"
        "  Left, Right           5 seconds back or on (with Shift: 1 second)\n"
        "  comma, period         one frame back or on, while paused\n"
        "  Home                  back to the beginning\n"
        "  h                     show or hide the status line\n"
        "\n"
        "Exit status:\n"
        "  0                     the show ended, or it was quit\n"
        "  1                     the show could not be launched, or a frame failed; one line\n"
        "                        on standard error says why\n"
        "  2                     a command line the player does not understand\n"
        "\n"
        "Examples:\n"
        "  brisvale                        play the installed show\n"
        "  brisvale demo.dat --windowed    play a packed show in a window\n"
        "  brisvale --start 142 demo.dat   play a show from 142 seconds on\n"
        "  brisvale my-show/               play a show directory in author mode\n";
    return text;
}

std::string versionText() { return std::string(kProgram) + " " + BRISVALE_VERSION + "\n"; }

} // namespace brisvale
