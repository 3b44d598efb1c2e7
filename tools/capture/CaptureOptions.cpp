#include "tools/capture/CaptureOptions.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace brisvale::capture {
namespace {

float parseTime(const std::string& text, const char* what) {
    std::size_t used = 0;
    float value = 0.0f;
    try {
        value = std::stof(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || !std::isfinite(value)) {
        throw CaptureOptionError(std::string("Invalid ") + what + ": " + text);
    }
    return value;
}

std::uint32_t parseCount(const std::string& text, const char* what, std::uint32_t largest) {
    std::size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || text[0] == '-' || value == 0 || value > largest) {
        throw CaptureOptionError(std::string("Invalid ") + what + ": " + text);
    }
    return static_cast<std::uint32_t>(value);
}

// A time for a file name: three decimals, or as many more as it takes to read back as the same
// float, so that distinct times never share a file.
std::string timeText(float t) {
    char text[64];
    for (int decimals = 3; decimals <= 12; ++decimals) {
        std::snprintf(text, sizeof text, "%.*f", decimals, static_cast<double>(t));
        if (std::strtof(text, nullptr) == t) return text;
    }
    std::snprintf(text, sizeof text, "%.9g", static_cast<double>(t));  // exact for any float
    return text;
}

} // namespace

const char* captureUsage() {
    return "Usage: brisvale-capture demo.dat [--size WxH] (--at T1,T2,... | --from A --to B [--fps N]) -o DIR";
}

std::string captureHelp() {
    return std::string(captureUsage()) +
           "\n"
           "Draws chosen show times of a show file offscreen, as the Brisvale player would draw\n"
           "them with its show clock standing at each time, and writes each frame as a PNG file.\n"
           "Needs no display: any Vulkan 1.3 device will do, the software one (lavapipe) too.\n"
           "\n"
           "Options:\n"
           "  --size WxH            frame size in pixels, 1 to 16384 a side; by default the\n"
           "                        show's own (demo.output.width and demo.output.height)\n"
           "  --at T1,T2,...        these show times in seconds, each to DIR/t<T>.png with T\n"
           "                        to three decimals (more where two names would be alike)\n"
           "  --from A --to B       every frame from A up to and including B, 1/fps apart,\n"
           "                        to DIR/frame-00000.png, frame-00001.png, ...\n"
           "  --fps N               frames per second for --from/--to, 1 to 16384; by default\n"
           "                        the show's own (demo.output.fps)\n"
           "  -o, --output DIR      the directory for the PNG files, made when missing; a\n"
           "                        file already there is replaced whole\n"
           "  -h, --help            print this help and exit\n"
           "\n"
           "Environment:\n"
           "  VK_INSTANCE_LAYERS=VK_LAYER_KHRONOS_validation\n"
           "                        check every Vulkan call; any validation message fails\n"
           "                        the capture\n"
           "\n"
           "Exit status:\n"
           "  0                     every frame was written\n"
           "  1                     a failure, named in one line on stderr\n"
           "  2                     a command line, or a show default standing in for an\n"
           "                        option, that cannot be captured\n";
}

