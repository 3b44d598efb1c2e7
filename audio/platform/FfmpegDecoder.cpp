// The decoder on FFmpeg: container readers over a path or a memory block (custom AVIO with read,
// seek and size callbacks), tags and cover from the container, a codec plus libswresample that
// deliver interleaved float32 or s16 frames at the file's own rate and channel count, the exact
// length in frames (from the container, else counted), and sample-exact seeking.
//
// [SECTION] Log
// [SECTION] Reader
// [SECTION] Tags
// [SECTION] Decoder
// [SECTION] Length
// [SECTION] Read
// [SECTION] Count
// [SECTION] Seek

#include "audio/platform/Decoder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include "audio/internal/messages.h"
#include "audio/platform/FfmpegHandles.h"

namespace pelora::gamedev::core {
namespace platform {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Log
// ---------------------------------------------------------------------------------------------
// FFmpeg's own complaints follow the library's logging switch: errors only, and only
// while logging is on. Installed once per process.
void ffmpegLog(void*, int level, const char* format, va_list args) {
    if (level > AV_LOG_ERROR || !audio_internal_error_reporting.load(std::memory_order_relaxed)) {
        return;
    }
    std::vfprintf(stderr, format, args);
}

void installFfmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(ffmpegLog); });
}

constexpr int kIoBufferSize = 32768;
// A path's URL. The reader opens the file itself; FFmpeg sees the URL only as the file's name
// ("file:" keeps a colon in the name from reading as a protocol).
constexpr const char* kFileUrlPrefix = "file:";

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Reader
// ---------------------------------------------------------------------------------------------

// A file descriptor closed with its owner.
struct FileDescriptor {
    int fd = -1;
    FileDescriptor() = default;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

struct ContainerReader {
    // A reader on a path reads this regular file through fileRead; declared first so that it is
    // closed last.
    FileDescriptor file;
    // Declared before `format` so that it is released after it: the format context reads
    // through it until it is closed.
    ffmpeg::CustomIo io;
    ffmpeg::InputFormat format;
    int audioStream = -1;

    void* context = nullptr;
    ReadProc read = nullptr;
    GetSizeProc getSize = nullptr;
    int64_t position = 0;
    std::string name;  // the file's URL, for the format probe's look at the extension; empty for memory

    AVStream* stream() const { return format->streams[audioStream]; }
};

namespace {

int ioRead(void* opaque, uint8_t* buffer, int size) {
    auto* r = static_cast<ContainerReader*>(opaque);
    uint32_t count = 0;
    const Status status = r->read(r->context, r->position, static_cast<uint32_t>(size), buffer, &count);
    if (status != 0) {
        return AVERROR(EIO);
    }
    if (count == 0) {
        return AVERROR_EOF;
    }
    r->position += count;
    return static_cast<int>(count);
}

int64_t ioSeek(void* opaque, int64_t offset, int whence) {
    auto* r = static_cast<ContainerReader*>(opaque);
    const int64_t size = r->getSize(r->context);
    if (whence & AVSEEK_SIZE) {
        return size;
    }
    int64_t target = 0;
    switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET: target = offset; break;
    case SEEK_CUR: target = r->position + offset; break;
    case SEEK_END: target = size + offset; break;
    default: return AVERROR(EINVAL);
    }
    if (target < 0) {
        return AVERROR(EINVAL);
    }
    r->position = target;
    return target;
}

// The read and size callbacks of a reader on a file (context = the reader).
Status fileRead(void* context, int64_t position, uint32_t request, void* destination, uint32_t* actualCount) {
    const auto* r = static_cast<const ContainerReader*>(context);
    ssize_t n = -1;
    do {
        n = ::pread(r->file.fd, destination, request, position);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        *actualCount = 0;
        return AVERROR(errno);
    }
    *actualCount = static_cast<uint32_t>(n);
    return 0;
}

int64_t fileSize(void* context) {
    struct stat st {};
    return ::fstat(static_cast<const ContainerReader*>(context)->file.fd, &st) == 0 ? st.st_size : 0;
}

Status finishOpen(std::unique_ptr<ContainerReader>& reader, AVFormatContext* format) {
    reader->format.reset(format);
    int rc = avformat_find_stream_info(format, nullptr);
    if (rc < 0) {
        return rc;
    }
    rc = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (rc < 0) {
        return kStatusUnsupportedFile;
    }
    reader->audioStream = rc;
    // Only the audio stream is read on; pictures are taken from attached_pic directly.
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        if (static_cast<int>(i) != rc) {
            format->streams[i]->discard = AVDISCARD_ALL;
        }
    }
    return 0;
}

// Opens the container through the reader's callbacks (set by the caller).
Status openThroughCallbacks(std::unique_ptr<ContainerReader> reader, ContainerReader** out) {
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    if (buffer == nullptr) {
        return kStatusOutOfMemory;
    }
    AVIOContext* io = avio_alloc_context(buffer, kIoBufferSize, 0, reader.get(), ioRead, nullptr, ioSeek);
    if (io == nullptr) {
        av_free(buffer);
        return kStatusOutOfMemory;
    }
    reader->io.reset(io);

    AVFormatContext* format = avformat_alloc_context();
    if (format == nullptr) {
        return kStatusOutOfMemory;
    }
    format->pb = io;
    format->flags |= AVFMT_FLAG_CUSTOM_IO;
    // On failure avformat_open_input frees the context (not our I/O context).
    const int rc = avformat_open_input(&format, reader->name.empty() ? nullptr : reader->name.c_str(), nullptr, nullptr);
    if (rc < 0) {
        return rc;
    }
    if (const Status st = finishOpen(reader, format); st != 0) {
        return st;
    }
    *out = reader.release();
    return 0;
}

