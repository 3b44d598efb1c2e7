// brisvale-play FILE [--eq g0,...,g9] [--volume V]
// Prints the song's tags and duration, plays it through the audio library with a progress
// line, and takes keys when stdin is a terminal: space pauses and resumes, left and right seek
// 5 s, q quits. Exits 0 once the song has ended (or on q, or after --help), 1 on a file it
// cannot play, 2 on bad arguments. --help is also its manual page (help2man).
//
// [SECTION] Terminal
// [SECTION] Arguments
// [SECTION] Output
// [SECTION] Playing

#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "audio/audio.h"

namespace core = pelora::gamedev::core;

namespace {

constexpr int kBufferFrames = 6 * 2048;  // what the player still holds when it reports done

// ---------------------------------------------------------------------------------------------
// [SECTION] Terminal
// ---------------------------------------------------------------------------------------------
// Raw key input while playing; the saved settings come back on every way out.
termios g_savedTermios;
volatile std::sig_atomic_t g_rawActive = 0;
volatile std::sig_atomic_t g_quitSignal = 0;

void restoreTerminal() {
    if (g_rawActive) {
        tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTermios);
        g_rawActive = 0;
    }
}

void onSignal(int) { g_quitSignal = 1; }

class RawTerminal {
public:
    RawTerminal() {
        if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &g_savedTermios) != 0) {
            return;
        }
        termios raw = g_savedTermios;
        raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0) {
            g_rawActive = 1;
            std::atexit(restoreTerminal);
        }
    }
    ~RawTerminal() { restoreTerminal(); }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;
    bool active() const { return g_rawActive != 0; }
};

enum class Key { None, Space, Left, Right, Quit };

// Waits up to `ms` for a key.
Key readKey(int ms) {
    pollfd p{STDIN_FILENO, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) {
        return Key::None;
    }
    char buf[8] = {};
    const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
    if (n <= 0) {
        return Key::None;
    }
    if (buf[0] == ' ') {
        return Key::Space;
    }
    if (buf[0] == 'q' || buf[0] == 'Q') {
        return Key::Quit;
    }
    if (n >= 3 && buf[0] == '\x1b' && buf[1] == '[') {
        if (buf[2] == 'C') {
            return Key::Right;
        }
        if (buf[2] == 'D') {
            return Key::Left;
        }
    }
    return Key::None;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Arguments
// ---------------------------------------------------------------------------------------------

constexpr const char* kUsage = "usage: brisvale-play FILE [--eq g0,...,g9] [--volume V]\n";
constexpr const char* kHelp =
    "Usage: brisvale-play [--eq g0,...,g9] [--volume V] FILE\n"
    "Plays a music file through the audio library of the Brisvale player: prints the\n"
    "song's tags and length, then plays it to its end with a progress line. FILE may be\n"
    "any file FFmpeg decodes.\n"
    "\n"
    "Options:\n"
    "  --eq g0,...,g9    gains of the ten equaliser bands in dB, lowest band first\n"
    "                    (32, 64, 125, 250, 500 Hz, 1, 2, 4, 8, 16 kHz); each is held\n"
    "                    to -12 to 12 dB, and bands left out stay at 0\n"
    "  --volume V        output volume, from 0 to 1\n"
    "  -h, --help        print this help and exit\n"
    "\n"
    "Keys, when standard input is a terminal:\n"
    "  space             pause or resume\n"
    "  left, right       seek 5 seconds back or forward\n"
    "  q                 quit\n"
    "\n"
    "Exit status:\n"
    "  0                 the song ended, or q was pressed\n"
    "  1                 a file it cannot play, or no audio output\n"
    "  2                 a command line it does not understand\n";

struct Options {
    std::string file;
    std::optional<std::vector<float>> eq;
    std::optional<float> volume;
    bool help = false;
};

bool parseFloat(const std::string& text, float* out) {
    char* end = nullptr;
    errno = 0;
    const float v = std::strtof(text.c_str(), &end);
    if (text.empty() || end == nullptr || *end != '\0' || errno != 0 || !std::isfinite(v)) {
        return false;
    }
    *out = v;
    return true;
}

std::optional<Options> parseArguments(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            o.help = true;
            return o;
        }
        if (a == "--eq" || a == "--volume") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "brisvale-play: %s needs a value\n", a.c_str());
                return std::nullopt;
            }
            const std::string value = argv[++i];
            if (a == "--volume") {
                float v = 0;
                if (!parseFloat(value, &v)) {
                    std::fprintf(stderr, "brisvale-play: --volume wants a number from 0 to 1, not '%s'\n", value.c_str());
                    return std::nullopt;
                }
                o.volume = v;
            } else {
                std::vector<float> gains;
                size_t start = 0;
                while (start <= value.size()) {
                    const size_t comma = value.find(',', start);
                    const std::string part = value.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                    float g = 0;
                    if (!parseFloat(part, &g)) {
                        std::fprintf(stderr, "brisvale-play: --eq wants up to ten gains in dB, as g0,...,g9\n");
                        return std::nullopt;
                    }
                    gains.push_back(g);
                    if (comma == std::string::npos) {
                        break;
                    }
                    start = comma + 1;
                }
                if (gains.size() > 10) {
                    std::fprintf(stderr, "brisvale-play: --eq takes at most ten gains\n");
                    return std::nullopt;
                }
                o.eq = gains;
            }
        } else if (!a.empty() && a[0] == '-') {
            std::fprintf(stderr, "brisvale-play: unknown option '%s'\n", a.c_str());
            return std::nullopt;
        } else if (o.file.empty()) {
            o.file = a;
        } else {
            std::fprintf(stderr, "brisvale-play: one file at a time\n");
            return std::nullopt;
        }
    }
    if (o.file.empty()) {
        std::fputs(kUsage, stderr);
        return std::nullopt;
    }
    return o;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Output
