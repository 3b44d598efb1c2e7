#pragma once
// Command line of brisvale-capture:
//   brisvale-capture demo.dat [--size WxH] (--at T1,T2,... | --from A --to B [--fps N]) -o DIR
// --at writes DIR/t<T>.png per time (three decimals); --from/--to writes DIR/frame-00000.png,
// frame-00001.png, ... at 1/fps steps from A up to and including B.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brisvale::capture {

struct CaptureOptions {
    std::string archivePath;
    std::optional<std::uint32_t> width, height;  // default: the show's own default size
    std::vector<float> times;                    // --at
    std::optional<float> from, to;               // --from/--to
    std::optional<std::uint32_t> fps;            // default: the show's own default
    std::string outputDirectory;
    bool help = false;
};

// Throws std::runtime_error with a one-line message on bad arguments.
CaptureOptions parseCaptureOptions(const std::vector<std::string>& arguments);

// One frame to capture: when, with which delta, into which file name.
struct CaptureFrame {
    float timeSeconds;
    float deltaSeconds;
    std::string fileName;
};
// The frames of a parsed command line, with the fps the show defaults to.
std::vector<CaptureFrame> planFrames(const CaptureOptions& options, std::uint32_t defaultFps);

const char* captureUsage();

} // namespace brisvale::capture
