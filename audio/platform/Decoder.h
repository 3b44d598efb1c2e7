#pragma once
// The decoder under the song functions: container readers (over a path, or over a memory block
// through read and size callbacks), a decoder that delivers whole interleaved frames in a fixed
// client format, the file's length, tags and cover. FFmpeg stays behind this header.
//
// Every call returns a Status: 0 on success, else a signed 32-bit code that the caller prints.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "audio/audio.h"

namespace pelora::gamedev::core::platform {

using Status = int32_t;

constexpr uint32_t fourCharCode(const char (&c)[5]) {
    return (uint32_t(uint8_t(c[0])) << 24) | (uint32_t(uint8_t(c[1])) << 16) | (uint32_t(uint8_t(c[2])) << 8) |
           uint32_t(uint8_t(c[3]));
}

inline constexpr Status kStatusParam = -50;
inline constexpr Status kStatusUnsupportedFile = static_cast<Status>(fourCharCode("typ?"));
inline constexpr Status kStatusFormatNotSupported = static_cast<Status>(fourCharCode("fmt?"));
inline constexpr Status kStatusUnknownLength = static_cast<Status>(fourCharCode("nlen"));
inline constexpr Status kStatusOutOfMemory = static_cast<Status>(fourCharCode("mem!"));
inline constexpr Status kStatusNotRegularFile = static_cast<Status>(fourCharCode("nreg"));

inline constexpr uint32_t kFormatLinearPCM = fourCharCode("lpcm");
inline constexpr uint32_t kFormatFlagIsFloat = 1;
inline constexpr uint32_t kFormatFlagIsSignedInteger = 4;
inline constexpr uint32_t kFormatFlagIsPacked = 8;

// The memory block's view, as the container reader sees it (context = the song).
using ReadProc = Status (*)(void* context, int64_t position, uint32_t request, void* destination,
                            uint32_t* actualCount);
using GetSizeProc = int64_t (*)(void* context);

// A container-level reader: tags, cover, and the packets a decoder reads.
struct ContainerReader;

// The tag dictionary of a container: text values and picture blobs by key.
struct InfoDictionary {
    std::map<std::string, std::string> strings;
    std::map<std::string, std::vector<uint8_t>> blobs;
};

// A path that names something other than a directory, as the readers open it; false otherwise.
bool fileUrlFromPath(const char* path, std::string* url) noexcept;

// Opens only a regular file (kStatusNotRegularFile for a FIFO, a device, a socket), never waits.
Status containerOpenUrl(const std::string& url, ContainerReader** reader) noexcept;
Status containerOpenWithCallbacks(void* context, ReadProc read, GetSizeProc getSize, ContainerReader** reader) noexcept;
void containerClose(ContainerReader* reader) noexcept;
// "title", "artist", "album", "year", "genre"; pictures under "artwork" (the front cover, or
// the cover of a container without picture kinds).
Status containerGetInfoDictionary(ContainerReader* reader, InfoDictionary* info) noexcept;
// The first attached picture of any kind.
Status containerGetAlbumArtwork(ContainerReader* reader, std::vector<uint8_t>* artwork) noexcept;

Status decoderOpenUrl(const std::string& url, audio_decoder** decoder) noexcept;
// On success the decoder owns the reader and closes it when disposed.
Status decoderWrapReader(ContainerReader* reader, audio_decoder** decoder) noexcept;
void decoderDispose(audio_decoder* decoder) noexcept;
Status decoderGetFileDataFormat(audio_decoder* decoder, AudioStreamBasicDescription* format) noexcept;
// The number of frames the decoder delivers from the start to the end. Where the container does
// not state it, it is counted once (bounded; kStatusUnknownLength beyond the bounds).
Status decoderGetLengthFrames(audio_decoder* decoder, int64_t* frames) noexcept;
Status decoderSetClientDataFormat(audio_decoder* decoder, const AudioStreamBasicDescription& format) noexcept;
// Reads up to *frames whole frames into destination (bytes long); *frames becomes the count
// delivered, 0 at the end.
Status decoderRead(audio_decoder* decoder, uint32_t* frames, void* destination, uint32_t bytes) noexcept;
// Moves to a frame index of the client format, sample-exact.
Status decoderSeek(audio_decoder* decoder, int64_t frame) noexcept;

} // namespace pelora::gamedev::core::platform
