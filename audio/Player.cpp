// The player: create/destroy, the refill cycle and the transport (start, stop, pause, resume,
// seek, position, end of song).
//
// States (running, paused, done): Created (0,0,0); Playing (1,0,0); Paused (1,1,0);
// Ran out (0,0,1); Ran out during priming (1,0,1); Stopped (0,any,1).
//
// [SECTION] Refill
// [SECTION] Creation
// [SECTION] Transport
// [SECTION] Queries and destruction

#include <cmath>
#include <cstdio>
#include <new>

#include "audio/audio.h"
#include "audio/internal/equalizer.h"
#include "audio/internal/messages.h"
#include "audio/internal/player_record.h"

namespace pelora::gamedev::core {
namespace {

using platform::Status;

double sampleRate(const audio_player* p) { return p->song != nullptr ? p->song->clientFormat.mSampleRate : 0.0; }

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Refill
// ---------------------------------------------------------------------------------------------
// On the queue's thread for every played buffer, and on the caller's thread while
// priming. Takes only the player's mutex (inside the processing) and allocates nothing itself.
void AQOutputCallback(void* user, platform::OutputQueue* queue, platform::OutputBuffer* buffer) noexcept {
    auto* p = static_cast<audio_player*>(user);
    if (p->done.load() != 0 || p->paused.load()) {
        return;
    }
    const AudioStreamBasicDescription& format = p->song->clientFormat;
    uint32_t frames = format.mBytesPerFrame != 0 ? buffer->capacityBytes / format.mBytesPerFrame : 0;
    const Status st = platform::decoderRead(p->song->extFile, &frames, buffer->data, buffer->capacityBytes);
    if (st != 0 || frames == 0) {
        // The line goes out before the flags change, so whoever sees `done` sees the line too.
        audio_log(msg::kReadFailedOrEof, st);
        p->done.store(1);
        p->running.store(0);
        platform::queueStop(queue, false);
        return;
    }
    audio_player_process_samples(p, buffer->data, frames, format);
    buffer->byteSize = frames * format.mBytesPerFrame;
    if (const Status enq = platform::queueEnqueueBuffer(queue, buffer); enq != 0) {
        audio_log(msg::kQueueEnqueue, enq);
    }
}

int audio_player_prime_buffers(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || p->song == nullptr || !p->buffers || p->buffer_count == 0) {
        return -1;
    }
    for (uint32_t i = 0; i < p->buffer_count; ++i) {
        if (p->buffers[i] == nullptr) {
            return -1;
        }
        AQOutputCallback(p, p->queue.get(), p->buffers[i]);
        if (p->done.load() != 0) {
            return 0;
        }
    }
    return 0;
}

void audio_player_release_buffers(audio_player* p) noexcept {
    if (!p->buffers) {
        return;
    }
    if (p->queue) {
        for (uint32_t i = 0; i < p->buffer_count; ++i) {
            if (p->buffers[i] != nullptr) {
                platform::queueFreeBuffer(p->queue.get(), p->buffers[i]);
                p->buffers[i] = nullptr;
            }
        }
    }
    p->buffers.reset();
    p->buffer_count = 0;
    p->buffer_frames = 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Creation
// ---------------------------------------------------------------------------------------------

audio_player* audio_player_create(audio_song* song) noexcept {
    if (song == nullptr) {
        return nullptr;
    }
    std::unique_ptr<audio_player> p(new (std::nothrow) audio_player);
    if (!p) {
        std::fputs(msg::kFailedToAllocatePlayer, stderr);
        return nullptr;
    }
    p->song = song;
    p->done.store(0);
    p->running.store(0);
    p->recent_capacity = kRecentCapacity;
    // Without the ring the player still plays, unprocessed and without a tap.
    p->recent.reset(new (std::nothrow) float[kRecentCapacity]());
    p->mutex.reset(new (std::nothrow) std::mutex);

    platform::OutputQueue* queue = nullptr;
    if (const Status st = platform::queueNewOutput(song->clientFormat, AQOutputCallback, p.get(), &queue); st != 0) {
        audio_log(msg::kQueueNewOutput, st);
        return nullptr;
    }
    p->queue.reset(queue);
    if (const Status st = platform::queueSetVolume(queue, 1.0f); st != 0) {
        audio_log(msg::kQueueSetVolume, st);
        p->queue.reset();  // before the ring and the mutex its thread could reach
        return nullptr;
    }
    p->done.store(0);
    audio_player_update_eq_coefficients(p.get());
    return p.release();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Transport
// ---------------------------------------------------------------------------------------------

int audio_player_start(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || p->running.load() != 0 || p->done.load() != 0) {
        return -1;
    }
    if (p->buffers) {
        audio_player_release_buffers(p);
    }
    p->buffers.reset(new (std::nothrow) platform::OutputBuffer*[kPlayerBufferCount]());
    if (!p->buffers) {
        return -1;
    }
    p->buffer_count = kPlayerBufferCount;
    p->buffer_frames = kPlayerBufferFrames;
    const uint32_t bytes = kPlayerBufferFrames * p->song->clientFormat.mBytesPerFrame;
    for (uint32_t i = 0; i < kPlayerBufferCount; ++i) {
        if (const Status st = platform::queueAllocateBuffer(p->queue.get(), bytes, &p->buffers[i]); st != 0) {
            audio_log(msg::kQueueAllocateBuffer, st);
            audio_player_release_buffers(p);
            return -1;
        }
    }
    p->done.store(0);
    p->paused.store(false);
    p->base_seconds = 0.0;
    if (audio_player_prime_buffers(p) != 0) {
        audio_player_release_buffers(p);
        return -1;
    }
    if (const Status st = platform::queueStart(p->queue.get()); st != 0) {
        audio_log(msg::kQueueStart, st);
        audio_player_release_buffers(p);
        return -1;
    }
    p->running.store(1);
    return 0;
}

int audio_player_stop(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || p->running.load() == 0) {
        return -1;
    }
    if (const Status st = platform::queueStop(p->queue.get(), true); st != 0) {
        audio_log(msg::kQueueStop, st);
        return -1;
    }
    p->running.store(0);
    p->done.store(1);
    return 0;
}

double audio_player_get_time(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || p->running.load() == 0) {
        return -1.0;
    }
    if (p->paused.load()) {
        return p->paused_seconds;
    }
    double sampleTime = 0.0;
    if (const Status st = platform::queueGetCurrentTime(p->queue.get(), &sampleTime); st != 0) {
        audio_log(msg::kQueueGetCurrentTime, st);
        return -1.0;
    }
    return sampleTime / p->song->clientFormat.mSampleRate + p->base_seconds;
}

