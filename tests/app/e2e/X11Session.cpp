// A private X display (Xvfb) and the programs run on it for the end-to-end tests: child
// processes with their output, and the display with its windows and pixels.
//
// [SECTION] Child processes
// [SECTION] The display

#include "app/e2e/X11Session.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace brisvale::e2e {
namespace {

using namespace std::chrono_literals;

int decodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Child processes
// ---------------------------------------------------------------------------------------------

Child::~Child() { kill(); }

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        kill();
        pid_ = other.pid_;
        status_ = other.status_;
        other.pid_ = -1;
    }
    return *this;
}

bool Child::running() {
    if (pid_ < 0 || status_) return false;
    int status = 0;
    const pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        status_ = decodeStatus(status);
        return false;
    }
    return r == 0;
}

std::optional<int> Child::waitFor(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
    return status_;
}

void Child::kill() {
    if (pid_ < 0) return;
    if (running()) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        status_ = decodeStatus(status);
    }
    pid_ = -1;
}

Child spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
            const std::filesystem::path& stdoutPath, const std::filesystem::path& stderrPath) {
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        if (env.find(name) == env.end()) envStrings.push_back(entry);
    }
    for (const auto& [name, value] : env) envStrings.push_back(name + "=" + value);

    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("Cannot start " + argv[0]);
    return Child(pid);
}

std::string shell(const std::string& command, int* status) {
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen failed: " + command);
    std::string out;
    char buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    const int rc = ::pclose(pipe);
    if (status != nullptr) *status = decodeStatus(rc);
    return out;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Screenshot::Pixel Screenshot::at(int x, int y) const {
    const std::size_t i = (static_cast<std::size_t>(y) * width + x) * 3;
    return {rgb.at(i), rgb.at(i + 1), rgb.at(i + 2)};
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The display
// ---------------------------------------------------------------------------------------------

X11Session::X11Session(bool withWindowManager) {
    startDisplay();
    if (withWindowManager) startWindowManager({"openbox"});
}

X11Session::X11Session(FullScreenGrant grant) {
    startDisplay();
    const std::string geometry = grant.width == 0 ? "refuse"
                                                  : std::to_string(grant.width) + "x" + std::to_string(grant.height) +
                                                        "+" + std::to_string(grant.x) + "+" + std::to_string(grant.y);
    startWindowManager({BRISVALE_E2E_WINDOW_MANAGER, geometry, std::to_string(grant.after.count())});
}

void X11Session::startDisplay() {
    // Xvfb picks a free display itself and writes its number to the pipe.
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    const std::string tag = std::to_string(::getpid()) + "-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
    xvfbLog_ = std::filesystem::temp_directory_path() / ("brisvale-xvfb-" + tag + ".log");
    windowManagerLog_ = std::filesystem::temp_directory_path() / ("brisvale-wm-" + tag + ".log");
    // The write end must survive exec in the child only.
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    xvfb_ = spawn({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "1920x1080x24", "-nolisten", "tcp"},
                  {}, "/dev/null", xvfbLog_);
    ::close(fds[1]);
    std::string number;
    char c = 0;
    while (::read(fds[0], &c, 1) == 1 && c != '\n') number.push_back(c);
    ::close(fds[0]);
    if (number.empty()) throw std::runtime_error("Xvfb did not start: " + readFile(xvfbLog_));
    display_ = ":" + number;
    ::setenv("DISPLAY", display_.c_str(), 1);
}

void X11Session::startWindowManager(const std::vector<std::string>& argv) {
    // Ready once it has claimed the root window's supporting-WM property. On a loaded machine
    // it can take a while, and a window manager that lost a race with the new display exits:
    // it is started again.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    int starts = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!windowManager_.running() && starts < 3) {
            windowManager_ = spawn(argv, {}, "/dev/null", windowManagerLog_);
            ++starts;
        }
        if (shell("xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null").find("window id") != std::string::npos) return;
        std::this_thread::sleep_for(20ms);
    }
    throw std::runtime_error(argv[0] + " did not start: " + readFile(windowManagerLog_));
}

X11Session::~X11Session() {
    windowManager_.kill();
    xvfb_.kill();
    std::error_code ec;
    std::filesystem::remove(xvfbLog_, ec);
    std::filesystem::remove(windowManagerLog_, ec);
}

namespace {

std::optional<WindowInfo> parseWindowInfo(const std::string& out) {
    WindowInfo info;
    std::istringstream lines(out);
    std::string line;
    auto valueAfter = [&](const std::string& key) -> std::optional<int> {
        const auto at = line.find(key);
        if (at == std::string::npos) return std::nullopt;
        return std::atoi(line.c_str() + at + key.size());
    };
    while (std::getline(lines, line)) {
        if (line.find("xwininfo: Window id:") != std::string::npos) {
            const auto open = line.find('"');
            const auto close = line.rfind('"');
            if (open != std::string::npos && close > open) info.title = line.substr(open + 1, close - open - 1);
        }
        if (auto v = valueAfter("Absolute upper-left X:")) info.x = *v;
        if (auto v = valueAfter("Absolute upper-left Y:")) info.y = *v;
        if (auto v = valueAfter("Width:")) info.width = *v;
        if (auto v = valueAfter("Height:")) info.height = *v;
        if (line.find("Map State: IsViewable") != std::string::npos) info.viewable = true;
    }
    return info;
}

} // namespace

std::optional<WindowInfo> X11Session::window(const std::string& title) const {
    int status = 0;
    const std::string out = shell("xwininfo -name '" + title + "' 2>/dev/null", &status);
    if (status != 0) return std::nullopt;
    return parseWindowInfo(out);
}

std::optional<WindowInfo> X11Session::windowTitled(const std::string& prefix) const {
    int status = 0;
    const std::string ids = shell("xdotool search --name '^" + prefix + "' 2>/dev/null", &status);
    if (status != 0 || ids.empty()) return std::nullopt;
    const std::string id = ids.substr(0, ids.find('\n'));
    const std::string out = shell("xwininfo -id " + id + " 2>/dev/null", &status);
    if (status != 0) return std::nullopt;
    return parseWindowInfo(out);
}

Screenshot X11Session::screenshot() const {
    const std::string ppm = shell("import -window root -depth 8 ppm:- 2>/dev/null");
    std::istringstream in(ppm);
    std::string magic;
    int maxValue = 0;
    Screenshot shot;
    in >> magic >> shot.width >> shot.height >> maxValue;
    in.get();
    if (magic != "P6" || maxValue != 255) throw std::runtime_error("import gave no 8-bit PPM");
    shot.rgb.resize(static_cast<std::size_t>(shot.width) * shot.height * 3);
    in.read(reinterpret_cast<char*>(shot.rgb.data()), static_cast<std::streamsize>(shot.rgb.size()));
    return shot;
}

void X11Session::key(const std::string& keysym) const { shell("xdotool key --clearmodifiers " + keysym); }

} // namespace brisvale::e2e