CaptureOptions parseCaptureOptions(const std::vector<std::string>& arguments) {
    CaptureOptions options;
    auto value = [&](std::size_t& i) -> const std::string& {
        if (i + 1 >= arguments.size()) throw CaptureOptionError("Missing value after " + arguments[i]);
        return arguments[++i];
    };
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
        } else if (argument == "--size") {
            const std::string& size = value(i);
            const auto x = size.find('x');
            if (x == std::string::npos) throw CaptureOptionError("Invalid size: " + size);
            options.width = parseCount(size.substr(0, x), "size", kMaxSide);
            options.height = parseCount(size.substr(x + 1), "size", kMaxSide);
        } else if (argument == "--at") {
            const std::string& list = value(i);
            std::size_t start = 0;
            while (start <= list.size()) {
                const auto comma = list.find(',', start);
                const std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                options.times.push_back(parseTime(item, "time"));
                if (comma == std::string::npos) break;
                start = comma + 1;
            }
        } else if (argument == "--from") {
            options.from = parseTime(value(i), "time");
        } else if (argument == "--to") {
            options.to = parseTime(value(i), "time");
        } else if (argument == "--fps") {
            options.fps = parseCount(value(i), "fps", kMaxFps);
        } else if (argument == "-o" || argument == "--output") {
            options.outputDirectory = value(i);
        } else if (!argument.empty() && argument[0] == '-') {
            throw CaptureOptionError("Unknown option: " + argument);
        } else if (options.archivePath.empty()) {
            options.archivePath = argument;
        } else {
            throw CaptureOptionError("Unexpected argument: " + argument);
        }
    }
    if (options.help) return options;
    if (options.archivePath.empty()) throw CaptureOptionError("No demo archive given");
    if (options.outputDirectory.empty()) throw CaptureOptionError("No output directory given (-o DIR)");
    const bool range = options.from.has_value() || options.to.has_value();
    if (range && !options.times.empty()) throw CaptureOptionError("--at and --from/--to exclude each other");
    if (range && !(options.from && options.to)) throw CaptureOptionError("--from and --to go together");
    if (range && *options.to < *options.from) throw CaptureOptionError("--to is before --from");
    if (!range && options.times.empty()) throw CaptureOptionError("No times given (--at or --from/--to)");
    return options;
}

CaptureSize captureSize(const CaptureOptions& options, std::uint32_t defaultWidth, std::uint32_t defaultHeight) {
    if (options.width && options.height) return {*options.width, *options.height};
    if (defaultWidth == 0 || defaultWidth > kMaxSide || defaultHeight == 0 || defaultHeight > kMaxSide) {
        throw CaptureOptionError("The show's default size " + std::to_string(defaultWidth) + "x" +
                                 std::to_string(defaultHeight) + " is out of range (1 to " +
                                 std::to_string(kMaxSide) + " per side); give --size");
    }
    return {defaultWidth, defaultHeight};
}

FramePlan::FramePlan(const CaptureOptions& options, std::uint32_t defaultFps) {
    if (!options.fps && (defaultFps == 0 || defaultFps > kMaxFps)) {
        throw CaptureOptionError("The show's default frame rate " + std::to_string(defaultFps) +
                                 " is out of range (1 to " + std::to_string(kMaxFps) + "); give --fps");
    }
    const std::uint32_t fps = options.fps.value_or(defaultFps);
    step_ = 1.0 / fps;
    if (!options.times.empty()) {
        times_ = options.times;
        std::set<std::string> seen;
        for (const float t : times_) {
            const std::string text = timeText(t);
            if (!seen.insert(text).second) throw CaptureOptionError("--at gives the time " + text + " twice");
            names_.push_back("t" + text + ".png");
        }
        count_ = times_.size();
        return;
    }
    // Show times are floats: past some size, consecutive frames would get the same time.
    const float largest = std::max(std::fabs(*options.from), std::fabs(*options.to));
    const double spacing = static_cast<double>(std::nextafter(largest, INFINITY)) - static_cast<double>(largest);
    if (*options.to > *options.from && spacing > step_) {
        char text[160];
        std::snprintf(text, sizeof text, "Show times near %g s are %g s apart, more than a frame at %u fps",
                      static_cast<double>(largest), spacing, fps);
        throw CaptureOptionError(text);
    }
    from_ = *options.from;
    const double span = static_cast<double>(*options.to) - from_;
    count_ = static_cast<std::uint64_t>(std::floor(span * fps + 1e-6)) + 1;
}

CaptureFrame FramePlan::frame(std::uint64_t index) const {
    if (!times_.empty()) {
        const float t = times_[index];
        const float delta = index == 0 ? static_cast<float>(step_) : t - times_[index - 1];
        return {t, delta, names_[index]};
    }
    char name[64];
    std::snprintf(name, sizeof(name), "frame-%05llu.png", static_cast<unsigned long long>(index));
    return {static_cast<float>(from_ + static_cast<double>(index) * step_), static_cast<float>(step_), name};
}

} // namespace brisvale::capture
