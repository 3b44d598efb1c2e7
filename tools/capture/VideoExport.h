#pragma once
// brisvale-capture --video: a show's frames and music into one video file. The capture loop (the
// calling thread) has the GPU draw frame i + 1 while an encoder thread converts and encodes frame
// i; they meet through the offscreen surface's two readback buffers and a hand-over of at most
// two frames, so memory stays the same whatever the length.

#include "render/Renderer.h"
#include "render/gpu/OffscreenSurface.h"
#include "tools/capture/CaptureOptions.h"
#include "tools/capture/ShowMusic.h"
#include "tools/capture/VideoFile.h"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace brisvale::capture {

// The pool can grow at most this often for one frame; a frame drawn before it grew is drawn again.
constexpr int kMaxRedraws = 8;

struct VideoExport {
    Renderer& renderer;
    gpu::OffscreenSurface& surface;         // frame readback on
    std::function<std::size_t()> runTasks;  // the renderer's posted main-thread tasks; how many ran
    const FramePlan& frames;
    float showDurationSeconds = 0.0f;
    float renderEndSeconds = 0.0f;
    VideoFile& file;
    ShowMusic* music = nullptr;             // null: no music
};

// Renders and encodes the planned frames with their music, with a progress line on stderr, and
// finishes the file (not committed). Returns how many frames it holds: fewer than planned when
// Ctrl+C stopped the export. Throws std::runtime_error on any failure.
std::uint64_t exportVideo(const VideoExport& job);

// Ctrl+C during an export finishes the file with the frames made so far. Called before any thread
// starts, so that every thread inherits it: SIGINT is held pending for the export loop to see
// (unless the process was started with it ignored).
void holdInterrupts();
bool interruptRequested();

} // namespace brisvale::capture
