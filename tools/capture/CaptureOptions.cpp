#include "tools/capture/CaptureOptions.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

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
        throw std::runtime_error(std::string("Invalid ") + what + ": " + text);
    }
    return value;
}

std::uint32_t parseCount(const std::string& text, const char* what) {
    std::size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || text[0] == '-' || value == 0 || value > 16384) {
        throw std::runtime_error(std::string("Invalid ") + what + ": " + text);
    }
    return static_cast<std::uint32_t>(value);
}

} // namespace

const char* captureUsage() {
    return "usage: brisvale-capture demo.dat [--size WxH] (--at T1,T2,... | --from A --to B [--fps N]) -o DIR";
}

CaptureOptions parseCaptureOptions(const std::vector<std::string>& arguments) {
    CaptureOptions options;
    auto value = [&](std::size_t& i) -> const std::string& {
        if (i + 1 >= arguments.size()) throw std::runtime_error("Missing value after " + arguments[i]);
        return arguments[++i];
    };
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
        } else if (argument == "--size") {
            const std::string& size = value(i);
            const auto x = size.find('x');
            if (x == std::string::npos) throw std::runtime_error("Invalid size: " + size);
            options.width = parseCount(size.substr(0, x), "size");
            options.height = parseCount(size.substr(x + 1), "size");
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
            options.fps = parseCount(value(i), "fps");
        } else if (argument == "-o" || argument == "--output") {
            options.outputDirectory = value(i);
        } else if (!argument.empty() && argument[0] == '-') {
            throw std::runtime_error("Unknown option: " + argument);
        } else if (options.archivePath.empty()) {
            options.archivePath = argument;
        } else {
            throw std::runtime_error("Unexpected argument: " + argument);
        }
    }
    if (options.help) return options;
    if (options.archivePath.empty()) throw std::runtime_error("No demo archive given");
    if (options.outputDirectory.empty()) throw std::runtime_error("No output directory given (-o DIR)");
    const bool range = options.from.has_value() || options.to.has_value();
    if (range && !options.times.empty()) throw std::runtime_error("--at and --from/--to exclude each other");
    if (range && !(options.from && options.to)) throw std::runtime_error("--from and --to go together");
    if (range && *options.to < *options.from) throw std::runtime_error("--to is before --from");
    if (!range && options.times.empty()) throw std::runtime_error("No times given (--at or --from/--to)");
    return options;
}

std::vector<CaptureFrame> planFrames(const CaptureOptions& options, std::uint32_t defaultFps) {
    std::vector<CaptureFrame> frames;
    const std::uint32_t fps = options.fps.value_or(defaultFps == 0 ? 60 : defaultFps);
    if (!options.times.empty()) {
        for (std::size_t i = 0; i < options.times.size(); ++i) {
            const float t = options.times[i];
            const float delta = i == 0 ? 1.0f / static_cast<float>(fps) : t - options.times[i - 1];
            char name[64];
            std::snprintf(name, sizeof(name), "t%.3f.png", static_cast<double>(t));
            frames.push_back({t, delta, name});
        }
        return frames;
    }
    const double step = 1.0 / fps;
    const double span = static_cast<double>(*options.to) - static_cast<double>(*options.from);
    const std::uint64_t count = static_cast<std::uint64_t>(std::floor(span * fps + 1e-6)) + 1;
    for (std::uint64_t i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof(name), "frame-%05llu.png", static_cast<unsigned long long>(i));
        frames.push_back({static_cast<float>(*options.from + static_cast<double>(i) * step), static_cast<float>(step), name});
    }
    return frames;
}

} // namespace brisvale::capture
