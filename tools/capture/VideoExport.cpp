// The video export's two threads: the capture loop draws, checks each finished frame for pool
// growth (drawing it again when the pool grew after it was drawn, as the PNG capture does) and
// hands it over; the encoder thread converts it out of its readback buffer, frees the buffer,
// encodes it and adds the music up to the frame's end.
//
// [SECTION] Hand-over between the threads
// [SECTION] Encoder thread
// [SECTION] Progress line
// [SECTION] Capture loop
// [SECTION] Ctrl+C

#include "tools/capture/VideoExport.h"

#include <pthread.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace brisvale::capture {
namespace {

constexpr std::size_t kReadbackBuffers = 2;  // the surface's

struct DrawnFrame {
    std::uint64_t index = 0;       // in the plan
    std::uint64_t number = 0;      // the surface's presented count for it
    std::uint64_t generation = 0;  // pool growths run before it was drawn
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Hand-over between the threads
// ---------------------------------------------------------------------------------------------

// Frames from the capture loop to the encoder thread. A frame handed over holds its readback
// buffer until the encoder has converted it; the loop draws only into a free buffer.
class FrameHandover {
public:
    // Capture loop: waits until a buffer is free beside the `drawn` frames it holds itself.
    void waitForBuffer(std::size_t drawn) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return error_ || held_ + drawn < kReadbackBuffers; });
        if (error_) std::rethrow_exception(error_);
    }
    void push(const DrawnFrame& frame) {
        {
            std::lock_guard lock(mutex_);
            if (error_) std::rethrow_exception(error_);
            frames_[(head_ + count_) % frames_.size()] = frame;
            ++count_;
            ++held_;
        }
        changed_.notify_all();
    }
    // No more frames: the encoder ends after those handed over. `drop`: at once.
    void close(bool drop) {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
            if (drop) count_ = 0;
        }
        changed_.notify_all();
    }
    void rethrowIfFailed() {
        std::lock_guard lock(mutex_);
        if (error_) std::rethrow_exception(error_);
    }

    // Encoder thread: the next frame; none once closed and empty.
    std::optional<DrawnFrame> pop() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ > 0 || closed_; });
        if (count_ == 0) return std::nullopt;
        const DrawnFrame frame = frames_[head_];
        head_ = (head_ + 1) % frames_.size();
        --count_;
        return frame;
    }
    void bufferFreed() {
        {
            std::lock_guard lock(mutex_);
            --held_;
        }
        changed_.notify_all();
    }
    void frameEncoded() { encoded_.fetch_add(1); }
    void fail(std::exception_ptr error) {
        {
            std::lock_guard lock(mutex_);
            error_ = error;
            count_ = 0;
        }
        changed_.notify_all();
    }
    std::uint64_t encoded() const { return encoded_.load(); }

private:
    // mutex_ guards everything but encoded_: the capture loop pushes and waits for buffers, the
    // encoder thread pops, frees buffers and reports its failure.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::array<DrawnFrame, kReadbackBuffers> frames_{};
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    std::size_t held_ = 0;  // handed over, buffer not yet freed
    bool closed_ = false;
    std::exception_ptr error_;
    std::atomic<std::uint64_t> encoded_{0};  // read by the progress line
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Encoder thread
// ---------------------------------------------------------------------------------------------

// Music frames from the start of the span to the end of frame `frames`, at `rate`: the nearest
// whole frame, so the music never drifts from the picture.
std::int64_t musicFramesThrough(std::uint64_t frames, int rate, std::uint32_t fps) {
    const auto twice = static_cast<std::int64_t>(frames) * rate * 2;
    return (twice + fps) / (2 * static_cast<std::int64_t>(fps));
}

