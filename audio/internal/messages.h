#pragma once
// Every diagnostic line of the audio library, in one place, and the switch that gates them.

#include <atomic>
#include <cstdint>

namespace pelora::gamedev::core {

// Off at start; written only by audio_set_error_logging, read by every message site
// (also on the queue's refill thread, hence atomic).
extern std::atomic<bool> audio_internal_error_reporting;

namespace msg {
inline constexpr const char* kExtAudioFileOpenURL = "ExtAudioFileOpenURL failed: %d\n";
inline constexpr const char* kAudioFileOpenURLMetadata = "AudioFileOpenURL metadata failed: %d\n";
inline constexpr const char* kGetFileDataFormat = "ExtAudioFileGetProperty (FileDataFormat) failed: %d\n";
inline constexpr const char* kSetClientDataFormat = "ExtAudioFileSetProperty (ClientDataFormat) failed: %d\n";
inline constexpr const char* kAudioFileOpenWithCallbacks = "AudioFileOpenWithCallbacks failed: %d\n";
inline constexpr const char* kExtAudioFileWrap = "ExtAudioFileWrapAudioFileID failed: %d\n";
inline constexpr const char* kFailedToAllocatePlayer = "Failed to allocate Player\n";
inline constexpr const char* kQueueNewOutput = "AudioQueueNewOutput failed: %d\n";
inline constexpr const char* kQueueSetVolume = "AudioQueueSetParameter (Volume) failed: %d\n";
inline constexpr const char* kQueueAllocateBuffer = "AudioQueueAllocateBuffer failed: %d\n";
inline constexpr const char* kQueueStart = "AudioQueueStart failed: %d\n";
inline constexpr const char* kQueueStop = "AudioQueueStop failed: %d\n";
inline constexpr const char* kQueueGetCurrentTime = "AudioQueueGetCurrentTime failed: %d\n";
inline constexpr const char* kQueueStopPause = "AudioQueueStop (pause) failed: %d\n";
inline constexpr const char* kQueueResetResume = "AudioQueueReset (resume) failed: %d\n";
inline constexpr const char* kQueueStartResume = "AudioQueueStart (resume) failed: %d\n";
inline constexpr const char* kQueueStopSeek = "AudioQueueStop (seek) failed: %d\n";
inline constexpr const char* kQueueResetSeek = "AudioQueueReset (seek) failed: %d\n";
inline constexpr const char* kExtAudioFileSeek = "ExtAudioFileSeek failed: %d\n";
inline constexpr const char* kQueueStartSeek = "AudioQueueStart (seek) failed: %d\n";
inline constexpr const char* kExtAudioFileRead = "ExtAudioFileRead failed: %d\n";
inline constexpr const char* kReadFailedOrEof = "\nExtAudioFileRead failed or EOF: %d\n";
inline constexpr const char* kQueueEnqueue = "\nAudioQueueEnqueueBuffer failed: %d\n";
} // namespace msg

// Writes one message line with the status in place of %d, only while logging is on.
void audio_log(const char* format, int32_t status) noexcept;

} // namespace pelora::gamedev::core
