// The output queue on an SDL2 audio device.
//
// Three threads meet here:
// - SDL's real-time device thread runs `deviceCallback`: it only copies queued data out (scaled
//   by the volume), counts the frames handed over and moves finished buffers to the hand-back
//   list.
// - The queue's own thread (`handBackLoop`) hands played buffers to the refill callback, and
//   pauses the device once a stop-after-play has run dry.
// - The caller's thread: start, stop, reset, enqueue (also from the refill callback), time.
//
// [SECTION] Buffers
// [SECTION] The queue
// [SECTION] The device thread and the queue thread
// [SECTION] Interface

#include "audio/platform/OutputQueue.h"

#include <SDL.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

namespace pelora::gamedev::core::platform {
namespace {

constexpr Status kStatusNoDevice = static_cast<Status>(fourCharCode("nodv"));
constexpr Status kStatusTooManyBuffers = static_cast<Status>(fourCharCode("bufs"));
constexpr size_t kMaxBuffers = 32;
constexpr Uint16 kDeviceFrames = 1024;

// ---------------------------------------------------------------------------------------------
// [SECTION] Buffers
// ---------------------------------------------------------------------------------------------

// A fixed ring of buffer handles: no allocation on the device thread.
struct BufferRing {
    std::array<OutputBuffer*, kMaxBuffers> items{};
    size_t head = 0;
    size_t count = 0;

    bool push(OutputBuffer* b) {
        if (count == items.size()) {
            return false;
        }
        items[(head + count) % items.size()] = b;
        ++count;
        return true;
    }
    OutputBuffer* front() const { return items[head]; }
    OutputBuffer* pop() {
        OutputBuffer* b = items[head];
        head = (head + 1) % items.size();
        --count;
        return b;
    }
    bool contains(const OutputBuffer* b) const {
        for (size_t i = 0; i < count; ++i) {
            if (items[(head + i) % items.size()] == b) {
                return true;
            }
        }
        return false;
    }
    void remove(const OutputBuffer* b) {
        BufferRing kept;
        while (count > 0) {
            OutputBuffer* x = pop();
            if (x != b) {
                kept.push(x);
            }
        }
        *this = kept;
    }
    void clear() { head = count = 0; }
};

struct BufferStorage {
    OutputBuffer buffer;
    std::unique_ptr<uint8_t[]> memory;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] The queue
// ---------------------------------------------------------------------------------------------

struct OutputQueue {
    SDL_AudioDeviceID device = 0;
    bool sdlStarted = false;
    OutputCallback callback = nullptr;
    void* user = nullptr;
    uint32_t bytesPerFrame = 0;
    bool floatSamples = false;

    // Read by the device thread for every buffer it copies; written by the caller.
    std::atomic<float> volume{1.0f};

    // Guards everything below up to `thread`: the play and hand-back lists, the frame count and
    // the run flags. Taken by the device thread, the queue's thread and the caller.
    std::mutex lock;
    // The queue's thread waits on it for played buffers, a run-dry stop or the end.
    std::condition_variable wake;
    BufferRing queued;
    size_t headOffset = 0;  // bytes of queued.front() already handed over
    BufferRing played;
    // Frames copied into SDL's device buffer since the last start, and those of them that the
    // device still holds: the last callback's. SDL asks again once it has played them, and an
    // immediate stop lets it play them out. Played = handed over - held.
    uint64_t framesHandedOver = 0;
    uint64_t framesHeldByDevice = 0;
    bool running = false;
    bool timed = false;  // started since the last reset
    bool stopWhenDrained = false;
    bool drained = false;
    bool quit = false;
    // Bumped by every reset and immediate stop: hand-backs from before it are dropped.
    uint64_t generation = 0;

    // Serialises pausing and unpausing the device with the run flag: start, immediate stop and
    // the queue's own stop after running dry. Taken before `callbackLock` and `lock`.
    std::mutex controlLock;

    // Held by the queue's thread while the refill callback runs; reset, stop and dispose take it
    // to wait for a refill in progress. Never taken with `lock` held.
    std::mutex callbackLock;

