#pragma once
// The output queue under the player: buffers of interleaved PCM in the song's client format,
// played in order on an SDL2 audio device. Played buffers are handed back to the refill callback
// on the queue's own thread; the device's real-time callback only copies queued data out.
// SDL stays behind this header.

#include <cstdint>
#include <memory>

#include "audio/audio.h"
#include "audio/platform/Decoder.h"

namespace pelora::gamedev::core::platform {

inline constexpr Status kStatusInvalidBuffer = -66687;
inline constexpr Status kStatusInvalidRunState = -66681;
inline constexpr Status kStatusCannotStart = -66665;
inline constexpr Status kStatusNoTiming = -66678;

struct OutputQueue;

// A buffer of the queue: its capacity, its memory and the valid byte count.
struct OutputBuffer {
    uint32_t capacityBytes = 0;
    void* data = nullptr;
    uint32_t byteSize = 0;
};

using OutputCallback = void (*)(void* user, OutputQueue* queue, OutputBuffer* buffer);

Status queueNewOutput(const AudioStreamBasicDescription& format, OutputCallback callback, void* user,
                      OutputQueue** queue) noexcept;
// Immediate: stops output, discards what is queued, waits for a running callback to return.
void queueDispose(OutputQueue* queue) noexcept;
Status queueAllocateBuffer(OutputQueue* queue, uint32_t capacityBytes, OutputBuffer** buffer) noexcept;
Status queueFreeBuffer(OutputQueue* queue, OutputBuffer* buffer) noexcept;
Status queueEnqueueBuffer(OutputQueue* queue, OutputBuffer* buffer) noexcept;
Status queueStart(OutputQueue* queue) noexcept;
// immediate: silence now and discard what is queued; else stop once the queued buffers have played.
Status queueStop(OutputQueue* queue, bool immediate) noexcept;
// Discards everything queued; played buffers not yet handed back are dropped too. Output
// pauses until the next start.
Status queueReset(OutputQueue* queue) noexcept;
// Frames the device has played since the most recent start; nothing before the first buffer
// has played. After an immediate stop: every frame handed to the device, which plays out what
// it holds. Unavailable after a reset.
Status queueGetCurrentTime(OutputQueue* queue, double* sampleTime) noexcept;
// Whether output runs: false before a start, after an immediate stop, and once a
// stop-after-play has played everything queued.
bool queueIsRunning(OutputQueue* queue) noexcept;
// Linear gain in [0, 1], applied as data leaves for the device.
Status queueSetVolume(OutputQueue* queue, float volume) noexcept;

struct OutputQueueDisposer {
    void operator()(OutputQueue* queue) const noexcept { queueDispose(queue); }
};
using OutputQueueHandle = std::unique_ptr<OutputQueue, OutputQueueDisposer>;

} // namespace pelora::gamedev::core::platform