// A second reader over the same bytes, positioned at the start.
Status containerReopen(const ContainerReader& r, ContainerReader** out) {
    *out = nullptr;
    std::unique_ptr<ContainerReader> reader(new (std::nothrow) ContainerReader);
    if (!reader) {
        return kStatusOutOfMemory;
    }
    try {
        reader->name = r.name;
    } catch (...) {
        return kStatusOutOfMemory;
    }
    if (r.file.fd >= 0) {
        reader->file.fd = ::fcntl(r.file.fd, F_DUPFD_CLOEXEC, 0);
        if (reader->file.fd < 0) {
            return AVERROR(errno);
        }
        reader->context = reader.get();
        reader->read = fileRead;
        reader->getSize = fileSize;
    } else {
        reader->context = r.context;
        reader->read = r.read;
        reader->getSize = r.getSize;
    }
    return openThroughCallbacks(std::move(reader), out);
}

} // namespace

bool fileUrlFromPath(const char* path, std::string* url) noexcept {
    if (path == nullptr || *path == '\0') {
        return false;
    }
    struct stat st {};
    if (::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        return false;
    }
    try {
        *url = std::string(kFileUrlPrefix) + path;
    } catch (...) {
        return false;
    }
    return true;
}

Status containerOpenUrl(const std::string& url, ContainerReader** out) noexcept {
    installFfmpegLog();
    *out = nullptr;
    if (url.rfind(kFileUrlPrefix, 0) != 0) {
        return kStatusParam;
    }
    std::unique_ptr<ContainerReader> reader(new (std::nothrow) ContainerReader);
    if (!reader) {
        return kStatusOutOfMemory;
    }
    const char* path = url.c_str() + std::strlen(kFileUrlPrefix);
    // Without O_NONBLOCK, opening a FIFO would wait for a writer. Only a regular file is read: a
    // FIFO or a device could block a read or never end.
    reader->file.fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (reader->file.fd < 0) {
        return AVERROR(errno);
    }
    struct stat st {};
    if (::fstat(reader->file.fd, &st) != 0) {
        return AVERROR(errno);
    }
    if (!S_ISREG(st.st_mode)) {
        return kStatusNotRegularFile;
    }
    try {
        reader->name = url;
    } catch (...) {
        return kStatusOutOfMemory;
    }
    reader->context = reader.get();
    reader->read = fileRead;
    reader->getSize = fileSize;
    return openThroughCallbacks(std::move(reader), out);
}

Status containerOpenWithCallbacks(void* context, ReadProc read, GetSizeProc getSize, ContainerReader** out) noexcept {
    installFfmpegLog();
    *out = nullptr;
    if (read == nullptr || getSize == nullptr) {
        return kStatusParam;
    }
    std::unique_ptr<ContainerReader> reader(new (std::nothrow) ContainerReader);
    if (!reader) {
        return kStatusOutOfMemory;
    }
    reader->context = context;
    reader->read = read;
    reader->getSize = getSize;
    return openThroughCallbacks(std::move(reader), out);
}

