#pragma once
// Brisvale's audio library: decodes one song from a file or a memory image into fixed
// linear-PCM formats, reads its tags and cover, and plays it with a ten-band equaliser,
// a clamp and a tap of recent mono samples. A flat C-style interface that never throws:
// results are 0 / -1, a null handle, or -1.0 from queries that cannot answer.

#include <cstdint>
#include <string>
#include <vector>

namespace pelora::gamedev::core {

// A linear stream description with the platform's 40-byte layout.
struct AudioStreamBasicDescription {
    double mSampleRate;
    uint32_t mFormatID;
    uint32_t mFormatFlags;
    uint32_t mBytesPerPacket;
    uint32_t mFramesPerPacket;
    uint32_t mBytesPerFrame;
    uint32_t mChannelsPerFrame;
    uint32_t mBitsPerChannel;
    uint32_t mReserved;
};

// The open decoder behind a song (opaque).
struct audio_decoder;

// A song, owned by the caller. Construct it value-initialised: `audio_song song{};`.
struct audio_song {
    void* data;
    int64_t size;
    audio_decoder* extFile;
    AudioStreamBasicDescription clientFormat;
    double duration_seconds;
    std::string title;
    std::string artist;
    std::string album;
    std::string year;
    std::string genre;
    std::vector<uint8_t> artwork;
};

// A player on one song (opaque; create/destroy pair).
struct audio_player;

int audio_song_probe(audio_song* song, const char* path) noexcept;
int audio_song_load(audio_song* song, const char* path) noexcept;
// Takes ownership of data (a block that free() may release) whatever the result.
int audio_song_load_from_memory(audio_song* song, void* data, int64_t size) noexcept;
double audio_song_duration(const audio_song* song) noexcept;
void audio_song_destroy(audio_song* song) noexcept;

// A loaded song read directly, without a player or an output device (tools that write the
// music into a file). Never while a player plays the song: both would move its one decoder.
// Reads up to *frames whole frames in the song's clientFormat into destination, which holds at
// least *frames frames; *frames becomes the number read, 0 at the end of the song.
int audio_song_read(audio_song* song, void* destination, uint32_t* frames) noexcept;
// Moves to a frame index of the clientFormat's rate, sample-exact: the next read starts there.
int audio_song_seek(audio_song* song, int64_t frame) noexcept;

audio_player* audio_player_create(audio_song* song) noexcept;
int audio_player_start(audio_player* player) noexcept;
int audio_player_stop(audio_player* player) noexcept;
int audio_player_pause(audio_player* player) noexcept;
int audio_player_resume(audio_player* player) noexcept;
int audio_player_seek(audio_player* player, double seconds) noexcept;
double audio_player_get_time(audio_player* player) noexcept;
double audio_player_duration(const audio_player* player) noexcept;
bool audio_player_is_done(const audio_player* player) noexcept;
void audio_player_destroy(audio_player* player) noexcept;

int audio_player_set_volume(audio_player* player, float volume) noexcept;
int audio_player_set_equalizer(audio_player* player, const float* gains_db, unsigned count) noexcept;
unsigned audio_player_get_recent_samples(audio_player* player, float* out, unsigned max_count) noexcept;

void audio_set_error_logging(bool enabled) noexcept;
const char* get_osstatus_description(int32_t status) noexcept;

} // namespace pelora::gamedev::core