int audio_player_pause(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || p->running.load() == 0 || p->paused.load()) {
        return -1;
    }
    const double t = audio_player_get_time(p);
    if (t < 0) {
        return -1;
    }
    const double rate = sampleRate(p);
    p->paused_seconds = t;
    p->resume_frame = rate > 0 ? static_cast<int64_t>(t * rate) : 0;
    if (const Status st = platform::queueStop(p->queue.get(), true); st != 0) {
        audio_log(msg::kQueueStopPause, st);
        return -1;
    }
    // The device plays out what it was handed before the stop, so output falls silent after the
    // last frame handed over, not at the one heard when pause was asked: resume goes on from
    // there, or those frames would play twice.
    double handedOver = 0.0;
    if (rate > 0 && platform::queueGetCurrentTime(p->queue.get(), &handedOver) == 0) {
        p->resume_frame = std::llround(p->base_seconds * rate) + static_cast<int64_t>(handedOver);
        p->paused_seconds = static_cast<double>(p->resume_frame) / rate;
    }
    p->paused.store(true);
    return 0;
}

int audio_player_resume(audio_player* p) noexcept {
    if (p == nullptr || !p->queue || (p->running.load() == 0 && !p->paused.load())) {
        return -1;
    }
    if (const Status st = platform::queueReset(p->queue.get()); st != 0) {
        audio_log(msg::kQueueResetResume, st);
        return -1;
    }
    const double rate = sampleRate(p);
    int64_t pos = p->resume_frame;
    if (rate > 0) {
        const auto total = static_cast<int64_t>(p->song->duration_seconds * rate);
        if (total >= 1 && pos >= total) {
            pos = total - 1;
        }
    }
    if (pos < 0) {
        pos = 0;
    }
    p->resume_frame = pos;
    if (p->song != nullptr && p->song->extFile != nullptr) {
        (void)platform::decoderSeek(p->song->extFile, pos);
    }
    p->done.store(0);
    p->paused.store(false);
    p->paused_seconds = rate > 0 ? static_cast<double>(pos) / rate : 0.0;
    p->base_seconds = p->paused_seconds;
    if (audio_player_prime_buffers(p) != 0) {
        return -1;
    }
    if (const Status st = platform::queueStart(p->queue.get()); st != 0) {
        audio_log(msg::kQueueStartResume, st);
        return -1;
    }
    p->running.store(1);
    return 0;
}

