// SoundReader over libavformat/libavcodec, resampled by libswresample; the file's sound
// tracks are summed into one 48 kHz stereo float stream.

#include "media/sound_reader.h"

#include "media/ffmpeg_support.h"

#include "base/files.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <system_error>

namespace plim {

using namespace ffmpeg;
namespace fs = std::filesystem;

namespace {

constexpr int64_t blockFrames = 4096;

struct Track {
    int stream = -1;
    CodecPtr decoder;
    SwrPtr resampler;
    std::deque<float> samples; // interleaved stereo, the first one at frame `first`
    int64_t first = -1;        // frame of samples.front(); -1 until the first decoded block
    bool ended = false;

    int64_t end() const { return first + static_cast<int64_t>(samples.size() / 2); }
};

class FfmpegSoundReader final : public SoundReader {
public:
    FfmpegSoundReader(fs::path path, int64_t start) : m_path(std::move(path)), m_position(start) {}

    Status open();
    int64_t position() const override { return m_position; }
    Result<std::vector<float>> read() override;

private:
    // Reads one packet and decodes it into its track; false once the file has ended.
    Result<bool> pump();
    Status decode(Track& track, const AVPacket* packet);
    void place(Track& track, const AVFrame* frame, const float* data, int frames);

    fs::path m_path;
    int64_t m_position = 0;
    InputPtr m_format;
    std::vector<Track> m_tracks;
    double m_origin = 0;
    bool m_fileEnded = false;
    std::optional<Error> m_cutShort; // said once, after the sound before the cut
    std::optional<Error> m_damaged;  // a block that would not decode was left out; said at the end
};

Status FfmpegSoundReader::open()
{
    quietLogs();
    if (auto file = checkOrdinaryFile(m_path); !file) {
        if (file.error().kind == Error::Kind::missing)
            return fail("there is no file at " + m_path.string(), Error::Kind::missing);
        return fail("it cannot be read as a file: " + file.error().sentence, Error::Kind::unreadable);
    }
    AVFormatContext* raw = nullptr;
    int rc = avformat_open_input(&raw, m_path.c_str(), nullptr, nullptr);
    if (rc < 0)
        return fail(concat("it is not a file Plim can read: ", errorText(rc)),
            rc == AVERROR(EACCES) || rc == AVERROR(EPERM) ? Error::Kind::unreadable : Error::Kind::corrupt);
    m_format.reset(raw);
    if ((rc = avformat_find_stream_info(raw, nullptr)) < 0)
        return fail(concat("it could not be read: ", errorText(rc)), Error::Kind::unreadable);
    m_origin = movieOrigin(raw);

    bool anySound = false;
    for (unsigned i = 0; i < raw->nb_streams; ++i) {
        AVStream* stream = raw->streams[i];
        stream->discard = AVDISCARD_ALL;
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
            continue;
        anySound = true;
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (!codec)
            continue;
        Track track;
        track.stream = static_cast<int>(i);
        track.decoder.reset(avcodec_alloc_context3(codec));
        avcodec_parameters_to_context(track.decoder.get(), stream->codecpar);
        track.decoder->pkt_timebase = stream->time_base;
        if (avcodec_open2(track.decoder.get(), codec, nullptr) < 0)
            continue;
        stream->discard = AVDISCARD_DEFAULT;
        m_tracks.push_back(std::move(track));
    }
    if (anySound && m_tracks.empty())
        return fail("no sound track could be decoded", Error::Kind::refused);

    if (m_position > 0 && !m_tracks.empty()) {
        // Start a little early so the decoders settle; frames before the start are dropped.
        double seconds = std::max(0.0, m_position / double(soundSampleRate) - 0.2) + m_origin;
        int64_t ts = static_cast<int64_t>(seconds * AV_TIME_BASE);
        if (av_seek_frame(raw, -1, ts, AVSEEK_FLAG_BACKWARD) < 0)
            av_seek_frame(raw, -1, 0, AVSEEK_FLAG_BACKWARD);
    }
    return {};
}

void FfmpegSoundReader::place(Track& track, const AVFrame* frame, const float* data, int frames)
{
    int64_t ts = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp : frame->pts;
    std::optional<int64_t> at;
    if (ts != AV_NOPTS_VALUE)
        at = std::llround((ts * av_q2d(m_format->streams[track.stream]->time_base) - m_origin) * soundSampleRate);
    if (track.first < 0) {
        track.first = at.value_or(0);
        // A track that starts after the read position is preceded by silence.
        if (track.first > m_position) {
            track.samples.insert(track.samples.end(), static_cast<size_t>(2 * (track.first - m_position)), 0.0f);
            track.first = m_position;
        }
    } else if (at) {
        // Blocks follow one another; where the stream's clock says otherwise by more than a
        // resampler's delay (a block left out, a gap in the recording), the clock wins.
        int64_t gap = *at - track.end();
        if (gap > 64) {
            track.samples.insert(track.samples.end(), static_cast<size_t>(2 * gap), 0.0f);
        } else if (gap < -64) {
            int64_t drop = std::min<int64_t>(-gap, frames);
            data += 2 * drop;
            frames -= static_cast<int>(drop);
        }
    }
    track.samples.insert(track.samples.end(), data, data + 2 * static_cast<size_t>(frames));
    // Frames before the read position are not wanted.
    if (track.first < m_position) {
        int64_t drop = std::min<int64_t>(m_position - track.first, static_cast<int64_t>(track.samples.size() / 2));
        track.samples.erase(track.samples.begin(), track.samples.begin() + 2 * drop);
        track.first += drop;
    }
}

Status FfmpegSoundReader::decode(Track& track, const AVPacket* packet)
{
    AVCodecContext* decoder = track.decoder.get();
    // A damaged block is left out and reported once the sound around it has been given
    // (at the tail of a file cut short, the cut is what gets reported).
    auto damaged = [&](int rc) {
        if (!m_damaged)
            m_damaged = Error{concat("a block of its sound is damaged (", errorText(rc), ")"), Error::Kind::unreadable};
    };
    int rc = avcodec_send_packet(decoder, packet);
    if (rc < 0 && rc != AVERROR_EOF)
        damaged(rc);
    FramePtr frame(av_frame_alloc());
    std::vector<float> converted;
    for (;;) {
        rc = avcodec_receive_frame(decoder, frame.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            break;
        if (rc < 0) {
            damaged(rc);
            break;
        }
        if (!track.resampler) {
            SwrContext* swr = nullptr;
            AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
            if (swr_alloc_set_opts2(&swr, &stereo, AV_SAMPLE_FMT_FLT, soundSampleRate, &frame->ch_layout,
                    static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr) < 0
                || swr_init(swr) < 0) {
                swr_free(&swr);
                return fail("its sound could not be converted to 48 kHz stereo", Error::Kind::unreadable);
            }
            track.resampler.reset(swr);
        }
        int room = swr_get_out_samples(track.resampler.get(), frame->nb_samples);
        converted.resize(2 * static_cast<size_t>(std::max(room, 0)));
        uint8_t* out[1] = {reinterpret_cast<uint8_t*>(converted.data())};
        int n = swr_convert(track.resampler.get(), out, room, const_cast<const uint8_t**>(frame->extended_data),
            frame->nb_samples);
        if (n < 0)
            return fail("its sound could not be converted to 48 kHz stereo", Error::Kind::unreadable);
        place(track, frame.get(), converted.data(), n);
        av_frame_unref(frame.get());
    }
    return {};
}

Result<bool> FfmpegSoundReader::pump()
{
    if (m_fileEnded)
        return false;
    PacketPtr packet(av_packet_alloc());
    int rc = av_read_frame(m_format.get(), packet.get());
    if (rc < 0) {
        m_fileEnded = true;
        for (auto& track : m_tracks) {
            PLIM_TRY(decode(track, nullptr));
            track.ended = true;
        }
        if (rc != AVERROR_EOF) {
            m_cutShort = Error{concat("at ", m_position / double(soundSampleRate), " s (", errorText(rc), ")."),
                Error::Kind::failed};
            return false;
        }
        // A file whose index promises more sound than it holds was cut short.
        for (const auto& track : m_tracks) {
            const AVStream* stream = m_format->streams[track.stream];
            if (stream->duration == AV_NOPTS_VALUE || track.first < 0)
                continue;
            double start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time * av_q2d(stream->time_base) : 0;
            double promised = start + stream->duration * av_q2d(stream->time_base) - m_origin;
            double held = track.end() / double(soundSampleRate);
            if (held + 0.1 < promised) {
                m_cutShort = Error{concat("at ", std::round(held * 100) / 100, " s of ", std::round(promised * 100) / 100,
                                       " s: the file was cut short."),
                    Error::Kind::failed};
                break;
            }
        }
        return false;
    }
    for (auto& track : m_tracks)
        if (track.stream == packet->stream_index)
            PLIM_TRY(decode(track, packet.get()));
    return true;
}

Result<std::vector<float>> FfmpegSoundReader::read()
{
    if (m_tracks.empty())
        return std::vector<float>{};
    // Pull until every track that still runs holds a block past the position.
    auto ready = [&] {
        for (const auto& track : m_tracks)
            if (!track.ended && (track.first < 0 || track.end() < m_position + blockFrames))
                return false;
        return true;
    };
    while (!ready())
        if (!PLIM_TRY(pump()))
            break;
    int64_t end = m_position;
    bool anyLeft = false;
    for (const auto& track : m_tracks) {
        if (track.first < 0)
            continue;
        if (track.ended)
            anyLeft = anyLeft || track.end() > m_position;
        end = std::max(end, track.end());
    }
    // Running tracks limit the block to what all of them hold; ended ones add zeros.
    for (const auto& track : m_tracks)
        if (!track.ended && track.first >= 0)
            end = std::min(end, track.end());
    end = std::min(end, m_position + blockFrames);
    if (end <= m_position && !anyLeft) {
        for (auto* said : {&m_cutShort, &m_damaged})
            if (*said) {
                Error e = **said;
                m_cutShort.reset();
                m_damaged.reset();
                return std::unexpected(e);
            }
        return std::vector<float>{};
    }
    std::vector<float> out(2 * static_cast<size_t>(end - m_position), 0.0f);
    for (auto& track : m_tracks) {
        if (track.first < 0)
            continue;
        int64_t take = std::clamp<int64_t>(end - track.first, 0, static_cast<int64_t>(track.samples.size() / 2));
        for (int64_t i = 0; i < 2 * take; ++i)
            out[static_cast<size_t>(i)] += track.samples[static_cast<size_t>(i)];
        track.samples.erase(track.samples.begin(), track.samples.begin() + 2 * take);
        track.first += take;
    }
    m_position = end;
    return out;
}

} // namespace

Result<std::unique_ptr<SoundReader>> SoundReader::create(const fs::path& path, int64_t startFrame)
{
    auto reader = std::make_unique<FfmpegSoundReader>(path, std::max<int64_t>(startFrame, 0));
    PLIM_TRY(reader->open());
    return std::unique_ptr<SoundReader>(std::move(reader));
}

} // namespace plim
