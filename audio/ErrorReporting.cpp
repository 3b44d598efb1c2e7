// The logging switch, the message printer and the status-code descriptions.

#include <cstdio>

#include "audio/audio.h"
#include "audio/internal/messages.h"

namespace pelora::gamedev::core {

std::atomic<bool> audio_internal_error_reporting{false};

void audio_log(const char* format, int32_t status) noexcept {
    if (audio_internal_error_reporting.load(std::memory_order_relaxed)) {
        std::fprintf(stderr, format, static_cast<int>(status));
    }
}

void audio_set_error_logging(bool enabled) noexcept {
    audio_internal_error_reporting.store(enabled, std::memory_order_relaxed);
}

const char* get_osstatus_description(int32_t status) noexcept {
    // Caller-visible static storage: the returned pointer stays valid until the next call that
    // formats into the same buffer (not thread-safe, as documented).
    static char fourcc[5];
    static char fourccMessage[64];
    static char unknownMessage[64];

    switch (status) {
    case 0: return "No error";
    case -50: return "Parameter error";
    case -66687: return "Invalid buffer";
    case -66686: return "Buffer empty";
    case -66685: return "Disposal pending";
    case -66684: return "Invalid property";
    case -66681:
    case -66665: return "Cannot start queue or queue not running";
    case -66678: return "Invalid State. Cannot obtain timing information.";
    default: break;
    }

    const auto bits = static_cast<uint32_t>(status);
    bool printable = true;
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<signed char>((bits >> (24 - 8 * i)) & 0xFFu);
        fourcc[i] = static_cast<char>(byte);
        if (byte < 32 || byte > 126) {
            printable = false;
        }
    }
    fourcc[4] = '\0';
    if (printable) {
        std::snprintf(fourccMessage, sizeof fourccMessage, "Error code: '%s' (0x%08X)", fourcc, bits);
        return fourccMessage;
    }
    std::snprintf(unknownMessage, sizeof unknownMessage, "Unknown error: %d (0x%08X)", static_cast<int>(status), bits);
    return unknownMessage;
}

} // namespace pelora::gamedev::core
