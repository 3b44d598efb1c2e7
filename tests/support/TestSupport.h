#pragma once

// Helpers every test folder uses: bytes from text, the message an error carries, a
// temporary directory that cleans up after itself, and the other end of a FIFO.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace brisvale::testing {

inline std::vector<std::uint8_t> toBytes(std::string_view text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// The message of the std::runtime_error that `f` throws, or "<no error>".
template <class F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

// A fresh directory under the system's temporary directory, removed with its content.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "brisvale-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }
    std::string file(std::string_view name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// While it lives, opens the FIFO at `path` from both ends again and again, never blocking: code
// that wrongly waits in open() for the FIFO's other end gets one, so a test of it fails instead
// of hanging.
class FifoPeer {
public:
    explicit FifoPeer(std::string path) : path_(std::move(path)), thread_([this] { run(); }) {}
    FifoPeer(const FifoPeer&) = delete;
    FifoPeer& operator=(const FifoPeer&) = delete;
    ~FifoPeer() {
        stop_ = true;
        thread_.join();
    }

private:
    void run() {
        while (!stop_) {
            for (const int mode : {O_WRONLY, O_RDONLY}) {
                const int fd = ::open(path_.c_str(), mode | O_NONBLOCK | O_CLOEXEC);
                if (fd >= 0) ::close(fd);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::string path_;
    std::atomic<bool> stop_{false};  // set by the destructor, read by the thread
    std::thread thread_;
};

} // namespace brisvale::testing