void containerClose(ContainerReader* reader) noexcept {
    std::unique_ptr<ContainerReader> owned(reader);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Tags
// ---------------------------------------------------------------------------------------------

namespace {

const char* findTag(const ContainerReader& r, const char* key) {
    // Most containers keep tags on the file, Ogg on the stream.
    if (const AVDictionaryEntry* e = av_dict_get(r.format->metadata, key, nullptr, 0)) {
        return e->value;
    }
    if (const AVDictionaryEntry* e = av_dict_get(r.stream()->metadata, key, nullptr, 0)) {
        return e->value;
    }
    return nullptr;
}

// The year is the leading year of a date tag ("2021-04-01" → "2021"), else the tag as it is.
std::string yearFromDate(const std::string& date) {
    if (date.size() > 4 && std::all_of(date.begin(), date.begin() + 4, [](char c) { return c >= '0' && c <= '9'; }) &&
        (date[4] == '-' || date[4] == 'T' || date[4] == ' ')) {
        return date.substr(0, 4);
    }
    return date;
}

const AVPacket* attachedPicture(const ContainerReader& r, bool frontCoverOnly) {
    for (unsigned i = 0; i < r.format->nb_streams; ++i) {
        const AVStream* s = r.format->streams[i];
        if (!(s->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            continue;
        }
        if (frontCoverOnly) {
            // ID3, FLAC and Vorbis pictures carry their kind as a comment; MP4 covers have none.
            const AVDictionaryEntry* kind = av_dict_get(s->metadata, "comment", nullptr, 0);
            if (kind != nullptr && std::strcmp(kind->value, "Cover (front)") != 0) {
                continue;
            }
        }
        return &s->attached_pic;
    }
    return nullptr;
}

} // namespace

Status containerGetInfoDictionary(ContainerReader* reader, InfoDictionary* info) noexcept {
    if (reader == nullptr || info == nullptr) {
        return kStatusParam;
    }
    try {
        static const std::pair<const char*, const char*> kTags[] = {
            {"title", "title"}, {"artist", "artist"}, {"album", "album"}, {"genre", "genre"}};
        for (const auto& [key, tag] : kTags) {
            if (const char* v = findTag(*reader, tag)) {
                info->strings[key] = v;
            }
        }
        if (const char* date = findTag(*reader, "date")) {
            info->strings["year"] = yearFromDate(date);
        } else if (const char* year = findTag(*reader, "year")) {
            info->strings["year"] = year;
        }
        if (const AVPacket* pic = attachedPicture(*reader, true)) {
            info->blobs["artwork"].assign(pic->data, pic->data + pic->size);
        }
    } catch (...) {
        return kStatusOutOfMemory;
    }
    return 0;
}

Status containerGetAlbumArtwork(ContainerReader* reader, std::vector<uint8_t>* artwork) noexcept {
    if (reader == nullptr || artwork == nullptr) {
        return kStatusParam;
    }
    const AVPacket* pic = attachedPicture(*reader, false);
    if (pic == nullptr) {
        return static_cast<Status>(fourCharCode("pty?"));
    }
    try {
        artwork->assign(pic->data, pic->data + pic->size);
    } catch (...) {
        return kStatusOutOfMemory;
    }
    return 0;
}

} // namespace platform

// ---------------------------------------------------------------------------------------------
// [SECTION] Decoder
// ---------------------------------------------------------------------------------------------

struct audio_decoder {
    std::unique_ptr<platform::ContainerReader> reader;
    ffmpeg::CodecContext codec;
    ffmpeg::Packet packet;
    ffmpeg::Frame frame;
    ffmpeg::Resampler swr;
    AVStream* stream = nullptr;

    AudioStreamBasicDescription client{};
    bool clientSet = false;
    AVSampleFormat outFormat = AV_SAMPLE_FMT_NONE;
    // What the converter was set up for (a decoder may change its output mid-stream).
    int swrInFormat = -1;
    int swrInRate = 0;
    AVChannelLayout swrInLayout{};
    AVChannelLayout outLayout{};

    bool lengthKnown = false;
    int64_t lengthFrames = 0;
    // The length counted where the container states none: done once, 0 when it could not be.
    bool lengthCounted = false;
    int64_t countedFrames = 0;

    // Timestamp (stream time base) of frame 0: the first frame decoded from the start. Frames are
    // placed relative to it; the first one is held until the first read.
    int64_t originPts = 0;
    ffmpeg::Frame held;
    bool heldValid = false;
    // Formats whose timestamps after a demuxer seek are only estimates reach a frame by decoding.
    bool seekByDecoding = false;

    int64_t position = 0;  // frame index of the next frame handed to the caller
    int64_t nextDecoded = 0;  // frame index of the next frame out of the codec
    bool resync = false;  // place the next decoded frame by its timestamp
    bool resyncRunUp = false;  // place every frame by its timestamp until the target
    int64_t discardUntil = 0;  // frames before this index are dropped (a seek's run-up)
    bool drained = false;  // the codec has delivered everything
    bool flushSent = false;

    // Converted frames not yet handed out: `pendingFrames` from `pendingOffset` (bytes).
    std::vector<uint8_t> pending;
    size_t pendingOffset = 0;
    int64_t pendingFrames = 0;

    ~audio_decoder() {
        av_channel_layout_uninit(&swrInLayout);
        av_channel_layout_uninit(&outLayout);
    }
};

namespace platform {
namespace {

// MP3 encoder delay and padding from a LAME tag in the first frame; false without one.
bool lameDelayAndPadding(AVIOContext* io, int64_t* delay, int64_t* padding) {
    uint8_t b[4096];
    const int64_t saved = avio_tell(io);
    if (avio_seek(io, 0, SEEK_SET) < 0) {
        return false;
    }
    const int n = avio_read(io, b, sizeof b);
    avio_seek(io, saved, SEEK_SET);
    if (n < 10) {
        return false;
    }
    size_t at = 0;
    if (std::memcmp(b, "ID3", 3) == 0) {
        at = 10 + ((size_t(b[6] & 0x7F) << 21) | (size_t(b[7] & 0x7F) << 14) | (size_t(b[8] & 0x7F) << 7) | (b[9] & 0x7F));
    }
    while (at + 4 < size_t(n) && !(b[at] == 0xFF && (b[at + 1] & 0xE0) == 0xE0)) {
        ++at;
    }
    if (at + 4 >= size_t(n)) {
        return false;
    }
    const bool mpeg1 = (b[at + 1] & 0x18) == 0x18;
    const bool mono = (b[at + 3] & 0xC0) == 0xC0;
    const size_t sideInfo = mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
    size_t x = at + 4 + sideInfo;
    if (x + 8 > size_t(n) || (std::memcmp(b + x, "Xing", 4) != 0 && std::memcmp(b + x, "Info", 4) != 0)) {
        return false;
    }
    const uint32_t flags = (uint32_t(b[x + 4]) << 24) | (uint32_t(b[x + 5]) << 16) | (uint32_t(b[x + 6]) << 8) | b[x + 7];
    x += 8 + ((flags & 1) ? 4 : 0) + ((flags & 2) ? 4 : 0) + ((flags & 4) ? 100 : 0) + ((flags & 8) ? 4 : 0);
    // LAME extension: 9-byte version string, ..., delay and padding as two 12-bit fields at +21.
    if (x + 24 > size_t(n)) {
        return false;
    }
    *delay = (int64_t(b[x + 21]) << 4) | (b[x + 22] >> 4);
    *padding = (int64_t(b[x + 22] & 0x0F) << 8) | b[x + 23];
    return true;
}

// Matroska and WebM keep times in milliseconds: neither their duration nor their timestamps
// place a frame exactly.
bool millisecondTimestamps(const AVInputFormat* format) { return std::strcmp(format->name, "matroska,webm") == 0; }

// ---------------------------------------------------------------------------------------------
// [SECTION] Length
// ---------------------------------------------------------------------------------------------
// The length in frames where the container states it, equal to the frames decoded:
// WAV/AIFF (data size), FLAC (STREAMINFO), Ogg (last granule, less the Opus pre-skip),
// MP4 (edit list, so AAC priming is already left out), MP3 with a Xing/LAME header (its frame
// count less the encoder delay and padding of the LAME tag). Raw streams (ADTS, MP3 without a
// header) only have FFmpeg's estimate from the bitrate and the file size: that is not used,
// their length is counted ([COUNT]).
bool containerLength(const audio_decoder& d, int64_t* frames) {
    const AVFormatContext* f = d.reader->format.get();
    const AVStream* s = d.stream;
    const int rate = s->codecpar->sample_rate;
    if (rate <= 0 || f->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE || millisecondTimestamps(f->iformat)) {
        return false;
    }
    int64_t n = 0;
    if (s->duration != AV_NOPTS_VALUE && s->duration > 0) {
        n = av_rescale_q(s->duration, s->time_base, AVRational{1, rate});
    } else if (f->duration != AV_NOPTS_VALUE && f->duration > 0) {
        n = av_rescale_q(f->duration, AV_TIME_BASE_Q, AVRational{1, rate});
    } else {
        return false;
    }
    // Where the first decodable frame sits after the stream's start (FFmpeg's Vorbis timestamps
    // with short first blocks), the frames before it never come out: they do not count.
    if (s->start_time != AV_NOPTS_VALUE && d.originPts > s->start_time) {
        const int64_t gap = av_rescale_q(d.originPts - s->start_time, s->time_base, AVRational{1, rate});
        if (gap <= rate) {
            n -= gap;
        }
    }
    if (std::strcmp(f->iformat->name, "ogg") == 0) {
        n -= s->codecpar->initial_padding;
    } else if (std::strcmp(f->iformat->name, "mp3") == 0) {
        int64_t delay = 0;
        int64_t padding = 0;
        if (!lameDelayAndPadding(f->pb, &delay, &padding)) {
            // A Xing header without LAME's fields: the frame count less the decoder's start
            // skip; the last frame's padding is unknown and is played.
            if (s->start_time != AV_NOPTS_VALUE && s->start_time > 0) {
                n -= av_rescale_q(s->start_time, s->time_base, AVRational{1, rate});
            }
        } else {
            n -= delay + padding;
        }
    }
    *frames = n;
    return n > 0;
}

bool timestampsUnreliableAfterSeek(const AVInputFormat* format) {
    // Elementary streams without a sample index: after a byte-position seek their timestamps are
    // guessed from the bitrate.
    static const char* const kNames[] = {"mp3", "aac", "ac3", "eac3", "dts", "mp2", "mpegts", "loas", "latm"};
    for (const char* name : kNames) {
        if (std::strcmp(format->name, name) == 0) {
            return true;
        }
    }
    return millisecondTimestamps(format);
}

int bytesPerSample(AVSampleFormat f) { return av_get_bytes_per_sample(f); }

Status setUpConverter(audio_decoder& d, const AVFrame& frame) {
    SwrContext* raw = nullptr;
    AVChannelLayout inLayout{};
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC || frame.ch_layout.nb_channels == 0) {
        av_channel_layout_default(&inLayout, frame.ch_layout.nb_channels > 0 ? frame.ch_layout.nb_channels
                                                                              : d.outLayout.nb_channels);
    } else if (av_channel_layout_copy(&inLayout, &frame.ch_layout) < 0) {
        return kStatusOutOfMemory;
    }
    // Same layout in and out: no mixing. The output rate is the file's own.
    int rc = swr_alloc_set_opts2(&raw, &d.outLayout, d.outFormat, static_cast<int>(d.client.mSampleRate),
                                 &inLayout, static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    if (rc < 0) {
        av_channel_layout_uninit(&inLayout);
        return rc;
    }
    d.swr.reset(raw);
    if (inLayout.nb_channels == d.outLayout.nb_channels) {
        av_opt_set_int(raw, "rematrix_maxval", 0, 0);
        // Identity: the same channel order in and out, whatever the layout names say.
        av_channel_layout_uninit(&inLayout);
        av_channel_layout_copy(&inLayout, &d.outLayout);
        av_opt_set_chlayout(raw, "in_chlayout", &inLayout, 0);
    }
    rc = swr_init(raw);
    if (rc < 0) {
        av_channel_layout_uninit(&inLayout);
        d.swr.reset();
        return rc;
    }
    d.swrInFormat = frame.format;
    d.swrInRate = frame.sample_rate;
    av_channel_layout_uninit(&d.swrInLayout);
    d.swrInLayout = inLayout;
    return 0;
}

// Converts the codec's current frame (or, with no frame, what the converter still holds) and
// places it at frame index `start`, dropping what lies before `discardUntil` or past the length.
Status convertAndStore(audio_decoder& d, const AVFrame* frame, int64_t start) {
    const int outCount = swr_get_out_samples(d.swr.get(), frame ? frame->nb_samples : 0);
    if (outCount <= 0) {
        return 0;
    }
    const size_t bytesPerFrame = d.client.mBytesPerFrame;
    const size_t needed = static_cast<size_t>(outCount) * bytesPerFrame;
    // Move what is still pending to the front, then convert behind it.
    if (d.pendingOffset > 0) {
        const size_t keep = static_cast<size_t>(d.pendingFrames) * bytesPerFrame;
        std::memmove(d.pending.data(), d.pending.data() + d.pendingOffset, keep);
        d.pendingOffset = 0;
    }
    const size_t used = static_cast<size_t>(d.pendingFrames) * bytesPerFrame;
    if (d.pending.size() < used + needed) {
        d.pending.resize(used + needed);
    }
    uint8_t* out = d.pending.data() + used;
    const int converted = swr_convert(d.swr.get(), &out, outCount, frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr,
                                      frame ? frame->nb_samples : 0);
    if (converted < 0) {
        return converted;
    }
    int64_t first = 0;
    int64_t count = converted;
    if (start < d.discardUntil) {
        first = std::min<int64_t>(count, d.discardUntil - start);
    }
    if (d.lengthKnown) {
        count = std::clamp<int64_t>(d.lengthFrames - start, 0, count);
    }
    if (count > first) {
        if (first > 0) {
            std::memmove(out, out + first * bytesPerFrame, static_cast<size_t>(count - first) * bytesPerFrame);
        }
        d.pendingFrames += count - first;
    }
    return 0;
}

Status openCodec(audio_decoder& d) {
    const AVCodecParameters* par = d.stream->codecpar;
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (codec == nullptr) {
        return kStatusFormatNotSupported;
    }
    ffmpeg::CodecContext c(avcodec_alloc_context3(codec));
    if (!c) {
        return kStatusOutOfMemory;
    }
    int rc = avcodec_parameters_to_context(c.get(), par);
    if (rc < 0) {
        return rc;
    }
    c->pkt_timebase = d.stream->time_base;
    rc = avcodec_open2(c.get(), codec, nullptr);
    if (rc < 0) {
        return rc;
    }
    d.codec = std::move(c);
    return 0;
}

// Seeks the demuxer to the file's start; frames are then counted from 0.
Status rewind(audio_decoder& d) {
    const AVStream* s = d.stream;
    const int64_t start = s->start_time != AV_NOPTS_VALUE ? s->start_time : 0;
    // Aim before the start so that priming packets (MP4 edit lists) are read again: the first
    // real frame needs them to decode as it did the first time.
    const int64_t before = start - av_rescale_q(1, AVRational{1, 1}, s->time_base);
    int rc = avformat_seek_file(d.reader->format.get(), d.reader->audioStream, INT64_MIN, before, start, 0);
    if (rc < 0) {
        rc = av_seek_frame(d.reader->format.get(), d.reader->audioStream, start, AVSEEK_FLAG_BACKWARD);
    }
    if (rc < 0) {
        return rc;
    }
    // A fresh codec, not a flushed one: some (AAC) keep state across a flush, and the start must
    // decode exactly as it did the first time.
    if (const Status st = openCodec(d); st != 0) {
        return st;
    }
    if (d.swr) {
        swr_init(d.swr.get());
    }
    d.heldValid = false;
    av_frame_unref(d.held.get());
    // Where timestamps hold, the first frame places itself (codecs that drop their priming
    // only on the very first read come back with a negative position); else count from 0.
    d.nextDecoded = 0;
    d.resync = !d.seekByDecoding;
    d.drained = false;
    d.flushSent = false;
    d.pendingFrames = 0;
    d.pendingOffset = 0;
    return 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Read
// ---------------------------------------------------------------------------------------------
// The codec's next frame into `frame`: 0, AVERROR_EOF once everything has come out, or
// a failure. Feeds packets of the audio stream as the codec asks for them.
int receiveFrame(audio_decoder& d, AVFrame* frame) {
    if (d.heldValid) {
        av_frame_move_ref(frame, d.held.get());
        d.heldValid = false;
        return 0;
    }
    AVCodecContext* c = d.codec.get();
    for (;;) {
        int rc = avcodec_receive_frame(c, frame);
        if (rc != AVERROR(EAGAIN)) {
            return rc;
        }
        if (d.flushSent) {
            return AVERROR_EOF;
        }
        AVPacket* p = d.packet.get();
        rc = av_read_frame(d.reader->format.get(), p);
        if (rc < 0) {
            // End of input (or a read error, which ends the song the same way): drain the codec.
            avcodec_send_packet(c, nullptr);
            d.flushSent = true;
            continue;
        }
        if (p->stream_index == d.reader->audioStream) {
            rc = avcodec_send_packet(c, p);
            // A damaged packet is skipped, as players do; everything else is a failure.
            if (rc < 0 && rc != AVERROR_INVALIDDATA && rc != AVERROR(EAGAIN)) {
                av_packet_unref(p);
                return rc;
            }
        }
        av_packet_unref(p);
    }
}

int64_t frameTimestamp(const AVFrame& f) {
    return f.best_effort_timestamp != AV_NOPTS_VALUE ? f.best_effort_timestamp : f.pts;
}

// Decodes the first frame at opening and keeps it: its timestamp is frame 0 of the timeline,
// and the length query needs that before anything is read.
void learnOrigin(audio_decoder& d) {
    const int rc = receiveFrame(d, d.held.get());
    d.heldValid = rc == 0;
    const int64_t pts = d.heldValid ? frameTimestamp(*d.held) : AV_NOPTS_VALUE;
    d.originPts = pts != AV_NOPTS_VALUE ? pts : (d.stream->start_time != AV_NOPTS_VALUE ? d.stream->start_time : 0);
}

// Decodes the next frame into `pending`. Returns 0 with `drained` set at the end.
Status decodeMore(audio_decoder& d) {
    AVFrame* f = d.frame.get();
    const int rc = receiveFrame(d, f);
    if (rc == AVERROR_EOF) {
        if (d.swr && d.swrInRate != static_cast<int>(d.client.mSampleRate)) {
            const int64_t before = d.pendingFrames;
            convertAndStore(d, nullptr, d.nextDecoded);
            d.nextDecoded += d.pendingFrames - before;
        }
        d.drained = true;
        return 0;
    }
    if (rc < 0) {
        return rc;
    }
    const int64_t pts = frameTimestamp(*f);
    const int rate = static_cast<int>(d.client.mSampleRate);
    if (d.resyncRunUp && !d.resync && pts != AV_NOPTS_VALUE) {
        d.nextDecoded = av_rescale_q(pts - d.originPts, d.stream->time_base, AVRational{1, rate});
    }
    if (d.resync) {
        if (pts == AV_NOPTS_VALUE) {
            av_frame_unref(f);
            return static_cast<Status>(fourCharCode("pts?"));
        }
        d.nextDecoded = av_rescale_q(pts - d.originPts, d.stream->time_base, AVRational{1, rate});
        d.resync = false;
    }
    if (!d.swr || d.swrInFormat != f->format || d.swrInRate != f->sample_rate ||
        d.swrInLayout.nb_channels != f->ch_layout.nb_channels) {
        if (const Status st = setUpConverter(d, *f); st != 0) {
            av_frame_unref(f);
            return st;
        }
    }
    const Status st = convertAndStore(d, f, d.nextDecoded);
    // With equal rates the converter holds nothing back; resampled output is counted as it comes.
    d.nextDecoded += f->nb_samples * static_cast<int64_t>(rate) / std::max(1, f->sample_rate);
    av_frame_unref(f);
    return st;
}

} // namespace

Status decoderWrapReader(ContainerReader* reader, audio_decoder** out) noexcept {
    *out = nullptr;
    if (reader == nullptr) {
        return kStatusParam;
    }
    std::unique_ptr<audio_decoder> d(new (std::nothrow) audio_decoder);
    if (!d) {
        return kStatusOutOfMemory;
    }
    d->stream = reader->stream();
    d->packet.reset(av_packet_alloc());
    d->frame.reset(av_frame_alloc());
    d->held.reset(av_frame_alloc());
    if (!d->packet || !d->frame || !d->held) {
        return kStatusOutOfMemory;
    }
    if (const Status st = openCodec(*d); st != 0) {
        return st;
    }
    d->seekByDecoding = timestampsUnreliableAfterSeek(reader->format->iformat);
    d->resync = !d->seekByDecoding;
    d->reader.reset(reader);
    learnOrigin(*d);
    *out = d.release();
    return 0;
}

Status decoderOpenUrl(const std::string& url, audio_decoder** out) noexcept {
    *out = nullptr;
    ContainerReader* reader = nullptr;
    if (const Status st = containerOpenUrl(url, &reader); st != 0) {
        return st;
    }
    const Status st = decoderWrapReader(reader, out);
    if (st != 0) {
        containerClose(reader);
    }
    return st;
}

void decoderDispose(audio_decoder* decoder) noexcept {
    std::unique_ptr<audio_decoder> owned(decoder);
}

Status decoderGetFileDataFormat(audio_decoder* d, AudioStreamBasicDescription* format) noexcept {
    if (d == nullptr || format == nullptr) {
        return kStatusParam;
    }
    const AVCodecParameters* par = d->stream->codecpar;
    if (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0) {
        return kStatusFormatNotSupported;
    }
    *format = AudioStreamBasicDescription{};
    format->mSampleRate = par->sample_rate;
    format->mChannelsPerFrame = static_cast<uint32_t>(par->ch_layout.nb_channels);
    format->mFramesPerPacket = par->frame_size > 0 ? static_cast<uint32_t>(par->frame_size) : 0;
    format->mBitsPerChannel = static_cast<uint32_t>(par->bits_per_raw_sample > 0 ? par->bits_per_raw_sample : 0);
    const int pcmBits = av_get_bits_per_sample(par->codec_id);
    if (par->codec_id >= AV_CODEC_ID_PCM_S16LE && par->codec_id < AV_CODEC_ID_ADPCM_IMA_QT && pcmBits > 0) {
        format->mFormatID = kFormatLinearPCM;
        format->mBitsPerChannel = static_cast<uint32_t>(pcmBits);
        format->mBytesPerFrame = format->mChannelsPerFrame * static_cast<uint32_t>(pcmBits / 8);
        format->mBytesPerPacket = format->mBytesPerFrame;
        format->mFramesPerPacket = 1;
    } else {
        // The codec's four-character tag where the container has one (FFmpeg keeps it byte-swapped).
        const uint32_t tag = par->codec_tag;
        format->mFormatID = tag != 0 ? ((tag & 0xFFu) << 24) | ((tag & 0xFF00u) << 8) | ((tag >> 8) & 0xFF00u) | (tag >> 24)
                                     : static_cast<uint32_t>(par->codec_id);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Count
// ---------------------------------------------------------------------------------------------
// Where the container states no length, it is counted once, on a second reader over the
// same bytes, so that the decoder that plays stays where it is. Codecs whose packets state their
// frames are counted packet by packet without decoding (less the start and end trims the stream
// declares, as the codec applies them); the others are decoded, through the same steps as
// decoderRead, so the count is what a read to the end delivers. Both passes keep only a count,
// and give up (length unknown) past fixed bounds of packets, frames and decoded samples.
namespace {

constexpr int64_t kMaxCountedPackets = int64_t{1} << 24;
constexpr int64_t kMaxCountedFrames = int64_t{1} << 31;  // over 12 hours at 48 kHz
constexpr int64_t kMaxDecodedSamples = int64_t{1} << 28;  // about 45 minutes of 48 kHz stereo

// Every packet is whole frames whose count the parser reads from its header, and the codec
// delivers exactly that many (no delay of its own beyond what the stream declares).
bool packetsStateTheirFrames(AVCodecID id) {
    switch (id) {
    case AV_CODEC_ID_MP1:
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_MP3:
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
    case AV_CODEC_ID_FLAC:
        return true;
    default:
        return id >= AV_CODEC_ID_PCM_S16LE && id < AV_CODEC_ID_ADPCM_IMA_QT && av_get_exact_bits_per_sample(id) > 0;
    }
}

uint32_t readLe32(const uint8_t* b) {
    return uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) | (uint32_t(b[3]) << 24);
}

enum class Count { Counted, NeedsDecoding, Unknown };

Count countPackets(ContainerReader& r, int rate, int64_t* frames) {
    ffmpeg::Packet p(av_packet_alloc());
    if (!p) {
        return Count::Unknown;
    }
    const AVRational timeBase = r.stream()->time_base;
    // Packet durations count frames only where one frame is a whole number of time-base ticks.
    if (timeBase.num <= 0 || timeBase.den % (int64_t{rate} * timeBase.num) != 0) {
        return Count::NeedsDecoding;
    }
    int64_t total = 0;
    int64_t packets = 0;
    int64_t skip = 0;
    for (;;) {
        if (av_read_frame(r.format.get(), p.get()) < 0) {
            break;  // the end, or a read error, which ends decoding the same way
        }
        std::unique_ptr<AVPacket, void (*)(AVPacket*)> unref(p.get(), av_packet_unref);
        if (p->stream_index != r.audioStream) {
            continue;
        }
        if (p->duration <= 0) {
            return Count::NeedsDecoding;
        }
        if (++packets > kMaxCountedPackets) {
            return Count::Unknown;
        }
        int64_t n = av_rescale_q(p->duration, timeBase, AVRational{1, rate});
        if (n < 0 || n > kMaxCountedFrames) {
            return Count::Unknown;
        }
        uint32_t discard = 0;
        size_t size = 0;
        if (const uint8_t* side = av_packet_get_side_data(p.get(), AV_PKT_DATA_SKIP_SAMPLES, &size); side && size >= 10) {
            skip = std::max<int32_t>(0, static_cast<int32_t>(readLe32(side)));  // read as the codec reads it
            discard = readLe32(side + 4);
        }
        if (p->flags & AV_PKT_FLAG_DISCARD) {
            skip = std::max<int64_t>(0, skip - n);
            continue;
        }
        const int64_t skipped = std::min(skip, n);
        n -= skipped;
        skip -= skipped;
        if (discard > 0 && discard <= n) {
            n -= discard;
        }
        total += n;
        if (total > kMaxCountedFrames) {
            return Count::Unknown;
        }
    }
    *frames = total;
    return Count::Counted;
}

// Takes the reader.
bool countByDecoding(ContainerReader* reader, int64_t* frames) {
    audio_decoder* raw = nullptr;
    if (decoderWrapReader(reader, &raw) != 0) {
        containerClose(reader);
        return false;
    }
    std::unique_ptr<audio_decoder> c(raw);
    const AVCodecParameters* par = c->stream->codecpar;
    // The sample format does not change the frame count; s16 is the cheaper conversion.
    AudioStreamBasicDescription f{};
    f.mSampleRate = par->sample_rate;
    f.mFormatID = kFormatLinearPCM;
    f.mFormatFlags = kFormatFlagIsSignedInteger | kFormatFlagIsPacked;
    f.mBitsPerChannel = 16;
    f.mChannelsPerFrame = static_cast<uint32_t>(par->ch_layout.nb_channels);
    f.mBytesPerFrame = 2 * f.mChannelsPerFrame;
    f.mBytesPerPacket = f.mBytesPerFrame;
    f.mFramesPerPacket = 1;
    if (decoderSetClientDataFormat(c.get(), f) != 0) {
        return false;
    }
    int64_t total = 0;
    try {
        while (!c->drained) {
            // A failure ends decoderRead's song where it happens, and the count with it.
            if (decodeMore(*c) != 0) {
                break;
            }
            total += c->pendingFrames;
            c->pendingFrames = 0;
            c->pendingOffset = 0;
            if (total > kMaxCountedFrames || total * f.mChannelsPerFrame > kMaxDecodedSamples) {
                return false;
            }
        }
    } catch (...) {
        return false;
    }
    *frames = total;
    return true;
}

int64_t countLength(const audio_decoder& d) {
    const int rate = d.stream->codecpar->sample_rate;
    if (rate <= 0) {
        return 0;
    }
    int64_t frames = 0;
    ContainerReader* reader = nullptr;
    if (packetsStateTheirFrames(d.stream->codecpar->codec_id)) {
        if (containerReopen(*d.reader, &reader) != 0) {
            return 0;
        }
        const Count c = countPackets(*reader, rate, &frames);
        containerClose(reader);
        if (c != Count::NeedsDecoding) {
            return c == Count::Counted ? frames : 0;
        }
    }
    if (containerReopen(*d.reader, &reader) != 0) {
        return 0;
    }
    return countByDecoding(reader, &frames) ? frames : 0;
}

} // namespace

Status decoderGetLengthFrames(audio_decoder* d, int64_t* frames) noexcept {
    if (d == nullptr || frames == nullptr) {
        return kStatusParam;
    }
    int64_t n = 0;
    if (containerLength(*d, &n)) {
        *frames = n;
        return 0;
    }
    if (!d->lengthCounted) {
        d->lengthCounted = true;
        d->countedFrames = countLength(*d);
    }
    if (d->countedFrames <= 0) {
        return kStatusUnknownLength;
    }
    *frames = d->countedFrames;
    return 0;
}

Status decoderSetClientDataFormat(audio_decoder* d, const AudioStreamBasicDescription& f) noexcept {
    if (d == nullptr) {
        return kStatusParam;
    }
    const AVCodecParameters* par = d->stream->codecpar;
    const uint32_t channels = static_cast<uint32_t>(par->ch_layout.nb_channels);
    AVSampleFormat out = AV_SAMPLE_FMT_NONE;
    if (f.mFormatFlags == (kFormatFlagIsFloat | kFormatFlagIsPacked) && f.mBitsPerChannel == 32) {
        out = AV_SAMPLE_FMT_FLT;
    } else if (f.mFormatFlags == (kFormatFlagIsSignedInteger | kFormatFlagIsPacked) && f.mBitsPerChannel == 16) {
        out = AV_SAMPLE_FMT_S16;
    }
    // Only the file's own rate and channel count, interleaved, one frame per packet.
    if (out == AV_SAMPLE_FMT_NONE || f.mFormatID != kFormatLinearPCM || f.mChannelsPerFrame != channels ||
        f.mSampleRate != static_cast<double>(par->sample_rate) ||
        f.mBytesPerFrame != channels * static_cast<uint32_t>(bytesPerSample(out)) ||
        f.mBytesPerPacket != f.mBytesPerFrame || f.mFramesPerPacket != 1) {
        return kStatusFormatNotSupported;
    }
    av_channel_layout_uninit(&d->outLayout);
    if (par->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        av_channel_layout_default(&d->outLayout, static_cast<int>(channels));
    } else if (av_channel_layout_copy(&d->outLayout, &par->ch_layout) < 0) {
        return kStatusOutOfMemory;
    }
    d->client = f;
    d->outFormat = out;
    d->clientSet = true;
    d->swr.reset();
    d->pendingFrames = 0;
    d->pendingOffset = 0;
    int64_t n = 0;
    d->lengthKnown = containerLength(*d, &n);
    if (!d->lengthKnown && d->countedFrames > 0) {
        d->lengthKnown = true;
        n = d->countedFrames;
    }
    d->lengthFrames = n;
    return 0;
}

Status decoderRead(audio_decoder* d, uint32_t* frames, void* destination, uint32_t bytes) noexcept {
    if (d == nullptr || frames == nullptr || (destination == nullptr && *frames > 0) || !d->clientSet) {
        return kStatusParam;
    }
    const uint32_t bpf = d->client.mBytesPerFrame;
    const uint32_t wanted = std::min(*frames, bytes / bpf);
    auto* out = static_cast<uint8_t*>(destination);
    uint32_t delivered = 0;
    *frames = 0;
    try {
        while (delivered < wanted) {
            if (d->pendingFrames > 0) {
                const int64_t n = std::min<int64_t>(d->pendingFrames, wanted - delivered);
                std::memcpy(out + static_cast<size_t>(delivered) * bpf, d->pending.data() + d->pendingOffset,
                            static_cast<size_t>(n) * bpf);
                d->pendingOffset += static_cast<size_t>(n) * bpf;
                d->pendingFrames -= n;
                if (d->pendingFrames == 0) {
                    d->pendingOffset = 0;
                }
                delivered += static_cast<uint32_t>(n);
                d->position += n;
                continue;
            }
            if (d->drained || (d->lengthKnown && d->nextDecoded >= d->lengthFrames)) {
                break;
            }
            if (const Status st = decodeMore(*d); st != 0) {
                // The song ends at a failure, whatever the sizes of the reads: the counted length
                // stops there too.
                d->drained = true;
                *frames = delivered;
                return delivered > 0 ? 0 : st;
            }
        }
    } catch (...) {
        *frames = delivered;
        return kStatusOutOfMemory;
    }
    *frames = delivered;
    return 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Seek
// ---------------------------------------------------------------------------------------------
// Demuxer seek to a little before the target (codecs need a run-up to settle), then
// decode and drop frames up to it. Where timestamps after a seek cannot be trusted, the target
// is reached by decoding: onwards from where the decoder stands, or again from the start.
Status decoderSeek(audio_decoder* d, int64_t frame) noexcept {
    if (d == nullptr || frame < 0 || !d->clientSet) {
        return kStatusParam;
    }
    try {
        const int rate = static_cast<int>(d->client.mSampleRate);
        // Ogg pages can be long, and FFmpeg guesses the timestamps of the packets of the page it
        // lands in: the run-up spans more than a page, and frames are placed by their timestamps
        // until the target, so the last placement comes from a granule position.
        const bool ogg = std::strcmp(d->reader->format->iformat->name, "ogg") == 0;
        const int64_t runUp = ogg ? 2 * int64_t{rate} : std::max<int64_t>(8192, rate / 5);
        bool fromStart = frame <= runUp;
        if (d->seekByDecoding && !fromStart && frame >= d->position && !d->resync) {
            // Onwards by decoding: drop what is pending before the target, and the rest as it comes.
            const int64_t skip = std::min<int64_t>(d->pendingFrames, frame - d->position);
            d->pendingOffset += static_cast<size_t>(skip) * d->client.mBytesPerFrame;
            d->pendingFrames -= skip;
            d->discardUntil = frame;
            d->position = frame;
            return 0;
        }
        fromStart = fromStart || d->seekByDecoding;
        if (!fromStart) {
            const int64_t ts = d->originPts + av_rescale_q(frame - runUp, AVRational{1, rate}, d->stream->time_base);
            const int rc = avformat_seek_file(d->reader->format.get(), d->reader->audioStream, INT64_MIN, ts, ts, 0);
            if (rc < 0) {
                fromStart = true;
            } else {
                avcodec_flush_buffers(d->codec.get());
                if (d->swr) {
                    swr_init(d->swr.get());
                }
                d->heldValid = false;
                av_frame_unref(d->held.get());
                d->pendingFrames = 0;
                d->pendingOffset = 0;
                d->drained = false;
                d->flushSent = false;
                d->resync = true;
                d->resyncRunUp = true;
                d->discardUntil = frame;
                // Decode the run-up up to the target. The first kept frame must start exactly at
                // it; else the demuxer's landing was coarse and the start is the safe way.
                Status st = 0;
                while (st == 0 && d->pendingFrames == 0 && !d->drained) {
                    st = decodeMore(*d);
                }
                d->resyncRunUp = false;
                if (st != 0 && st != static_cast<Status>(fourCharCode("pts?"))) {
                    return st;
                }
                const bool landed = d->pendingFrames > 0 ? d->nextDecoded - d->pendingFrames == frame : d->drained;
                if (st != 0 || d->resync || !landed) {
                    fromStart = true;
                }
            }
        }
        if (fromStart) {
            if (const Status st = rewind(*d); st != 0) {
                return st;
            }
            d->discardUntil = frame;
        }
        d->position = frame;
        return 0;
    } catch (...) {
        return kStatusOutOfMemory;
    }
}

} // namespace platform
} // namespace pelora::gamedev::core