    std::vector<std::unique_ptr<BufferStorage>> buffers;  // caller's thread only
    std::thread thread;
};

namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] The device thread and the queue thread
// ---------------------------------------------------------------------------------------------

void copyScaled(uint8_t* out, const uint8_t* in, size_t bytes, float volume, bool floatSamples) {
    if (volume == 1.0f) {
        std::memcpy(out, in, bytes);
        return;
    }
    if (floatSamples) {
        const size_t n = bytes / sizeof(float);
        for (size_t i = 0; i < n; ++i) {
            float v;
            std::memcpy(&v, in + i * sizeof v, sizeof v);
            v *= volume;
            std::memcpy(out + i * sizeof v, &v, sizeof v);
        }
    } else {
        const size_t n = bytes / sizeof(int16_t);
        for (size_t i = 0; i < n; ++i) {
            int16_t v;
            std::memcpy(&v, in + i * sizeof v, sizeof v);
            v = static_cast<int16_t>(std::lrintf(static_cast<float>(v) * volume));
            std::memcpy(out + i * sizeof v, &v, sizeof v);
        }
    }
}

void SDLCALL deviceCallback(void* userdata, Uint8* stream, int length) {
    auto* q = static_cast<OutputQueue*>(userdata);
    const float volume = q->volume.load(std::memory_order_relaxed);
    size_t written = 0;
    bool notify = false;
    {
        std::lock_guard<std::mutex> guard(q->lock);
        // Asked again: what SDL was handed last time has played.
        q->framesHeldByDevice = 0;
        while (written < static_cast<size_t>(length) && q->queued.count > 0) {
            OutputBuffer* b = q->queued.front();
            const size_t n = std::min<size_t>(b->byteSize - q->headOffset, static_cast<size_t>(length) - written);
            copyScaled(stream + written, static_cast<const uint8_t*>(b->data) + q->headOffset, n, volume,
                       q->floatSamples);
            written += n;
            q->headOffset += n;
            q->framesHandedOver += n / q->bytesPerFrame;
            q->framesHeldByDevice += n / q->bytesPerFrame;
            if (q->headOffset >= b->byteSize) {
                q->queued.pop();
                q->headOffset = 0;
                q->played.push(b);
                notify = true;
            }
        }
        // Run dry once nothing was left to hand over: everything queued has played.
        if (written == 0 && q->queued.count == 0 && q->stopWhenDrained && !q->drained) {
            q->drained = true;
            notify = true;
        }
    }
    if (written < static_cast<size_t>(length)) {
        std::memset(stream + written, 0, static_cast<size_t>(length) - written);
    }
    if (notify) {
        q->wake.notify_one();
    }
}

void handBackLoop(OutputQueue* q) {
    for (;;) {
        OutputBuffer* b = nullptr;
        uint64_t generation = 0;
        {
            std::unique_lock<std::mutex> guard(q->lock);
            q->wake.wait(guard, [q] { return q->quit || q->played.count > 0 || q->drained; });
            if (q->quit) {
                return;
            }
            if (q->played.count == 0) {
                guard.unlock();
                // Ran dry after a stop-after-play: the queue stops by itself, unless a reset or a
                // start came first.
                std::lock_guard<std::mutex> control(q->controlLock);
                std::unique_lock<std::mutex> again(q->lock);
                if (q->drained) {
                    q->drained = false;
                    q->stopWhenDrained = false;
                    q->running = false;
                    again.unlock();
                    SDL_PauseAudioDevice(q->device, 1);
                }
                continue;
            }
            b = q->played.pop();
            generation = q->generation;
        }
        std::lock_guard<std::mutex> refill(q->callbackLock);
        {
            std::lock_guard<std::mutex> guard(q->lock);
            if (generation != q->generation || q->quit) {
                continue;
            }
        }
        q->callback(q->user, q, b);
    }
}

// Pauses the device and forgets everything queued; waits for a refill in progress. A stop keeps
// the clock: no callback runs after the pause, and the device plays out what it holds, so the
// output falls silent after the last frame handed over. A reset forgets the clock too.
void discardAll(OutputQueue* q, bool keepClock) {
    std::lock_guard<std::mutex> control(q->controlLock);
    SDL_PauseAudioDevice(q->device, 1);
    std::lock_guard<std::mutex> refill(q->callbackLock);
    std::lock_guard<std::mutex> guard(q->lock);
    q->queued.clear();
    q->played.clear();
    q->headOffset = 0;
    q->framesHeldByDevice = 0;
    if (!keepClock) {
        q->framesHandedOver = 0;
        q->timed = false;
    }
    q->stopWhenDrained = false;
    q->drained = false;
    ++q->generation;
    q->running = false;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Interface
// ---------------------------------------------------------------------------------------------

Status queueNewOutput(const AudioStreamBasicDescription& format, OutputCallback callback, void* user,
                      OutputQueue** out) noexcept {
    *out = nullptr;
    if (callback == nullptr || format.mFormatID != kFormatLinearPCM || format.mSampleRate <= 0 ||
        format.mChannelsPerFrame == 0 || format.mChannelsPerFrame > 255 || format.mBytesPerFrame == 0) {
        return kStatusParam;
    }
    SDL_AudioSpec want{};
    const bool isFloat = (format.mFormatFlags & kFormatFlagIsFloat) != 0 && format.mBitsPerChannel == 32;
    const bool isS16 = (format.mFormatFlags & kFormatFlagIsSignedInteger) != 0 && format.mBitsPerChannel == 16;
    if (!isFloat && !isS16) {
        return kStatusParam;
    }
    std::unique_ptr<OutputQueue, OutputQueueDisposer> q(new (std::nothrow) OutputQueue);
    if (!q) {
        return kStatusParam;
    }
    q->callback = callback;
    q->user = user;
    q->bytesPerFrame = format.mBytesPerFrame;
    q->floatSamples = isFloat;

    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
        return kStatusNoDevice;
    }
    q->sdlStarted = true;
    want.freq = static_cast<int>(format.mSampleRate);
    want.format = isFloat ? AUDIO_F32SYS : AUDIO_S16SYS;
    want.channels = static_cast<Uint8>(format.mChannelsPerFrame);
    want.samples = kDeviceFrames;
    want.callback = deviceCallback;
    want.userdata = q.get();
    SDL_AudioSpec have{};
    // No changes allowed: SDL converts to what the hardware takes, we always hand it our format.
    q->device = SDL_OpenAudioDevice(nullptr, 0, &want, &have, 0);
    if (q->device == 0) {
        return kStatusNoDevice;
    }
    try {
        q->buffers.reserve(kMaxBuffers);
        q->thread = std::thread(handBackLoop, q.get());
    } catch (...) {
        return kStatusNoDevice;
    }
    *out = q.release();
    return 0;
}

void queueDispose(OutputQueue* q) noexcept {
    if (q == nullptr) {
        return;
    }
    std::unique_ptr<OutputQueue> owned(q);
    if (q->device != 0) {
        // Waits for SDL's device thread to finish: no copy runs after this.
        SDL_CloseAudioDevice(q->device);
    }
    if (q->thread.joinable()) {
        {
            std::lock_guard<std::mutex> guard(q->lock);
            q->quit = true;
        }
        q->wake.notify_one();
        q->thread.join();
    }
    if (q->sdlStarted) {
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }
}

Status queueAllocateBuffer(OutputQueue* q, uint32_t capacityBytes, OutputBuffer** out) noexcept {
    *out = nullptr;
    if (q == nullptr || capacityBytes == 0) {
        return kStatusParam;
    }
    if (q->buffers.size() >= kMaxBuffers) {
        return kStatusTooManyBuffers;
    }
    auto storage = std::unique_ptr<BufferStorage>(new (std::nothrow) BufferStorage);
    if (!storage) {
        return kStatusInvalidBuffer;
    }
    storage->memory.reset(new (std::nothrow) uint8_t[capacityBytes]());
    if (!storage->memory) {
        return kStatusInvalidBuffer;
    }
    storage->buffer.capacityBytes = capacityBytes;
    storage->buffer.data = storage->memory.get();
    *out = &storage->buffer;
    q->buffers.push_back(std::move(storage));  // capacity reserved at creation
    return 0;
}

Status queueFreeBuffer(OutputQueue* q, OutputBuffer* b) noexcept {
    if (q == nullptr || b == nullptr) {
        return kStatusParam;
    }
    {
        // A hand-back of this buffer may be on its way to the refill callback: wait for it, and
        // drop the ones not yet delivered.
        std::lock_guard<std::mutex> refill(q->callbackLock);
        std::lock_guard<std::mutex> guard(q->lock);
        if (q->queued.count > 0 && q->queued.front() == b) {
            q->headOffset = 0;
        }
        q->queued.remove(b);
        q->played.remove(b);
        ++q->generation;
    }
    const auto it = std::find_if(q->buffers.begin(), q->buffers.end(),
                                 [b](const std::unique_ptr<BufferStorage>& s) { return &s->buffer == b; });
    if (it == q->buffers.end()) {
        return kStatusInvalidBuffer;
    }
    q->buffers.erase(it);
    return 0;
}

Status queueEnqueueBuffer(OutputQueue* q, OutputBuffer* b) noexcept {
    if (q == nullptr || b == nullptr || b->byteSize > b->capacityBytes) {
        return kStatusInvalidBuffer;
    }
    if (b->byteSize == 0 || b->byteSize % q->bytesPerFrame != 0) {
        return kStatusInvalidBuffer;
    }
    std::lock_guard<std::mutex> guard(q->lock);
    if (q->queued.contains(b) || !q->queued.push(b)) {
        return kStatusInvalidBuffer;
    }
    return 0;
}

Status queueStart(OutputQueue* q) noexcept {
    if (q == nullptr) {
        return kStatusParam;
    }
    std::lock_guard<std::mutex> control(q->controlLock);
    {
        std::lock_guard<std::mutex> guard(q->lock);
        if (!q->running) {
            q->framesHandedOver = 0;
            q->framesHeldByDevice = 0;
        }
        q->running = true;
        q->timed = true;
        q->drained = false;
    }
    SDL_PauseAudioDevice(q->device, 0);
    if (SDL_GetAudioDeviceStatus(q->device) != SDL_AUDIO_PLAYING) {
        std::lock_guard<std::mutex> guard(q->lock);
        q->running = false;
        return kStatusCannotStart;
    }
    return 0;
}

Status queueStop(OutputQueue* q, bool immediate) noexcept {
    if (q == nullptr) {
        return kStatusParam;
    }
    if (immediate) {
        discardAll(q, true);
        return 0;
    }
    {
        std::lock_guard<std::mutex> guard(q->lock);
        q->stopWhenDrained = true;
    }
    return 0;
}

Status queueReset(OutputQueue* q) noexcept {
    if (q == nullptr) {
        return kStatusParam;
    }
    // The device pauses too: a refill on the queue's thread must not run beside the priming
    // that follows a reset on the caller's thread. The next start resumes it.
    discardAll(q, false);
    return 0;
}

Status queueGetCurrentTime(OutputQueue* q, double* sampleTime) noexcept {
    if (q == nullptr || sampleTime == nullptr) {
        return kStatusParam;
    }
    std::lock_guard<std::mutex> guard(q->lock);
    if (!q->timed) {
        return kStatusNoTiming;
    }
    *sampleTime = static_cast<double>(q->framesHandedOver - q->framesHeldByDevice);
    return 0;
}

bool queueIsRunning(OutputQueue* q) noexcept {
    if (q == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> guard(q->lock);
    return q->running;
}

Status queueSetVolume(OutputQueue* q, float volume) noexcept {
    if (q == nullptr || !(volume >= 0.0f && volume <= 1.0f)) {
        return kStatusParam;
    }
    q->volume.store(volume, std::memory_order_relaxed);
    return 0;
}

} // namespace pelora::gamedev::core::platform
