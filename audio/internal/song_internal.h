#pragma once
// The song functions' internal pieces, visible to tests.

#include <cstdint>
#include <string>
#include <vector>

#include "audio/audio.h"
#include "audio/platform/Decoder.h"

namespace pelora::gamedev::core {

// Result of tag reading; all empty on construction.
struct audio_metadata {
    std::string title;
    std::string artist;
    std::string album;
    std::string year;
    std::string genre;
    std::vector<uint8_t> artwork;
};

void audio_song_reset(audio_song* song) noexcept;
audio_metadata audio_file_get_metadata(platform::ContainerReader* reader) noexcept;

// The container reader's view of a memory-loaded song's block (context = the song).
platform::Status MyReadProc(void* context, int64_t position, uint32_t request, void* destination,
                            uint32_t* actualCount) noexcept;
int64_t MyGetSizeProc(void* context) noexcept;

// Tag-dictionary rules, apart from any container: text values of 512 bytes or more become
// empty; the first artwork key present wins, even with an empty value.
std::string audio_metadata_text(const platform::InfoDictionary& info, const char* key);
void audio_metadata_from_info(const platform::InfoDictionary& info, audio_metadata* metadata);

} // namespace pelora::gamedev::core
