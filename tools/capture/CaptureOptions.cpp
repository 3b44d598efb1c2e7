// brisvale-capture's command line (CaptureOptions.h): options read into CaptureOptions, the
// help text, and what a parsed command line asks for: the capture's size and the frames
// to draw, with their show times and file names.
//
// [SECTION] Numbers and times
// [SECTION] Usage
// [SECTION] Parsing
// [SECTION] Sizes and frames

#include "tools/capture/CaptureOptions.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

namespace brisvale::capture {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Numbers and times
// ---------------------------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------------------------
// [SECTION] Usage
// ---------------------------------------------------------------------------------------------

const char* captureUsage() {
    return "Usage: brisvale-capture SHOW [--size WxH] (--at T1,T2,... | --from A --to B [--fps N]) -o DIR\n"
           "  or:  brisvale-capture SHOW --video OUT.mp4|OUT.webm|OUT.mkv [--size WxH] [--fps N] [--from A]\n"
           "                        [--to B] [--quality Q] [--codec NAME]";
}

std::string captureHelp() {
    return std::string(captureUsage()) +
           "\n"
           "Draws chosen show times of a show (a show file or a show directory) offscreen, as the\n"
           "Brisvale player would draw them with its show clock standing at each time, and writes\n"
           "each frame as a PNG file; or renders a span of the show with its music to a video file.\n"
           "Needs no display: any Vulkan 1.3 device will do, the software one (lavapipe) too.\n"
           "\n"
           "Options:\n"
           "  --size WxH            frame size in pixels, 1 to 16384 a side; by default the\n"
           "                        show's own (demo.output.width and demo.output.height)\n"
           "  --at T1,T2,...        these show times in seconds, each to DIR/t<T>.png with T\n"
           "                        to three decimals (more where two names would be alike)\n"
           "  --from A --to B       every frame from A up to and including B, 1/fps apart,\n"
           "                        to DIR/frame-00000.png, frame-00001.png, ...; with --video,\n"
           "                        the span to render (by default the whole show: from 0 to\n"
           "                        3.75 s after the music ends)\n"
           "  --fps N               frames per second, 1 to 16384; by default the show's own\n"
           "                        (demo.output.fps)\n"
           "  -o, --output DIR      the directory for the PNG files, made when missing; a\n"
           "                        file already there is replaced whole\n"
           "  --video OUT           render to a video file with the music: .mp4 (H.264 and\n"
           "                        AAC), .webm (VP9 and Opus) or .mkv (H.264 and Opus);\n"
           "                        written whole under a temporary name, then renamed\n"
           "  --quality Q           the video encoder's constant quality (x264's CRF, 20 by\n"
           "                        default; lower is better)\n"
           "  --codec NAME          another video encoder FFmpeg has (libsvtav1, h264_nvenc...)\n"
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
           "                        option, that cannot be captured\n"
           "  130                   interrupted (Ctrl+C) during a video: the file holds the\n"
           "                        frames made so far\n";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Parsing
// ---------------------------------------------------------------------------------------------

VideoContainer videoContainerFor(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    std::string lower;
    for (const char c : extension) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == ".mp4") return VideoContainer::Mp4;
    if (lower == ".webm") return VideoContainer::WebM;
    if (lower == ".mkv") return VideoContainer::Matroska;
    throw CaptureOptionError("Unknown video file type: " + path + " (use .mp4, .webm or .mkv)");
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
        } else if (argument == "--video") {
            options.videoPath = value(i);
        } else if (argument == "--quality") {
            const std::string& text = value(i);
            std::size_t used = 0;
            try {
                options.quality = std::stoi(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used != text.size() || text.empty()) throw CaptureOptionError("Invalid quality: " + text);
        } else if (argument == "--codec") {
            options.codec = value(i);
            if (options.codec.empty()) throw CaptureOptionError("Invalid codec: (empty)");
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
    if (!options.videoPath.empty()) {
        if (!options.outputDirectory.empty()) throw CaptureOptionError("--video and -o exclude each other");
        if (!options.times.empty()) throw CaptureOptionError("--video and --at exclude each other");
        videoContainerFor(options.videoPath);
        if (options.from && options.to && !(*options.from < *options.to)) {
            throw CaptureOptionError("--from is not before --to");
        }
        return options;
    }
    if (options.quality || !options.codec.empty()) throw CaptureOptionError("--quality and --codec go with --video");
    if (options.outputDirectory.empty()) throw CaptureOptionError("No output directory given (-o DIR)");
    const bool range = options.from.has_value() || options.to.has_value();
    if (range && !options.times.empty()) throw CaptureOptionError("--at and --from/--to exclude each other");
    if (range && !(options.from && options.to)) throw CaptureOptionError("--from and --to go together");
    if (range && *options.to < *options.from) throw CaptureOptionError("--to is before --from");
    if (!range && options.times.empty()) throw CaptureOptionError("No times given (--at or --from/--to)");
    return options;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Sizes and frames
// ---------------------------------------------------------------------------------------------

CaptureSize captureSize(const CaptureOptions& options, std::uint32_t defaultWidth, std::uint32_t defaultHeight) {
    if (options.width && options.height) return {*options.width, *options.height};
    if (defaultWidth == 0 || defaultWidth > kMaxSide || defaultHeight == 0 || defaultHeight > kMaxSide) {
        throw CaptureOptionError("The show's default size " + std::to_string(defaultWidth) + "x" +
                                 std::to_string(defaultHeight) + " is out of range (1 to " +
                                 std::to_string(kMaxSide) + " per side); give --size");
    }
    return {defaultWidth, defaultHeight};
}

FramePlan::FramePlan(const CaptureOptions& options, std::uint32_t defaultFps, float showEndSeconds) {
    if (!options.fps && (defaultFps == 0 || defaultFps > kMaxFps)) {
        throw CaptureOptionError("The show's default frame rate " + std::to_string(defaultFps) +
                                 " is out of range (1 to " + std::to_string(kMaxFps) + "); give --fps");
    }
    const std::uint32_t fps = options.fps.value_or(defaultFps);
    fps_ = fps;
    step_ = 1.0 / fps;
    video_ = !options.videoPath.empty();
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
    const float from = options.from.value_or(0.0f);
    if (video_ && !options.to && !(showEndSeconds > 0.0f)) {
        throw CaptureOptionError("The show has no music and so no end; give --to");
    }
    const float to = options.to.value_or(showEndSeconds);
    if (video_ && !(from < to)) {
        char text[160];
        std::snprintf(text, sizeof text, "--from %g is not before the show's end at %g s", static_cast<double>(from),
                      static_cast<double>(to));
        throw CaptureOptionError(text);
    }
    // Show times are floats: past some size, consecutive frames would get the same time.
    const float largest = std::max(std::fabs(from), std::fabs(to));
    const double spacing = static_cast<double>(std::nextafter(largest, INFINITY)) - static_cast<double>(largest);
    if (to > from && spacing > step_) {
        char text[160];
        std::snprintf(text, sizeof text, "Show times near %g s are %g s apart, more than a frame at %u fps",
                      static_cast<double>(largest), spacing, fps);
        throw CaptureOptionError(text);
    }
    from_ = from;
    const double frames = (static_cast<double>(to) - from_) * fps;
    // A sequence ends with the frame at `to`, a video with the last frame that starts before it.
    // The margin absorbs the rounding of times given in decimals (29.9 is 29.8999996 as a float).
    count_ = video_ ? std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::ceil(frames - 1e-3)))
                    : static_cast<std::uint64_t>(std::floor(frames + 1e-3)) + 1;
}

CaptureFrame FramePlan::frame(std::uint64_t index) const {
    if (!times_.empty()) {
        const float t = times_[index];
        const float delta = index == 0 ? static_cast<float>(step_) : t - times_[index - 1];
        return {t, delta, names_[index]};
    }
    const float t = static_cast<float>(from_ + static_cast<double>(index) * step_);
    if (video_) return {t, static_cast<float>(step_), ""};
    char name[64];
    std::snprintf(name, sizeof(name), "frame-%05llu.png", static_cast<unsigned long long>(index));
    return {t, static_cast<float>(step_), name};
}

} // namespace brisvale::capture
