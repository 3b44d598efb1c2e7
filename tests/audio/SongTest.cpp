// Songs from real encoded files: formats, channel counts and rates, both load paths, exact
// lossless samples, lengths equal to the frames decoded, sample-exact decoder seeks, tags and
// covers, the memory block's ownership, and the failure paths.
//
// [SECTION] Formats, loads and seeks
// [SECTION] Tags and covers
// [SECTION] The memory block, the read callbacks and the failure paths

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

#include "audio/audio.h"
#include "audio/internal/song_internal.h"
#include "audio/platform/Decoder.h"
#include "support/TestMedia.h"

namespace pelora::gamedev::core {
namespace {

using brisvale::test::EncodeRequest;
using brisvale::test::TempDir;

// ---------------------------------------------------------------------------------------------
// [SECTION] Formats, loads and seeks
// ---------------------------------------------------------------------------------------------

struct FormatCase {
    const char* name;
    const char* muxer;
    const char* encoder;
    const char* extension;
    int rate;
    int channels;
    bool lossless;
    // The stream states the encoder's delay, so the decoded signal lines up with the source;
    // raw streams (ADTS, MP3 without a Xing/LAME header) play the encoder's priming too.
    bool delayStated = true;
    std::map<std::string, std::string> muxerOptions = {};
    bool streamed = false;  // no length in the container: it is counted
};

void PrintTo(const FormatCase& c, std::ostream* os) { *os << c.name; }

const FormatCase kFormats[] = {
    {"wav_stereo_44k", "wav", "pcm_s16le", "wav", 44100, 2, true},
    {"wav_mono_32k", "wav", "pcm_s16le", "wav", 32000, 1, true},
    {"aiff_51_48k", "aiff", "pcm_s16be", "aiff", 48000, 6, true},
    {"flac_51_48k", "flac", "flac", "flac", 48000, 6, true},
    {"flac_mono_44k", "flac", "flac", "flac", 44100, 1, true},
    {"vorbis_stereo_44k", "ogg", "libvorbis", "ogg", 44100, 2, false},
    {"opus_51_48k", "ogg", "libopus", "opus", 48000, 6, false},
    {"opus_mono_48k", "ogg", "libopus", "opus", 48000, 1, false},
    {"aac_m4a_stereo_44k", "ipod", "aac", "m4a", 44100, 2, false},
    {"aac_m4a_51_48k", "ipod", "aac", "m4a", 48000, 6, false},
    {"aac_m4a_mono_32k", "ipod", "aac", "m4a", 32000, 1, false},
    {"mp3_stereo_44k", "mp3", "libmp3lame", "mp3", 44100, 2, false},
    {"mp3_mono_32k", "mp3", "libmp3lame", "mp3", 32000, 1, false},
    // Lengths that the container does not store.
    {"aac_adts_stereo_48k", "adts", "aac", "aac", 48000, 2, false, false},
    {"mp3_no_xing_stereo_44k", "mp3", "libmp3lame", "mp3", 44100, 2, false, false, {{"write_xing", "0"}, {"write_id3v1", "1"}}},
    {"mp3_no_xing_mono_24k", "mp3", "libmp3lame", "mp3", 24000, 1, false, false, {{"write_xing", "0"}}},
    {"mp2_raw_stereo_48k", "mp2", "mp2", "mp2", 48000, 2, false, false},
    {"ac3_raw_51_48k", "ac3", "ac3", "ac3", 48000, 6, false, false},
    {"flac_streamed_stereo_44k", "flac", "flac", "flac", 44100, 2, true, true, {}, true},
    {"wav_streamed_mono_32k", "wav", "pcm_s16le", "wav", 32000, 1, true, true, {}, true},
    {"vorbis_mka_streamed_stereo_44k", "matroska", "libvorbis", "mka", 44100, 2, false, false, {}, true},
    {"opus_webm_streamed_stereo_48k", "webm", "libopus", "webm", 48000, 2, false, true, {}, true},
};

constexpr double kSeconds = 0.6;

template <typename Sample>
std::vector<Sample> decodeAll(audio_song& song) {
    const uint32_t channels = song.clientFormat.mChannelsPerFrame;
    std::vector<Sample> all;
    std::vector<Sample> chunk(1000 * channels);
    for (;;) {
        uint32_t frames = 1000;
        const platform::Status st = platform::decoderRead(song.extFile, &frames, chunk.data(),
                                                          static_cast<uint32_t>(chunk.size() * sizeof(Sample)));
        EXPECT_EQ(st, 0);
        if (frames == 0 || st != 0) {
            break;
        }
        all.insert(all.end(), chunk.begin(), chunk.begin() + frames * channels);
    }
    return all;
}

template <typename Sample>
std::vector<Sample> readAt(audio_song& song, int64_t frame, uint32_t frames) {
    EXPECT_EQ(platform::decoderSeek(song.extFile, frame), 0);
    std::vector<Sample> out(static_cast<size_t>(frames) * song.clientFormat.mChannelsPerFrame);
    uint32_t got = frames;
    EXPECT_EQ(platform::decoderRead(song.extFile, &got, out.data(), static_cast<uint32_t>(out.size() * sizeof(Sample))), 0);
    out.resize(static_cast<size_t>(got) * song.clientFormat.mChannelsPerFrame);
    return out;
}

double maxDiff(const std::vector<float>& a, size_t offset, const std::vector<float>& b) {
    double worst = 0;
    for (size_t i = 0; i < b.size() && offset + i < a.size(); ++i) {
        worst = std::max(worst, std::fabs(static_cast<double>(a[offset + i]) - b[i]));
    }
    return worst;
}

double rmsDiff(const std::vector<float>& a, size_t offset, const std::vector<float>& b) {
    double sum = 0;
    size_t n = 0;
    for (size_t i = 0; i < b.size() && offset + i < a.size(); ++i, ++n) {
        const double d = static_cast<double>(a[offset + i]) - b[i];
        sum += d * d;
    }
    return n > 0 ? std::sqrt(sum / n) : 0.0;
}

class SongFormatTest : public ::testing::TestWithParam<FormatCase> {
protected:
    void SetUp() override {
        const FormatCase& c = GetParam();
        if (!brisvale::test::encoderAvailable(c.encoder)) {
            GTEST_SKIP() << "encoder " << c.encoder << " is not built into this FFmpeg";
        }
        frames_ = static_cast<int64_t>(kSeconds * c.rate);
        signal_ = brisvale::test::makeSignal(frames_, c.channels, c.rate);
        path_ = dir_.file(std::string("song.") + c.extension);
        brisvale::test::encodeFile(path_, {c.muxer, c.encoder, c.rate, c.channels, {}, {}, c.muxerOptions, c.streamed},
                                   signal_);
    }