void encodeFrames(const VideoExport& job, FrameHandover& handover) {
    try {
        std::vector<std::int16_t> music;
        std::int64_t musicWritten = 0;
        if (job.music != nullptr) {
            music.resize(std::size_t{VideoFile::kMaxMusicFrames} * static_cast<std::size_t>(job.music->channels()));
            job.music->startAt(job.frames.fromSeconds());
        }
        while (const std::optional<DrawnFrame> frame = handover.pop()) {
            {
                // The buffer is freed however this ends, so the capture loop never waits for it in vain.
                struct Freed {
                    const VideoExport& job;
                    FrameHandover& handover;
                    std::uint64_t number;
                    ~Freed() {
                        job.surface.releaseFrame(number);
                        handover.bufferFreed();
                    }
                } freed{job, handover, frame->number};
                const gpu::FramePixels pixels = job.surface.waitForFrame(frame->number);
                job.file.setPicture(pixels.bgra, pixels.width, pixels.height, pixels.rowBytes);
            }
            job.file.writePicture();
            if (job.music != nullptr) {
                const std::int64_t end = musicFramesThrough(frame->index + 1, job.music->rate(), job.frames.fps());
                while (musicWritten < end) {
                    const auto n = static_cast<std::uint32_t>(
                        std::min<std::int64_t>(VideoFile::kMaxMusicFrames, end - musicWritten));
                    job.music->read(music.data(), n);
                    job.file.writeMusic(music.data(), n);
                    musicWritten += n;
                }
            }
            handover.frameEncoded();
        }
    } catch (...) {
        handover.fail(std::current_exception());
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Progress line
// ---------------------------------------------------------------------------------------------

class Progress {
public:
    explicit Progress(std::uint64_t total) : total_(total), start_(Clock::now()), last_(start_) {}

    // At most a few times a second; `force` for the last one.
    void show(std::uint64_t done, bool force) {
        const Clock::time_point now = Clock::now();
        if (!force && now - last_ < std::chrono::milliseconds(250)) return;
        last_ = now;
        const double elapsed = std::chrono::duration<double>(now - start_).count();
        const double fps = elapsed > 0.0 ? static_cast<double>(done) / elapsed : 0.0;
        const int percent = total_ > 0 ? static_cast<int>(done * 100 / total_) : 100;
        char left[32] = "-";
        if (fps > 0.0) {
            const auto seconds = static_cast<long long>(static_cast<double>(total_ - done) / fps + 0.5);
            std::snprintf(left, sizeof left, "%lld:%02lld", seconds / 60, seconds % 60);
        }
        std::fprintf(stderr, "\rFrame %llu of %llu (%d%%), %.1f fps, %s left   ", static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total_), percent, fps, left);
        std::fflush(stderr);
    }

private:
    using Clock = std::chrono::steady_clock;
    std::uint64_t total_;
    Clock::time_point start_;
    Clock::time_point last_;
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Capture loop
// ---------------------------------------------------------------------------------------------

void draw(const VideoExport& job, std::uint64_t index) {
    const CaptureFrame planned = job.frames.frame(index);
    FrameInfo frame;
    frame.timeSeconds = planned.timeSeconds;
    frame.deltaSeconds = planned.deltaSeconds;
    frame.showDurationSeconds = job.showDurationSeconds;
    frame.renderEndSeconds = job.renderEndSeconds;
    const std::uint64_t before = job.surface.presentedCount();
    job.renderer.draw(frame);
    if (job.surface.presentedCount() == before) throw std::runtime_error("No drawable for the frame");
}

// Draws, checks and hands over every planned frame, or those before Ctrl+C.
void captureFrames(const VideoExport& job, FrameHandover& handover, Progress& progress) {
    const FramePlan& plan = job.frames;
    // Drawn and not yet handed over, oldest first: at most one per readback buffer.
    std::array<DrawnFrame, kReadbackBuffers> drawn{};
    std::size_t drawnCount = 0;
    std::uint64_t next = 0;
    std::uint64_t generation = 0;
    std::uint64_t redrawn = 0;  // times the oldest drawn frame was drawn again
    auto dropDrawn = [&] {
        for (std::size_t i = 0; i < drawnCount; ++i) job.surface.releaseFrame(drawn[i].number);
        drawnCount = 0;
    };
    while (!interruptRequested()) {
        while (next < plan.size() && drawnCount < kReadbackBuffers) {
            handover.waitForBuffer(drawnCount);
            draw(job, next);
            drawn[drawnCount++] = DrawnFrame{next, job.surface.presentedCount(), generation};
            ++next;
        }
        if (drawnCount == 0) return;  // every frame handed over
        const DrawnFrame oldest = drawn[0];
        job.surface.waitForFrame(oldest.number);  // and its completion handlers, which post growth
        generation += job.runTasks();
        if (generation != oldest.generation && redrawn + 1 < static_cast<std::uint64_t>(kMaxRedraws)) {
            // Drawn with the pool as it was before it grew: it and those after it, again.
            dropDrawn();
            next = oldest.index;
            ++redrawn;
            continue;
        }
        redrawn = 0;
        handover.push(oldest);
        for (std::size_t i = 1; i < drawnCount; ++i) drawn[i - 1] = drawn[i];
        --drawnCount;
        progress.show(handover.encoded(), false);
    }
    dropDrawn();  // what Ctrl+C left undelivered
}

} // namespace

std::uint64_t exportVideo(const VideoExport& job) {
    FrameHandover handover;
    std::thread encoder([&] { encodeFrames(job, handover); });
    // On every way out the encoder thread ends before what it uses goes; after a failure here it
    // drops what it was handed.
    struct Joined {
        FrameHandover& handover;
        std::thread& thread;
        ~Joined() {
            if (!thread.joinable()) return;
            handover.close(true);
            thread.join();
        }
    } joined{handover, encoder};

    Progress progress(job.frames.size());
    progress.show(0, true);
    try {
        captureFrames(job, handover, progress);
        handover.close(false);
        encoder.join();
        handover.rethrowIfFailed();
    } catch (...) {
        std::fputc('\n', stderr);  // ends the progress line
        throw;
    }
    progress.show(handover.encoded(), true);
    std::fputc('\n', stderr);
    job.file.finish();
    return handover.encoded();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Ctrl+C
// ---------------------------------------------------------------------------------------------

void holdInterrupts() {
    struct sigaction current {};
    if (sigaction(SIGINT, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) return;
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
}

bool interruptRequested() {
    sigset_t pending;
    sigemptyset(&pending);
    return sigpending(&pending) == 0 && sigismember(&pending, SIGINT) == 1;
}

} // namespace brisvale::capture
