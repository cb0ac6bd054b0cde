// Plim Camera as a PipeWire video source node, in BGRx or BGRA, or in YUY2 or NV12 for the
// readers that take only YUV (WebRTC's camera in browsers). The node lives on its own pw_thread_loop;
// consume() takes the loop's lock only to copy one frame into a free buffer and queue it,
// and drives the graph with each frame it queues.

#include "live/camera_sink_state.h"
#include "live/camera_sinks.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <mutex>

namespace plim {

namespace {

constexpr uint32_t largestSide = 4096;

void startPipeWire()
{
    static std::once_flag started;
    std::call_once(started, [] { pw_init(nullptr, nullptr); });
}

class PipeWireCameraSink final : public LiveSink {
public:
    explicit PipeWireCameraSink(CameraSinkOptions options)
        : m_options(std::move(options))
        , m_clock(m_options.clock ? *m_options.clock : UptimeClock::shared())
        , m_state(m_options.label + " is not taking frames — PipeWire has stopped pulling. Stop and go live again; if "
              "it persists, restart PipeWire (systemctl --user restart pipewire wireplumber).")
    {
        startPipeWire();
    }

    ~PipeWireCameraSink() override { disconnect(); }

    std::string name() const override { return m_options.label + " (PipeWire)"; }

    void consume(const LiveFrame& frame) override
    {
        m_state.open();
        if (!m_loop && !frame.image.isEmpty() && m_state.mayConnect(m_clock.uptime()))
            connect(frame);
        if (!m_loop) {
            m_state.dropped();
            return;
        }
        pw_thread_loop_lock(m_loop);
        if (!m_broken.empty()) {
            const std::string why = m_broken;
            pw_thread_loop_unlock(m_loop);
            disconnect();
            m_state.failed(m_options.label + " lost PipeWire (" + why
                + "). Check that PipeWire is running (systemctl --user start pipewire wireplumber), then go live again.");
            m_state.dropped();
            return;
        }
        if (m_streamState != PW_STREAM_STATE_STREAMING || m_width == 0) {
            pw_thread_loop_unlock(m_loop);
            m_state.dropped(); // nobody is reading the camera
            return;
        }
        pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
        if (!buffer) {
            pw_thread_loop_unlock(m_loop);
            m_state.refused();
            return;
        }
        const bool filled = fill(buffer, frame);
        pw_stream_queue_buffer(m_stream, buffer);
        if (filled && pw_stream_is_driving(m_stream))
            pw_stream_trigger_process(m_stream);
        pw_thread_loop_unlock(m_loop);
        if (filled)
            m_state.taken();
        else
            m_state.dropped();
    }

    LiveSinkHealth health() const override { return m_state.health(); }

    void close() override
    {
        disconnect();
        m_state.close();
    }

private:
    // With the loop locked: the frame, fitted to the negotiated size, into the buffer in the
    // negotiated layout.
    bool fill(pw_buffer* buffer, const LiveFrame& frame)
    {
        spa_buffer* b = buffer->buffer;
        spa_data& data = b->datas[0];
        if (!data.data || data.maxsize < m_bytes) {
            data.chunk->size = 0;
            return false;
        }
        auto picture = m_fitter.fit(frame.image, static_cast<int>(m_width), static_cast<int>(m_height));
        if (!picture) {
            data.chunk->size = 0;
            return false;
        }
        auto* out = static_cast<uint8_t*>(data.data);
        if (m_pixels == SPA_VIDEO_FORMAT_YUY2 || m_pixels == SPA_VIDEO_FORMAT_NV12) {
            const CameraFormat layout{m_pixels == SPA_VIDEO_FORMAT_YUY2 ? fourccYuyv : fourccNv12,
                static_cast<int>(m_width), static_cast<int>(m_height), 0, static_cast<int>(m_stride), static_cast<int>(m_bytes)};
            if (!writeCameraFrame(*picture, layout, {out, m_bytes})) {
                data.chunk->size = 0;
                return false;
            }
        } else {
            for (uint32_t y = 0; y < m_height; ++y)
                std::memcpy(out + y * m_stride, picture->row(static_cast<int>(y)), m_width * 4);
        }
        data.chunk->offset = 0;
        data.chunk->stride = static_cast<int32_t>(m_stride);
        data.chunk->size = m_bytes;
        data.chunk->flags = 0;
        if (auto* header = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(b, SPA_META_Header, sizeof(spa_meta_header)))) {
            header->flags = 0;
            header->offset = 0;
            header->pts = static_cast<int64_t>(std::llround(frame.time * 1e9));
            header->dts_offset = 0;
            header->seq = static_cast<uint64_t>(frame.sequence);
        }
        return true;
    }

