#pragma once
// Command line of brisvale-capture:
//   brisvale-capture demo.dat [--size WxH] (--at T1,T2,... | --from A --to B [--fps N]) -o DIR
//   brisvale-capture demo.dat --video OUT [--size WxH] [--fps N] [--from A] [--to B]
//                    [--quality Q] [--codec NAME]
// --at writes DIR/t<T>.png per time (three decimals, more where needed to keep names apart);
// --from/--to writes DIR/frame-00000.png, frame-00001.png, ... at 1/fps steps from A up to and
// including B. --video writes one video file of the frames at 1/fps steps from A (default 0)
// up to but not including B (default the show's end), with the music over the same span.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace brisvale::capture {

// A command line, or a show default standing in for an option, that cannot be captured.
struct CaptureOptionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The largest side and frame rate, for --size and --fps and for the show's defaults alike.
constexpr std::uint32_t kMaxSide = 16384;
constexpr std::uint32_t kMaxFps = 16384;

struct CaptureOptions {
    std::string archivePath;
    std::optional<std::uint32_t> width, height;  // default: the show's own default size
    std::vector<float> times;                    // --at
    std::optional<float> from, to;               // --from/--to
    std::optional<std::uint32_t> fps;            // default: the show's own default
    std::string outputDirectory;
    std::string videoPath;           // --video: a video file instead of PNG files
    std::optional<int> quality;      // --quality: the encoder's constant-quality value
    std::string codec;               // --codec: a video encoder by FFmpeg's name
    bool help = false;
};

// The video file types --video writes, by the output's extension.
enum class VideoContainer { Mp4, WebM, Matroska };
VideoContainer videoContainerFor(const std::string& path);  // throws CaptureOptionError

// Throws CaptureOptionError with a one-line message on bad arguments.
CaptureOptions parseCaptureOptions(const std::vector<std::string>& arguments);

struct CaptureSize {
    std::uint32_t width;
    std::uint32_t height;
};
// --size, else the show's default size, which must lie in the range --size accepts.
CaptureSize captureSize(const CaptureOptions& options, std::uint32_t defaultWidth,
                        std::uint32_t defaultHeight);

// One frame to capture: when, with which delta, into which file name.
struct CaptureFrame {
    float timeSeconds;
    float deltaSeconds;
    std::string fileName;
};

// The frames of a parsed command line, made one at a time as they are asked for. Refuses
// (CaptureOptionError) a show default fps out of range, --at times that would share a file,
// and a range whose show times (32-bit floats) are too coarse to tell its frames apart.
// A video's range ends at `showEndSeconds` unless --to is given (0: the show has no end).
class FramePlan {
public:
    FramePlan(const CaptureOptions& options, std::uint32_t defaultFps, float showEndSeconds = 0.0f);
    std::uint64_t size() const { return count_; }
    CaptureFrame frame(std::uint64_t index) const;
    std::uint32_t fps() const { return fps_; }
    double fromSeconds() const { return from_; }  // the first frame's show time (ranges and video)

private:
    std::vector<float> times_;       // --at
    std::vector<std::string> names_; // --at
    double from_ = 0.0;              // --from/--to, --video
    double step_ = 0.0;
    std::uint32_t fps_ = 0;
    bool video_ = false;
    std::uint64_t count_ = 0;
};

const char* captureUsage();
// --help: the usage line, what the tool does, every option; also its manual page (help2man).
std::string captureHelp();

} // namespace brisvale::capture
