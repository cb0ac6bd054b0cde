// The movie writer's sound tracks: FFmpeg's AAC encoder fed whole frames from a FIFO, with
// blocks laid end to end at the frames they were given for.

#include "media/movie_writer_ffmpeg.h"

#include <algorithm>

namespace plim::ffmpeg {

Result<SoundEncoder> SoundEncoder::open(const MovieWriter::SoundTrack& track, AVFormatContext* format)
{
    const AVCodec* aac = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!aac)
        return fail("this build has no AAC encoder");
    SoundEncoder encoder;
    encoder.m_track = track;
    encoder.m_codec.reset(avcodec_alloc_context3(aac));
    AVCodecContext* a = encoder.m_codec.get();
    a->sample_fmt = AV_SAMPLE_FMT_FLTP;
    a->sample_rate = track.sampleRate;
    av_channel_layout_default(&a->ch_layout, track.channels);
    a->bit_rate = track.bitsPerSecond;
    a->time_base = AVRational{1, track.sampleRate};
    if (format->oformat->flags & AVFMT_GLOBALHEADER)
        a->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (int rc = avcodec_open2(a, aac, nullptr); rc < 0)
        return fail(concat("the sound track was refused by the encoder (", errorText(rc), ")"));
    encoder.m_stream = avformat_new_stream(format, nullptr);
    avcodec_parameters_from_context(encoder.m_stream->codecpar, a);
    encoder.m_stream->time_base = a->time_base;
    encoder.m_fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, track.channels, a->frame_size * 4));
    return encoder;
}

SoundPlanes SoundEncoder::accept(const float* interleaved, int64_t frames, int64_t startFrame)
{
    const int channels = m_track.channels;
    int64_t skip = std::max<int64_t>(0, m_accepted - startFrame); // already given
    int64_t gap = std::max<int64_t>(0, startFrame - m_accepted);  // silence to fill
    if (skip >= frames)
        return {};
    int64_t count = gap + frames - skip;
    SoundPlanes planes(channels, std::vector<float>(static_cast<size_t>(count), 0.0f));
    for (int64_t i = skip; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            planes[c][gap + i - skip] = interleaved[i * channels + c];
    m_accepted += count;
    return planes;
}

int SoundEncoder::encode(const SoundPlanes& planes, AVFormatContext* format)
{
    std::vector<void*> data;
    for (const auto& plane : planes)
        data.push_back(const_cast<float*>(plane.data()));
    if (int rc = av_audio_fifo_write(m_fifo.get(), data.data(), static_cast<int>(planes[0].size())); rc < 0)
        return rc;
    return encodeQueued(format, false);
}

int SoundEncoder::flush(AVFormatContext* format)
{
    return encodeQueued(format, true);
}

int SoundEncoder::encodeQueued(AVFormatContext* format, bool flush)
{
    AVCodecContext* a = m_codec.get();
    int frameSize = a->frame_size > 0 ? a->frame_size : 1024;
    for (;;) {
        int available = av_audio_fifo_size(m_fifo.get());
        if (available == 0 || (available < frameSize && !flush))
            break;
        int n = std::min(available, frameSize);
        FramePtr frame(av_frame_alloc());
        frame->format = a->sample_fmt;
        av_channel_layout_copy(&frame->ch_layout, &a->ch_layout);
        frame->sample_rate = a->sample_rate;
        // The last block is padded with silence unless the encoder takes a short one.
        bool shortOk = a->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME;
        frame->nb_samples = (n < frameSize && !shortOk) ? frameSize : n;
        if (av_frame_get_buffer(frame.get(), 0) < 0)
            return AVERROR(ENOMEM);
        av_samples_set_silence(frame->data, 0, frame->nb_samples, a->ch_layout.nb_channels, a->sample_fmt);
        av_audio_fifo_read(m_fifo.get(), reinterpret_cast<void**>(frame->data), n);
        frame->pts = m_encoded;
        m_encoded += frame->nb_samples;
        int rc = avcodec_send_frame(a, frame.get());
        if (rc < 0)
            return rc;
        if ((rc = drainEncoder(a, m_stream, format)) < 0)
            return rc;
    }
    if (flush) {
        int rc = avcodec_send_frame(a, nullptr);
        if (rc < 0 && rc != AVERROR_EOF)
            return rc;
        return drainEncoder(a, m_stream, format);
    }
    return 0;
}

} // namespace plim::ffmpeg