// ---------------------------------------------------------------------------------------------

std::string clock(double seconds) {
    if (seconds < 0) {
        return "--:--.-";
    }
    const auto tenths = static_cast<long long>(seconds * 10.0 + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld.%lld", tenths / 600, (tenths / 10) % 60, tenths % 10);
    return text;
}

void printTags(const core::audio_song& song) {
    const auto line = [](const char* name, const std::string& value) {
        if (!value.empty()) {
            std::printf("%-8s %s\n", name, value.c_str());
        }
    };
    line("Title", song.title);
    line("Artist", song.artist);
    line("Album", song.album);
    line("Year", song.year);
    line("Genre", song.genre);
    if (!song.artwork.empty()) {
        std::printf("%-8s %zu bytes\n", "Cover", song.artwork.size());
    }
    std::printf("%-8s %s\n", "Format", (std::to_string(static_cast<int>(song.clientFormat.mSampleRate)) + " Hz, " +
                                        std::to_string(song.clientFormat.mChannelsPerFrame) + " channels").c_str());
    std::printf("%-8s %s\n", "Duration", song.duration_seconds > 0 ? clock(song.duration_seconds).c_str() : "unknown");
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Playing
// ---------------------------------------------------------------------------------------------

// The player's handle, destroyed before the song it plays.
struct PlayerHandle {
    core::audio_player* player = nullptr;
    ~PlayerHandle() { core::audio_player_destroy(player); }
};

struct SongHandle {
    core::audio_song song{};
    ~SongHandle() { core::audio_song_destroy(&song); }
};

} // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = parseArguments(argc, argv);
    if (!options) {
        return 2;
    }
    if (options->help) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    if (options->volume && (*options->volume < 0.0f || *options->volume > 1.0f)) {
        std::fprintf(stderr, "brisvale-play: --volume wants a number from 0 to 1\n");
        return 2;
    }

    // A FIFO or a device could block the read or never end.
    struct stat st {};
    if (::stat(options->file.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "brisvale-play: %s: not a regular file\n", options->file.c_str());
        return 1;
    }
    SongHandle song;
    if (core::audio_song_load(&song.song, options->file.c_str()) != 0) {
        std::fprintf(stderr, "brisvale-play: %s: not a playable audio file\n", options->file.c_str());
        return 1;
    }
    printTags(song.song);

    PlayerHandle handle;
    handle.player = core::audio_player_create(&song.song);
    if (handle.player == nullptr) {
        std::fprintf(stderr, "brisvale-play: no audio output available\n");
        return 1;
    }
    core::audio_player* player = handle.player;
    if (options->eq && core::audio_player_set_equalizer(player, options->eq->data(),
                                                        static_cast<unsigned>(options->eq->size())) != 0) {
        std::fprintf(stderr, "brisvale-play: the equaliser refused the gains\n");
        return 1;
    }
    if (options->volume && core::audio_player_set_volume(player, *options->volume) != 0) {
        std::fprintf(stderr, "brisvale-play: the output refused the volume\n");
        return 1;
    }

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    RawTerminal terminal;
    const bool tty = isatty(STDOUT_FILENO) != 0;
    if (terminal.active()) {
        std::printf("keys: space pause/resume, left/right seek 5 s, q quit\n");
    }
    if (core::audio_player_start(player) != 0) {
        std::fprintf(stderr, "brisvale-play: %s: playback could not start\n", options->file.c_str());
        return 1;
    }

    const double duration = core::audio_player_duration(player);
    const double rate = song.song.clientFormat.mSampleRate;
    double shown = 0.0;
    double lastLine = -1.0;
    bool paused = false;
    using Clock = std::chrono::steady_clock;
    bool playingOut = false;
    Clock::time_point playOutUntil{};
    Clock::time_point ranDryAt{};
    double ranDryShown = 0.0;
    for (;;) {
        const Key key = terminal.active() ? readKey(100) : Key::None;
        if (!terminal.active()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (key == Key::Quit || g_quitSignal) {
            break;
        }
        if (key == Key::Space) {
            paused = paused ? core::audio_player_resume(player) != 0 : core::audio_player_pause(player) == 0;
        } else if (key == Key::Left || key == Key::Right) {
            const double target = std::max(0.0, shown + (key == Key::Right ? 5.0 : -5.0));
            if (core::audio_player_seek(player, target) == 0 && !paused) {
                core::audio_player_resume(player);
            }
            playingOut = false;
        }
        const double t = core::audio_player_get_time(player);
        if (t >= 0) {
            shown = t;
        }
        if (core::audio_player_is_done(player) && !playingOut) {
            // The last buffers are still queued when the decoder runs dry.
            playingOut = true;
            ranDryAt = Clock::now();
            ranDryShown = shown;
            playOutUntil = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(kBufferFrames / rate + 0.2));
        }
        const bool finished = playingOut && Clock::now() >= playOutUntil;
        if (playingOut) {
            // The player's clock stops when the decoder runs dry; the queue plays on in real time.
            const double since = std::chrono::duration<double>(Clock::now() - ranDryAt).count();
            const double end = duration > 0 ? duration : ranDryShown + kBufferFrames / rate;
            shown = finished ? end : std::min(end, ranDryShown + since);
        }
        const std::string progress = clock(shown) + " / " + (duration > 0 ? clock(duration) : std::string("--:--.-")) +
                                     (paused ? "  (paused)" : "");
        if (tty) {
            std::printf("\r%s   ", progress.c_str());
            std::fflush(stdout);
        } else if (shown - lastLine >= 1.0 || (finished && lastLine < shown)) {
            std::printf("%s\n", progress.c_str());
            std::fflush(stdout);
            lastLine = shown;
        }
        if (finished) {
            break;
        }
    }
    if (tty) {
        std::printf("\n");
    }
    return 0;
}
