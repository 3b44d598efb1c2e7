#pragma once

// What the player's end-to-end tests run it in: a private Xvfb display (1920 x 1080), an optional
// window manager (openbox, for real full-screen changes, or our own that grants full screen at a
// size of its choosing), child processes with their output in files, and the X tools that look
// at the screen (xwininfo, xdotool, import).

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace brisvale::e2e {

// A child process, killed and reaped if still running when this goes.
class Child {
public:
    Child() = default;
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child();
    Child(Child&& other) noexcept : pid_(other.pid_), status_(other.status_) { other.pid_ = -1; }
    Child& operator=(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool running();
    // The exit status (128 + signal when killed), or nullopt when it did not end in time.
    std::optional<int> waitFor(std::chrono::milliseconds limit);
    void kill();

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Starts argv[0] with the current environment plus `env`, stdout and stderr to the given files.
Child spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
            const std::filesystem::path& stdoutPath, const std::filesystem::path& stderrPath);

// Runs a shell command line on the session's display; returns its standard output.
std::string shell(const std::string& command, int* status = nullptr);

std::string readFile(const std::filesystem::path& path);

// An RGB screenshot of the whole display.
struct Screenshot {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;
    struct Pixel {
        int r, g, b;
    };
    Pixel at(int x, int y) const;
};

// One window as xwininfo reports it.
struct WindowInfo {
    std::string title;
    bool viewable = false;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// Where our own window manager puts a window that asks for full screen, and how long it takes to
// answer; a width of 0 refuses full screen.
struct FullScreenGrant {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    std::chrono::milliseconds after{0};
};

class X11Session {
public:
    explicit X11Session(bool withWindowManager);  // openbox, or none
    explicit X11Session(FullScreenGrant grant);   // tests/app/e2e/FullScreenWindowManager.cpp
    ~X11Session();
    X11Session(const X11Session&) = delete;
    X11Session& operator=(const X11Session&) = delete;

    std::optional<WindowInfo> window(const std::string& title) const;
    // The first window whose title starts with `prefix` (titles that change as a show runs).
    std::optional<WindowInfo> windowTitled(const std::string& prefix) const;
    Screenshot screenshot() const;
    void key(const std::string& keysym) const;

private:
    void startDisplay();
    void startWindowManager(const std::vector<std::string>& argv);

    std::string display_;
    std::filesystem::path xvfbLog_;
    std::filesystem::path windowManagerLog_;
    Child xvfb_;
    Child windowManager_;
};

} // namespace brisvale::e2e