    TempDir dir_;
    std::string path_;
    int64_t frames_ = 0;
    std::vector<int16_t> signal_;
};

TEST_P(SongFormatTest, FileLoadDeliversFloatFramesOfTheFilesOwnShape) {
    const FormatCase& c = GetParam();
    audio_song song{};
    ASSERT_EQ(audio_song_load(&song, path_.c_str()), 0);
    const AudioStreamBasicDescription& f = song.clientFormat;
    EXPECT_EQ(f.mSampleRate, c.rate);
    EXPECT_EQ(f.mFormatFlags, 9u);
    EXPECT_EQ(f.mBitsPerChannel, 32u);
    EXPECT_EQ(f.mChannelsPerFrame, static_cast<uint32_t>(c.channels));
    EXPECT_EQ(f.mBytesPerFrame, 4u * c.channels);
    EXPECT_EQ(song.data, nullptr);

    const std::vector<float> decoded = decodeAll<float>(song);
    const auto decodedFrames = static_cast<int64_t>(decoded.size() / c.channels);
    EXPECT_EQ(decodedFrames, std::llround(song.duration_seconds * c.rate)) << "decoded frames equal the length";
    if (c.delayStated) {
        // FFmpeg's Vorbis decoder never yields the first short block's 128 frames.
        EXPECT_NEAR(decodedFrames, frames_, c.lossless ? 0 : 128);
    } else {
        EXPECT_GE(decodedFrames, frames_);
    }
    if (c.lossless) {
        ASSERT_EQ(decoded.size(), signal_.size());
        for (size_t i = 0; i < decoded.size(); ++i) {
            ASSERT_EQ(decoded[i], signal_[i] / 32768.0f) << "sample " << i;
        }
    } else if (c.delayStated) {
        // Priming and delay are gone: the decoded signal lines up with what was encoded.
        double err = 0;
        double sig = 0;
        for (int64_t k = frames_ / 4; k < frames_ * 3 / 4; ++k) {
            for (int ch = 0; ch < c.channels; ++ch) {
                if (c.channels == 6 && ch == 3 && std::strcmp(c.encoder, "aac") == 0) {
                    continue;  // AAC band-limits the LFE channel
                }
                const double want = signal_[k * c.channels + ch] / 32768.0;
                const double got = decoded[k * c.channels + ch];
                err += (got - want) * (got - want);
                sig += want * want;
            }
        }
        EXPECT_LT(err / sig, 0.05) << "relative error energy";
    }
    audio_song_destroy(&song);
    EXPECT_EQ(song.extFile, nullptr);
}

TEST_P(SongFormatTest, MemoryLoadDeliversS16FramesMatchingTheFileLoad) {
    const FormatCase& c = GetParam();
    audio_song fromFile{};
    ASSERT_EQ(audio_song_load(&fromFile, path_.c_str()), 0);
    const std::vector<float> reference = decodeAll<float>(fromFile);

    const std::vector<uint8_t> bytes = brisvale::test::readFile(path_);
    audio_song song{};
    void* block = brisvale::test::mallocCopy(bytes);
    ASSERT_EQ(audio_song_load_from_memory(&song, block, static_cast<int64_t>(bytes.size())), 0);
    EXPECT_EQ(song.data, block);
    EXPECT_EQ(song.size, static_cast<int64_t>(bytes.size()));
    EXPECT_EQ(song.clientFormat.mFormatFlags, 12u);
    EXPECT_EQ(song.clientFormat.mBitsPerChannel, 16u);
    EXPECT_EQ(song.clientFormat.mBytesPerFrame, 2u * c.channels);
    EXPECT_EQ(song.clientFormat.mChannelsPerFrame, static_cast<uint32_t>(c.channels));
    EXPECT_EQ(song.clientFormat.mSampleRate, c.rate);
    EXPECT_EQ(song.duration_seconds, fromFile.duration_seconds);

    const std::vector<int16_t> decoded = decodeAll<int16_t>(song);
    ASSERT_EQ(decoded.size(), reference.size());
    if (c.lossless) {
        EXPECT_EQ(decoded, signal_);
    } else {
        for (size_t i = 0; i < decoded.size(); ++i) {
            ASSERT_NEAR(decoded[i] / 32768.0, reference[i], 2.0 / 32768.0) << "sample " << i;
        }
    }
    audio_song_destroy(&song);
    EXPECT_EQ(song.data, nullptr);
    EXPECT_EQ(song.extFile, nullptr);
    audio_song_destroy(&fromFile);
}

TEST_P(SongFormatTest, SeeksLandOnTheExactFrame) {
    const FormatCase& c = GetParam();
    audio_song song{};
    ASSERT_EQ(audio_song_load(&song, path_.c_str()), 0);
    const std::vector<float> all = decodeAll<float>(song);
    const auto total = static_cast<int64_t>(all.size() / c.channels);
    // Backwards and forwards, near the start, inside and beyond the codec's run-up, near the end.
    for (int64_t target : {total / 2, int64_t{0}, int64_t{777}, total - 1500, int64_t{12001}, total / 3, total - 1}) {
        const std::vector<float> got = readAt<float>(song, target, 1024);
        ASSERT_EQ(static_cast<int64_t>(got.size() / c.channels), std::min<int64_t>(1024, total - target)) << target;
        const double here = maxDiff(all, static_cast<size_t>(target * c.channels), got);
        if (c.lossless) {
            EXPECT_EQ(here, 0.0) << "target " << target;
        } else {
            // A codec restarted mid-stream may differ slightly; one frame off differs much more.
            const size_t at = static_cast<size_t>(target * c.channels);
            const double rms = rmsDiff(all, at, got);
            const double early = target > 0 ? rmsDiff(all, at - c.channels, got) : 1.0;
            const double late = rmsDiff(all, at + c.channels, got);
            if (got.size() > 64 * static_cast<size_t>(c.channels)) {
                EXPECT_LT(here, 0.03) << "target " << target;
                EXPECT_LT(rms * 8, std::min(early, late)) << "target " << target;
            }
        }
    }
    audio_song_destroy(&song);
}

// Long enough that seeks go through the demuxer's index rather than back to the start.
TEST(SongSeek, SeeksInsideLongerLossyFilesLandOnTheExactFrame) {
    TempDir dir;
    const struct {
        const char* muxer;
        const char* encoder;
        const char* name;
        int rate;
    } cases[] = {{"ogg", "libvorbis", "long.ogg", 44100}, {"ogg", "libopus", "long.opus", 48000},
                 {"ipod", "aac", "long.m4a", 44100}, {"mp3", "libmp3lame", "long.mp3", 44100}};
    for (const auto& c : cases) {
        if (!brisvale::test::encoderAvailable(c.encoder)) {
            continue;
        }
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name);
        brisvale::test::encodeFile(path, {c.muxer, c.encoder, c.rate, 2, {}, {}},
                                   brisvale::test::makeSignal(6 * c.rate, 2, c.rate));
        audio_song song{};
        ASSERT_EQ(audio_song_load(&song, path.c_str()), 0);
        const std::vector<float> all = decodeAll<float>(song);
        ASSERT_EQ(static_cast<double>(all.size() / 2), std::round(song.duration_seconds * c.rate));
        for (int64_t target : {int64_t{5} * c.rate + 17, int64_t{3} * c.rate + 1, int64_t{c.rate} * 4, int64_t{2} * c.rate - 3}) {
            const std::vector<float> got = readAt<float>(song, target, 2048);
            ASSERT_EQ(got.size(), 4096u);
            const auto at = static_cast<size_t>(target * 2);
            EXPECT_LT(maxDiff(all, at, got), 0.03) << "target " << target;
            EXPECT_LT(rmsDiff(all, at, got) * 8, std::min(rmsDiff(all, at - 2, got), rmsDiff(all, at + 2, got)))
                << "target " << target;
        }
        audio_song_destroy(&song);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, SongFormatTest, ::testing::ValuesIn(kFormats),
                         [](const ::testing::TestParamInfo<FormatCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// [SECTION] Tags and covers
// ---------------------------------------------------------------------------------------------

TEST(SongTags, TagsAndCoverComeFromTheContainer) {
    const struct {
        const char* muxer;
        const char* encoder;
        const char* extension;
        bool cover;
    } cases[] = {{"flac", "flac", "flac", true},
                 {"mp3", "libmp3lame", "mp3", true},
                 {"ipod", "aac", "m4a", true},
                 {"ogg", "libvorbis", "ogg", false}};
    TempDir dir;
    for (const auto& c : cases) {
        if (!brisvale::test::encoderAvailable(c.encoder)) {
            continue;
        }
        SCOPED_TRACE(c.extension);
        const std::string path = dir.file(std::string("tagged.") + c.extension);
        EncodeRequest request;
        request.muxer = c.muxer;
        request.encoder = c.encoder;
        request.tags = {{"title", "Glass Harbour"},
                        {"artist", "Ina Vell"},
                        {"album", "Tidewater"},
                        {"date", "2021-04-01"},
                        {"genre", "Ambient"}};
        if (c.cover) {
            request.cover = brisvale::test::makePng(16, 16);
        }
        brisvale::test::encodeFile(path, request, brisvale::test::makeSignal(9600, 2, 48000));

        audio_song probed{};
        ASSERT_EQ(audio_song_probe(&probed, path.c_str()), 0);
        EXPECT_EQ(probed.title, "Glass Harbour");
        EXPECT_EQ(probed.artist, "Ina Vell");
        EXPECT_EQ(probed.album, "Tidewater");
        EXPECT_EQ(probed.year, "2021");
        EXPECT_EQ(probed.genre, "Ambient");
        EXPECT_EQ(probed.artwork, request.cover);
        EXPECT_NEAR(probed.duration_seconds, 0.2, 0.03);
        // A probed song cannot be played.
        EXPECT_EQ(probed.extFile, nullptr);
        const AudioStreamBasicDescription zero{};
        EXPECT_EQ(std::memcmp(&probed.clientFormat, &zero, sizeof zero), 0);

        const std::vector<uint8_t> bytes = brisvale::test::readFile(path);
        audio_song loaded{};
        ASSERT_EQ(audio_song_load_from_memory(&loaded, brisvale::test::mallocCopy(bytes), static_cast<int64_t>(bytes.size())), 0);
        EXPECT_EQ(loaded.title, probed.title);
        EXPECT_EQ(loaded.year, "2021");
        EXPECT_EQ(loaded.artwork, request.cover);
        audio_song_destroy(&loaded);
        EXPECT_TRUE(loaded.artwork.empty()) << "destroy empties the artwork";
        EXPECT_EQ(loaded.title, "Glass Harbour") << "the strings stay with the record";
    }
}

TEST(SongTags, UntaggedFileHasEmptyTagsAndLongTitlesComeOutEmpty) {
    TempDir dir;
    const std::string plain = dir.file("plain.flac");
    brisvale::test::encodeFile(plain, {"flac", "flac", 48000, 2, {}, {}}, brisvale::test::makeSignal(4800, 2, 48000));
    audio_song song{};
    ASSERT_EQ(audio_song_probe(&song, plain.c_str()), 0);
    EXPECT_TRUE(song.title.empty() && song.artist.empty() && song.album.empty() && song.year.empty() &&
                song.genre.empty() && song.artwork.empty());

    const std::string longTitle(600, 'x');
    const std::string fits(511, 'y');
    const std::string tagged = dir.file("long.flac");
    brisvale::test::encodeFile(tagged, {"flac", "flac", 48000, 2, {{"title", longTitle}, {"artist", fits}}, {}},
                               brisvale::test::makeSignal(4800, 2, 48000));
    ASSERT_EQ(audio_song_probe(&song, tagged.c_str()), 0);
    EXPECT_EQ(song.title, "");
    EXPECT_EQ(song.artist, fits);
}

// A tag must fit the library's 512-byte buffer with its terminator. Of the artwork keys the first
// present wins, even when empty (the container's own picture is then looked for).
TEST(SongTags, ATagFillingTheBufferComesOutEmptyAndTheFirstArtworkKeyWins) {
    platform::InfoDictionary info;
    info.strings["title"] = std::string(511, 'a');
    info.strings["genre"] = std::string(512, 'b');
    info.blobs["album artwork"] = {2};
    info.blobs["Album Artwork"] = {3, 3};
    audio_metadata m;
    audio_metadata_from_info(info, &m);
    EXPECT_EQ(m.title.size(), 511u);
    EXPECT_TRUE(m.genre.empty());
    EXPECT_EQ(m.artwork, (std::vector<uint8_t>{2}));
    info.blobs["artwork"] = {};
    m = {};
    audio_metadata_from_info(info, &m);
    EXPECT_TRUE(m.artwork.empty());
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The memory block, the read callbacks and the failure paths
// ---------------------------------------------------------------------------------------------

TEST(SongMemory, ReadProcServesTheBlockAndEmptyReadsOutsideIt) {
    audio_song song{};
    std::vector<uint8_t> block = {10, 11, 12, 13, 14};
    song.data = block.data();
    song.size = static_cast<int64_t>(block.size());
    uint8_t out[8] = {};
    uint32_t n = 99;
    EXPECT_EQ(MyReadProc(&song, 1, 3, out, &n), 0);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(out[0], 11);
    EXPECT_EQ(out[2], 13);
    EXPECT_EQ(MyReadProc(&song, 3, 8, out, &n), 0);
    EXPECT_EQ(n, 2u) << "cut to what remains";
    EXPECT_EQ(out[1], 14);
    EXPECT_EQ(MyReadProc(&song, 5, 1, out, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(MyReadProc(&song, 500, 1, out, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(MyReadProc(&song, -1, 1, out, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(MyGetSizeProc(&song), 5);
}

// Every failing memory load frees the block: under LeakSanitizer a leak fails this binary, and
// a second free of the same block aborts it.
TEST(SongMemory, FailedLoadsFreeTheBlockAndLeaveTheRecordReset) {
    EXPECT_EQ(audio_song_load_from_memory(nullptr, std::malloc(16), 16), -1);
    audio_song song{};
    EXPECT_EQ(audio_song_load_from_memory(&song, std::malloc(16), 0), -1);
    EXPECT_EQ(audio_song_load_from_memory(&song, std::malloc(16), -4), -1);
    EXPECT_EQ(audio_song_load_from_memory(&song, nullptr, 16), -1);

    song.title = "left over";
    void* garbage = std::malloc(4096);
    std::memset(garbage, 0x5A, 4096);
    EXPECT_EQ(audio_song_load_from_memory(&song, garbage, 4096), -1);
    EXPECT_EQ(song.data, nullptr);
    EXPECT_EQ(song.size, 0);
    EXPECT_EQ(song.extFile, nullptr);
    EXPECT_EQ(song.title, "");
    audio_song_destroy(&song);  // nothing left to free
}

// Read without a player, as a tool that writes the music into a file does; then destroyed.
TEST(SongMemory, ReadAndSeekDeliverTheSongsOwnFramesWithoutAPlayer) {
    TempDir dir;
    const std::string path = dir.file("a.flac");
    const std::vector<int16_t> signal = brisvale::test::makeSignal(30000, 2, 44100);
    brisvale::test::encodeFile(path, {"flac", "flac", 44100, 2, {}, {}}, signal);
    const std::vector<uint8_t> bytes = brisvale::test::readFile(path);
    audio_song song{};
    std::vector<int16_t> out(2 * 4000, 0);
    uint32_t frames = 4000;
    EXPECT_EQ(audio_song_read(&song, out.data(), &frames), -1) << "nothing loaded";
    EXPECT_EQ(audio_song_seek(&song, 0), -1);
    ASSERT_EQ(audio_song_load_from_memory(&song, brisvale::test::mallocCopy(bytes), static_cast<int64_t>(bytes.size())), 0);
    EXPECT_EQ(audio_song_read(nullptr, out.data(), &frames), -1);
    EXPECT_EQ(audio_song_read(&song, out.data(), nullptr), -1);
    EXPECT_EQ(audio_song_read(&song, nullptr, &frames), -1);
    EXPECT_EQ(audio_song_seek(&song, -1), -1);

    // Forwards past where a read stands, then back; each read begins at the frame asked for.
    for (const int64_t target : {int64_t{20011}, int64_t{3}, int64_t{0}, int64_t{29000}}) {
        ASSERT_EQ(audio_song_seek(&song, target), 0);
        frames = 4000;
        ASSERT_EQ(audio_song_read(&song, out.data(), &frames), 0);
        ASSERT_EQ(frames, std::min<int64_t>(4000, 30000 - target)) << target;
        EXPECT_TRUE(std::equal(out.begin(), out.begin() + 2 * frames, signal.begin() + 2 * target)) << target;
    }
    frames = 4000;
    EXPECT_EQ(audio_song_read(&song, out.data(), &frames), 0);
    EXPECT_EQ(frames, 0u) << "the end is an empty read, not an error";

    // Destroy releases once and ignores null; the size and length stay as they were.
    audio_song_destroy(&song);
    audio_song_destroy(&song);
    audio_song_destroy(nullptr);
    EXPECT_EQ(song.data, nullptr);
    EXPECT_EQ(song.size, static_cast<int64_t>(bytes.size()));
    EXPECT_EQ(audio_song_duration(&song), 30000.0 / 44100.0);
    EXPECT_EQ(audio_song_duration(nullptr), -1.0);
}

// A FIFO blocks whoever opens it for reading until a writer comes, and a device may never end:
// the path loaders refuse anything but a regular file, at once.
TEST(SongFailures, APathThatIsNoRegularFileIsRefusedWithoutBlocking) {
    TempDir dir;
    const std::string fifo = dir.file("music.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    alarm(10);  // a loader that blocks ends this binary instead of hanging it
    audio_set_error_logging(true);
    testing::internal::CaptureStderr();
    audio_song song{};
    EXPECT_EQ(audio_song_load(&song, fifo.c_str()), -1);
    EXPECT_EQ(audio_song_probe(&song, fifo.c_str()), -1);
    const std::string out = testing::internal::GetCapturedStderr();
    audio_set_error_logging(false);
    alarm(0);
    const std::string line = "ExtAudioFileOpenURL failed: " + std::to_string(platform::kStatusNotRegularFile) + "\n";
    EXPECT_EQ(out, line + line);
}

TEST(SongFailures, PathFailuresReturnMinusOneAndReportOnlyWithLoggingOn) {
    TempDir dir;
    const std::string missing = dir.file("missing.flac");
    audio_song song{};

    // Off by default: nothing is printed.
    testing::internal::CaptureStderr();
    EXPECT_EQ(audio_song_load(&song, missing.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    audio_set_error_logging(true);
    testing::internal::CaptureStderr();
    EXPECT_EQ(audio_song_load(&song, missing.c_str()), -1);
    EXPECT_EQ(audio_song_probe(&song, dir.path().c_str()), -1) << "a directory fails before any decoder";
    EXPECT_EQ(audio_song_load(&song, nullptr), -1);
    EXPECT_EQ(audio_song_probe(nullptr, missing.c_str()), -1);
    EXPECT_EQ(audio_song_load_from_memory(&song, brisvale::test::mallocCopy(std::vector<uint8_t>(2000, 0x41)), 2000), -1);
    const std::string out = testing::internal::GetCapturedStderr();
    audio_set_error_logging(false);
    EXPECT_EQ(out.rfind("ExtAudioFileOpenURL failed: -", 0), 0u) << out;
    EXPECT_NE(out.find("\nAudioFileOpenWithCallbacks failed: -"), std::string::npos) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;

    testing::internal::CaptureStderr();
    EXPECT_EQ(audio_song_load(&song, missing.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "switched off again";
}

} // namespace
} // namespace pelora::gamedev::core