int audio_player_seek(audio_player* p, double seconds) noexcept {
    if (p == nullptr || !p->queue || p->song == nullptr || p->song->extFile == nullptr ||
        !(p->song->clientFormat.mSampleRate > 0)) {
        return -1;
    }
    const double rate = p->song->clientFormat.mSampleRate;
    const double d = p->song->duration_seconds;
    double target = seconds;
    if (d > 0) {
        target = target < 0 ? 0 : (target > d ? d : target);
    } else if (target < 0) {
        target = 0;
    }
    auto pos = static_cast<int64_t>(target * rate);
    if (d > 0) {
        const auto total = static_cast<int64_t>(d * rate);
        if (total >= 1 && pos >= total) {
            pos = total - 1;
        }
    }
    if (pos < 0) {
        pos = 0;
    }
    const bool wasPlaying = p->running.load() != 0 && !p->paused.load();
    if (wasPlaying) {
        if (const Status st = platform::queueStop(p->queue.get(), true); st != 0) {
            audio_log(msg::kQueueStopSeek, st);
            return -1;
        }
    }
    if (const Status st = platform::queueReset(p->queue.get()); st != 0) {
        audio_log(msg::kQueueResetSeek, st);
        return -1;
    }
    if (const Status st = platform::decoderSeek(p->song->extFile, pos); st != 0) {
        audio_log(msg::kExtAudioFileSeek, st);
        return -1;
    }
    p->done.store(0);
    p->resume_frame = pos;
    p->paused_seconds = static_cast<double>(pos) / rate;
    p->base_seconds = p->paused_seconds;
    if (p->recent && p->mutex) {
        std::lock_guard<std::mutex> guard(*p->mutex);
        p->recent_count = 0;
        p->recent_write = 0;
    }
    if (p->paused.load() || !wasPlaying) {
        p->paused.store(true);
        p->running.store(1);
        return 0;
    }
    p->paused.store(false);
    if (audio_player_prime_buffers(p) != 0) {
        return -1;
    }
    if (const Status st = platform::queueStart(p->queue.get()); st != 0) {
        audio_log(msg::kQueueStartSeek, st);
        return -1;
    }
    p->running.store(1);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Queries and destruction
// ---------------------------------------------------------------------------------------------

double audio_player_duration(const audio_player* p) noexcept {
    if (p == nullptr || p->song == nullptr) {
        return -1.0;
    }
    return p->song->duration_seconds;
}

bool audio_player_is_done(const audio_player* p) noexcept {
    return p == nullptr || p->done.load() != 0;
}

void audio_player_destroy(audio_player* p) noexcept {
    if (p == nullptr) {
        return;
    }
    std::unique_ptr<audio_player> owned(p);
    (void)audio_player_stop(p);
    audio_player_release_buffers(p);
    p->queue.reset();
    p->recent.reset();
    p->recent_capacity = 0;
    p->recent_count = 0;
    p->recent_write = 0;
    p->mutex.reset();
}

} // namespace pelora::gamedev::core
