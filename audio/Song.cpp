// Songs: probing a file for tags and length, opening a file (float32) or a memory image (s16)
// for playback, reading and seeking one without a player, and releasing them. The memory block
// belongs to the song from the call on and is freed exactly once, whatever happens.
//
// [SECTION] Shared steps
// [SECTION] Records and tags
// [SECTION] Memory reads
// [SECTION] Loading
// [SECTION] Reading without a player, and release

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "audio/audio.h"
#include "audio/internal/messages.h"
#include "audio/internal/song_internal.h"

namespace pelora::gamedev::core {
namespace {

using platform::Status;

constexpr size_t kTagBufferSize = 512;

// ---------------------------------------------------------------------------------------------
// [SECTION] Shared steps
// ---------------------------------------------------------------------------------------------

AudioStreamBasicDescription clientFormat(const AudioStreamBasicDescription& file, bool floatSamples) {
    AudioStreamBasicDescription f{};
    f.mSampleRate = file.mSampleRate;
    f.mFormatID = platform::kFormatLinearPCM;
    f.mFormatFlags = floatSamples ? (platform::kFormatFlagIsFloat | platform::kFormatFlagIsPacked)
                                  : (platform::kFormatFlagIsSignedInteger | platform::kFormatFlagIsPacked);
    f.mBitsPerChannel = floatSamples ? 32 : 16;
    f.mChannelsPerFrame = file.mChannelsPerFrame;
    f.mBytesPerFrame = f.mChannelsPerFrame * (f.mBitsPerChannel / 8);
    f.mFramesPerPacket = 1;
    f.mBytesPerPacket = f.mBytesPerFrame;
    return f;
}

void computeDuration(audio_song* song, const AudioStreamBasicDescription& fileFormat) {
    int64_t frames = 0;
    if (platform::decoderGetLengthFrames(song->extFile, &frames) == 0 && fileFormat.mSampleRate > 0) {
        song->duration_seconds = static_cast<double>(frames) / fileFormat.mSampleRate;
    }
}

void copyTags(audio_song* song, audio_metadata&& m) {
    song->title = std::move(m.title);
    song->artist = std::move(m.artist);
    song->album = std::move(m.album);
    song->year = std::move(m.year);
    song->genre = std::move(m.genre);
    song->artwork = std::move(m.artwork);
}

void disposeDecoder(audio_song* song) {
    platform::decoderDispose(song->extFile);
    song->extFile = nullptr;
}

void freeBlock(audio_song* song) {
    std::free(song->data);
    song->data = nullptr;
}

// A failed load leaves the record as reset (everything it held has been released before).
// Steps shared by probe and load: decoder, container reader for tags, file data format.
// On success the reader is left open for the caller to close.
int openFromPath(audio_song* song, const char* path, bool reportMetadataFailure,
                 platform::ContainerReader** reader, AudioStreamBasicDescription* fileFormat) {
    std::string url;
    if (!platform::fileUrlFromPath(path, &url)) {
        return -1;
    }
    if (const Status st = platform::decoderOpenUrl(url, &song->extFile); st != 0) {
        audio_log(msg::kExtAudioFileOpenURL, st);
        song->extFile = nullptr;
        return -1;
    }
    const Status readerStatus = platform::containerOpenUrl(url, reader);
    if (readerStatus == 0 && *reader != nullptr) {
        copyTags(song, audio_file_get_metadata(*reader));
    } else if (reportMetadataFailure) {
        audio_log(msg::kAudioFileOpenURLMetadata, readerStatus);
    }
    if (const Status st = platform::decoderGetFileDataFormat(song->extFile, fileFormat); st != 0) {
        audio_log(msg::kGetFileDataFormat, st);
        disposeDecoder(song);
        platform::containerClose(*reader);
        *reader = nullptr;
        audio_song_reset(song);
        return -1;
    }
    return 0;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Records and tags
// ---------------------------------------------------------------------------------------------

void audio_song_reset(audio_song* song) noexcept {
    if (song == nullptr) {
        return;
    }
    song->data = nullptr;
    song->size = 0;
    song->extFile = nullptr;
    song->clientFormat = AudioStreamBasicDescription{};
    song->duration_seconds = 0.0;
    song->title.clear();
    song->artist.clear();
    song->album.clear();
    song->year.clear();
    song->genre.clear();
    song->artwork.clear();
}

std::string audio_metadata_text(const platform::InfoDictionary& info, const char* key) {
    const auto it = info.strings.find(key);
    if (it == info.strings.end() || it->second.size() + 1 > kTagBufferSize) {
        return {};
    }
    // Stops at an embedded zero, as a C string would.
    return std::string(it->second.c_str());
}

void audio_metadata_from_info(const platform::InfoDictionary& info, audio_metadata* m) {
    m->title = audio_metadata_text(info, "title");
    m->artist = audio_metadata_text(info, "artist");
    m->album = audio_metadata_text(info, "album");
    m->year = audio_metadata_text(info, "year");
    m->genre = audio_metadata_text(info, "genre");
    for (const char* key : {"artwork", "album artwork", "Album Artwork"}) {
        const auto it = info.blobs.find(key);
        if (it == info.blobs.end()) {
            continue;
        }
        if (!it->second.empty()) {
            m->artwork = it->second;
        }
        break;
    }
}

audio_metadata audio_file_get_metadata(platform::ContainerReader* reader) noexcept {
    audio_metadata m;
    try {
        platform::InfoDictionary info;
        if (platform::containerGetInfoDictionary(reader, &info) == 0) {
            audio_metadata_from_info(info, &m);
        }
        if (m.artwork.empty()) {
            std::vector<uint8_t> picture;
            if (platform::containerGetAlbumArtwork(reader, &picture) == 0 && !picture.empty()) {
                m.artwork = std::move(picture);
            }
        }
    } catch (...) {
        // Out of memory while copying tags: tags are not essential, keep what is whole.
        return audio_metadata{};
    }
    return m;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Memory reads
// ---------------------------------------------------------------------------------------------

Status MyReadProc(void* context, int64_t position, uint32_t request, void* destination, uint32_t* actualCount) noexcept {
    const auto* song = static_cast<const audio_song*>(context);
    if (position >= 0 && position < song->size) {
        const int64_t n = std::min<int64_t>(song->size - position, request);
        std::memcpy(destination, static_cast<const uint8_t*>(song->data) + position, static_cast<size_t>(n));
        *actualCount = static_cast<uint32_t>(n);
    } else {
        *actualCount = 0;
    }
    return 0;
}

int64_t MyGetSizeProc(void* context) noexcept {
    return static_cast<const audio_song*>(context)->size;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Loading
// ---------------------------------------------------------------------------------------------

int audio_song_probe(audio_song* song, const char* path) noexcept {
    if (song == nullptr || path == nullptr) {
        return -1;
    }
    audio_song_reset(song);
    platform::ContainerReader* reader = nullptr;
    AudioStreamBasicDescription fileFormat{};
    if (openFromPath(song, path, true, &reader, &fileFormat) != 0) {
        return -1;
    }
    computeDuration(song, fileFormat);
    disposeDecoder(song);
    platform::containerClose(reader);
    return 0;
}

int audio_song_load(audio_song* song, const char* path) noexcept {
    if (song == nullptr || path == nullptr) {
        return -1;
    }
    audio_song_reset(song);
    platform::ContainerReader* reader = nullptr;
    AudioStreamBasicDescription fileFormat{};
    if (openFromPath(song, path, false, &reader, &fileFormat) != 0) {
        return -1;
    }
    computeDuration(song, fileFormat);
    song->clientFormat = clientFormat(fileFormat, true);
    if (const Status st = platform::decoderSetClientDataFormat(song->extFile, song->clientFormat); st != 0) {
        audio_log(msg::kSetClientDataFormat, st);
        disposeDecoder(song);
        platform::containerClose(reader);
        audio_song_reset(song);
        return -1;
    }
    platform::containerClose(reader);
    return 0;
}

int audio_song_load_from_memory(audio_song* song, void* data, int64_t size) noexcept {
    if (song == nullptr || data == nullptr || size <= 0) {
        std::free(data);
        return -1;
    }
    audio_song_reset(song);
    song->data = data;
    song->size = size;

    platform::ContainerReader* reader = nullptr;
    if (const Status st = platform::containerOpenWithCallbacks(song, MyReadProc, MyGetSizeProc, &reader); st != 0) {
        audio_log(msg::kAudioFileOpenWithCallbacks, st);
        freeBlock(song);
        audio_song_reset(song);
        return -1;
    }
    if (const Status st = platform::decoderWrapReader(reader, &song->extFile); st != 0) {
        audio_log(msg::kExtAudioFileWrap, st);
        song->extFile = nullptr;
        platform::containerClose(reader);
        freeBlock(song);
        audio_song_reset(song);
        return -1;
    }
    // From here the decoder owns the reader: disposing it closes the reader too.
    copyTags(song, audio_file_get_metadata(reader));

    AudioStreamBasicDescription fileFormat{};
    if (const Status st = platform::decoderGetFileDataFormat(song->extFile, &fileFormat); st != 0) {
        audio_log(msg::kGetFileDataFormat, st);
        disposeDecoder(song);
        freeBlock(song);
        audio_song_reset(song);
        return -1;
    }
    computeDuration(song, fileFormat);
    song->clientFormat = clientFormat(fileFormat, false);
    if (const Status st = platform::decoderSetClientDataFormat(song->extFile, song->clientFormat); st != 0) {
        audio_log(msg::kSetClientDataFormat, st);
        disposeDecoder(song);
        freeBlock(song);
        audio_song_reset(song);
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Reading without a player, and release
// ---------------------------------------------------------------------------------------------

double audio_song_duration(const audio_song* song) noexcept {
    return song == nullptr ? -1.0 : song->duration_seconds;
}

int audio_song_read(audio_song* song, void* destination, uint32_t* frames) noexcept {
    if (song == nullptr || song->extFile == nullptr || frames == nullptr || (destination == nullptr && *frames > 0)) {
        return -1;
    }
    const uint32_t bytesPerFrame = song->clientFormat.mBytesPerFrame;
    if (bytesPerFrame == 0 || *frames > UINT32_MAX / bytesPerFrame) {
        return -1;
    }
    if (const Status st = platform::decoderRead(song->extFile, frames, destination, *frames * bytesPerFrame); st != 0) {
        audio_log(msg::kExtAudioFileRead, st);
        *frames = 0;
        return -1;
    }
    return 0;
}

int audio_song_seek(audio_song* song, int64_t frame) noexcept {
    if (song == nullptr || song->extFile == nullptr || frame < 0) {
        return -1;
    }
    if (const Status st = platform::decoderSeek(song->extFile, frame); st != 0) {
        audio_log(msg::kExtAudioFileSeek, st);
        return -1;
    }
    return 0;
}

void audio_song_destroy(audio_song* song) noexcept {
    if (song == nullptr) {
        return;
    }
    if (song->extFile != nullptr) {
        disposeDecoder(song);
    }
    if (song->data != nullptr) {
        freeBlock(song);
    }
    song->artwork.clear();
}

} // namespace pelora::gamedev::core