    void connect(const LiveFrame& frame)
    {
        m_loop = pw_thread_loop_new("plim-camera", nullptr);
        if (!m_loop || pw_thread_loop_start(m_loop) < 0) {
            m_state.failed(m_options.label + " could not start its PipeWire thread. Stop and go live again.");
            disconnect();
            return;
        }
        pw_thread_loop_lock(m_loop);
        m_context = pw_context_new(pw_thread_loop_get_loop(m_loop), nullptr, 0);
        m_core = m_context ? pw_context_connect(m_context, nullptr, 0) : nullptr;
        if (!m_core) {
            const std::string why = std::strerror(errno);
            pw_thread_loop_unlock(m_loop);
            disconnect();
            m_state.failed(m_options.label + " could not reach PipeWire (" + why
                + "). Start it with systemctl --user start pipewire wireplumber, then go live again.");
            return;
        }
        static const pw_core_events coreEvents = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.error = [](void* self, uint32_t id, int, int res, const char* message) {
                if (id == PW_ID_CORE && res == -EPIPE)
                    static_cast<PipeWireCameraSink*>(self)->m_broken = message ? message : "disconnected";
            };
            return e;
        }();
        pw_core_add_listener(m_core, &m_coreListener, &coreEvents, this);

        pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
            PW_KEY_MEDIA_ROLE, "Camera", PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME, m_options.label.c_str(),
            PW_KEY_NODE_DESCRIPTION, m_options.label.c_str(), PW_KEY_NODE_NICK, m_options.label.c_str(), nullptr);
        m_stream = pw_stream_new(m_core, m_options.label.c_str(), props);
        static const pw_stream_events streamEvents = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* self, pw_stream_state, pw_stream_state state, const char* error) {
                auto* sink = static_cast<PipeWireCameraSink*>(self);
                sink->m_streamState = state;
                if (state == PW_STREAM_STATE_ERROR)
                    sink->m_broken = error ? error : "the stream failed";
            };
            e.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
                static_cast<PipeWireCameraSink*>(self)->formatChanged(id, param);
            };
            return e;
        }();
        if (m_stream)
            pw_stream_add_listener(m_stream, &m_streamListener, &streamEvents, this);

        uint8_t space[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
        const double rate = frame.duration > 0 ? 1 / frame.duration : 60;
        const spa_rectangle size{std::clamp(static_cast<uint32_t>(frame.image.width), 16u, largestSide),
            std::clamp(static_cast<uint32_t>(frame.image.height), 16u, largestSide)};
        const spa_rectangle smallest{16, 16}, largest{largestSide, largestSide};
        const spa_fraction fps{static_cast<uint32_t>(std::clamp(std::lround(rate), 1L, 240L)), 1}, slowest{0, 1},
            fastest{240, 1};
        const spa_pod* formats = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
            SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format, SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_YUY2, SPA_VIDEO_FORMAT_NV12),
            SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &largest),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&fps, &slowest, &fastest)));
        const int r = m_stream ? pw_stream_connect(m_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                     static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS),
                                     &formats, 1)
                               : -errno;
        pw_thread_loop_unlock(m_loop);
        if (r < 0) {
            const std::string why = std::strerror(-r);
            disconnect();
            m_state.failed(m_options.label + " could not start in PipeWire (" + why
                + "). Stop and go live again; if it persists, restart PipeWire (systemctl --user restart pipewire wireplumber).");
            return;
        }
        m_state.connected();
    }

    // On the loop thread: the consumer's choice of format, or none.
    void formatChanged(uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format)
            return;
        m_width = m_height = 0;
        spa_video_info_raw info{};
        uint32_t mediaType = 0, mediaSubtype = 0;
        if (!param || spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video
            || mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0)
            return;
        const bool yuv = info.format == SPA_VIDEO_FORMAT_YUY2 || info.format == SPA_VIDEO_FORMAT_NV12;
        if (info.size.width < 2 || info.size.height < 2 || info.size.width > largestSide || info.size.height > largestSide
            || (yuv && (info.size.width % 2 || info.size.height % 2)))
            return;
        m_pixels = info.format;
        m_width = info.size.width;
        m_height = info.size.height;
        m_stride = info.format == SPA_VIDEO_FORMAT_NV12 ? m_width : info.format == SPA_VIDEO_FORMAT_YUY2 ? m_width * 2 : m_width * 4;
        m_bytes = info.format == SPA_VIDEO_FORMAT_NV12 ? m_stride * m_height * 3 / 2 : m_stride * m_height;
        const int stride = static_cast<int>(m_stride);
        const int bytes = static_cast<int>(m_bytes);
        uint8_t space[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
        const spa_pod* params[2];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
            SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
            SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_size, SPA_POD_Int(bytes),
            SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
        params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))));
        pw_stream_update_params(m_stream, params, 2);
    }

    void disconnect()
    {
        if (!m_loop)
            return;
        pw_thread_loop_lock(m_loop);
        if (m_stream) {
            spa_hook_remove(&m_streamListener);
            pw_stream_destroy(m_stream);
        }
        if (m_core) {
            spa_hook_remove(&m_coreListener);
            pw_core_disconnect(m_core);
        }
        pw_thread_loop_unlock(m_loop);
        pw_thread_loop_stop(m_loop);
        if (m_context)
            pw_context_destroy(m_context);
        pw_thread_loop_destroy(m_loop);
        m_loop = nullptr;
        m_context = nullptr;
        m_core = nullptr;
        m_stream = nullptr;
        m_streamState = PW_STREAM_STATE_UNCONNECTED;
        m_width = m_height = 0;
        m_broken.clear();
    }

    CameraSinkOptions m_options;
    const Clock& m_clock;
    CameraSinkState m_state;
    FrameFitter m_fitter;

    // Made and destroyed by consume() and close() (never at once); the members below the
    // loop are touched only with its lock held.
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    spa_hook m_coreListener{};
    pw_stream* m_stream = nullptr;
    spa_hook m_streamListener{};
    pw_stream_state m_streamState = PW_STREAM_STATE_UNCONNECTED;
    uint32_t m_pixels = SPA_VIDEO_FORMAT_BGRx;
    uint32_t m_width = 0; // 0 while no format is agreed
    uint32_t m_height = 0;
    uint32_t m_stride = 0;
    uint32_t m_bytes = 0;
    std::string m_broken; // why the connection broke, when it did
};

} // namespace

std::unique_ptr<LiveSink> makePipeWireCameraSink(CameraSinkOptions options)
{
    return std::make_unique<PipeWireCameraSink>(std::move(options));
}

bool pipeWireAnswers()
{
    startPipeWire();
    pw_loop* loop = pw_loop_new(nullptr);
    if (!loop)
        return false;
    pw_context* context = pw_context_new(loop, nullptr, 0);
    pw_core* core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
    const bool answers = core != nullptr;
    if (core)
        pw_core_disconnect(core);
    if (context)
        pw_context_destroy(context);
    pw_loop_destroy(loop);
    return answers;
}

} // namespace plim
