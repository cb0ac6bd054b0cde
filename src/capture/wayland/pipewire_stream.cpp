// A portal's screen stream read through libpipewire: memory buffers (and DMA-BUF ones the
// stream maps), the header's timestamps, the cursor and crop metadata.

#include "capture/wayland/pipewire_stream.h"

#include "base/clock.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>

namespace plim {

namespace {

constexpr uint32_t largestSide = 16384;
// A stream paused this long is not changing its format (a resize takes milliseconds): the
// desktop has stopped sharing.
constexpr double pausedForGood = 3;
// Room for the pointer's picture up to 384 x 384: GNOME sends no cursor metadata to a
// stream that offers less.
constexpr int cursorMetaSize(int width, int height)
{
    return int(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) + width * height * 4;
}

bool swapsRedBlue(uint32_t format) { return format == SPA_VIDEO_FORMAT_RGBx || format == SPA_VIDEO_FORMAT_RGBA; }
bool hasAlpha(uint32_t format) { return format == SPA_VIDEO_FORMAT_BGRA || format == SPA_VIDEO_FORMAT_RGBA; }

// One row of `width` pixels into BGRA.
void convertRow(const uint8_t* from, uint8_t* to, int width, uint32_t format)
{
    if (format == SPA_VIDEO_FORMAT_BGRA) {
        std::memcpy(to, from, size_t(width) * 4);
        return;
    }
    const uint32_t opaque = hasAlpha(format) ? 0 : 0xff000000u;
    for (int x = 0; x < width; ++x) {
        uint32_t v;
        std::memcpy(&v, from + x * 4, 4);
        if (swapsRedBlue(format))
            v = (v & 0xff00ff00u) | ((v >> 16) & 0xffu) | ((v & 0xffu) << 16);
        v |= opaque;
        std::memcpy(to + x * 4, &v, 4);
    }
}

// Keeps a DMA-BUF's contents still while the CPU reads it.
struct DmaBufRead {
    int fd = -1;
    explicit DmaBufRead(int dmabuf) : fd(dmabuf)
    {
        dma_buf_sync sync{DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ};
        if (fd >= 0)
            ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync);
    }
    ~DmaBufRead()
    {
        dma_buf_sync sync{DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ};
        if (fd >= 0)
            ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync);
    }
};

} // namespace

struct PipeWireStream::Loop {
    PipeWireStream& owner;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener{};
    spa_hook streamListener{};
    bool streamed = false; // it has been streaming once

    explicit Loop(PipeWireStream& stream) : owner(stream) {}

    ~Loop()
    {
        if (!loop)
            return;
        pw_thread_loop_lock(loop);
        if (stream) {
            spa_hook_remove(&streamListener);
            pw_stream_destroy(stream);
        }
        if (core) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
        }
        pw_thread_loop_unlock(loop);
        pw_thread_loop_stop(loop);
        if (context)
            pw_context_destroy(context);
        pw_thread_loop_destroy(loop);
    }

    // On the loop thread: answers the agreed format with the buffers and metadata we read.
    void formatChanged(uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format || !param)
            return;
        spa_video_info_raw info{};
        uint32_t mediaType = 0, mediaSubtype = 0;
        if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video
            || mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0)
            return;
        owner.onFormat(info.format, info.size.width, info.size.height);
        uint8_t space[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
        const spa_pod* params[4];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
            SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(8, 2, 16),
            SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_DmaBuf))));
        params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(int(sizeof(spa_meta_header)))));
        params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Cursor),
            SPA_PARAM_META_size, SPA_POD_CHOICE_RANGE_Int(cursorMetaSize(64, 64), cursorMetaSize(1, 1),
                cursorMetaSize(384, 384))));
        params[3] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
            SPA_PARAM_META_size, SPA_POD_Int(int(sizeof(spa_meta_region)))));
        pw_stream_update_params(stream, params, 4);
    }

    // On the loop thread: the newest buffer's picture; every buffer's cursor.
    void process()
    {
        pw_buffer* newest = nullptr;
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream)) {
            if (spa_meta* cursor = spa_buffer_find_meta(buffer->buffer, SPA_META_Cursor))
                owner.onCursor(cursor->data, cursor->size);
            const spa_data& data = buffer->buffer->datas[0];
            if (!data.chunk || data.chunk->size == 0 || !data.data) {
                owner.m_empty.fetch_add(1);
                pw_stream_queue_buffer(stream, buffer);
                continue;
            }
            if (newest)
                pw_stream_queue_buffer(stream, newest);
            newest = buffer;
        }
        if (!newest)
            return;
        spa_buffer* b = newest->buffer;
        const spa_data& data = b->datas[0];
        double uptime = systemUptime();
        double streamTime = -1;
        if (auto* header = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(b, SPA_META_Header, sizeof(spa_meta_header))))
            if (header->pts > 0)
                streamTime = double(header->pts) * 1e-9;
        if (auto* crop = static_cast<spa_meta_region*>(spa_buffer_find_meta_data(b, SPA_META_VideoCrop, sizeof(spa_meta_region))))
            owner.onMetaCrop(*crop);
        {
            DmaBufRead sync(data.type == SPA_DATA_DmaBuf ? int(data.fd) : -1);
            const uint32_t offset = std::min(data.chunk->offset, data.maxsize);
            owner.onBuffer(static_cast<const uint8_t*>(data.data) + offset, data.chunk->stride,
                std::min(data.chunk->size, data.maxsize - offset),
                owner.uptimeOf(streamTime, uptime));
        }
        pw_stream_queue_buffer(stream, newest);
    }
};

Result<std::unique_ptr<PipeWireStream>> PipeWireStream::open(int fd, uint32_t node, std::optional<Rect> crop,
    std::optional<Size> logicalSize, bool keepsFirstSize)
{
    static std::once_flag started;
    std::call_once(started, [] { pw_init(nullptr, nullptr); });
    std::unique_ptr<PipeWireStream> stream(new PipeWireStream());
    stream->m_crop = crop;
    stream->m_logical = logicalSize;
    stream->m_keepsFirstSize = keepsFirstSize;
    stream->m_loop = std::make_unique<Loop>(*stream);
    Loop& l = *stream->m_loop;
    l.loop = pw_thread_loop_new("plim-screencast", nullptr);
    if (!l.loop || pw_thread_loop_start(l.loop) < 0) {
        ::close(fd);
        return fail("Plim could not start its PipeWire thread to read the screen.");
    }
    pw_thread_loop_lock(l.loop);
    l.context = pw_context_new(pw_thread_loop_get_loop(l.loop), nullptr, 0);
    l.core = l.context ? pw_context_connect_fd(l.context, fd, nullptr, 0) : nullptr;
    if (!l.core) {
        const std::string why = std::strerror(errno);
        pw_thread_loop_unlock(l.loop);
        if (!l.context)
            ::close(fd);
        return fail("Plim could not reach the screen's PipeWire stream (" + why + ").");
    }
    static const pw_core_events coreEvents = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.error = [](void* self, uint32_t id, int, int res, const char* message) {
            if (id == PW_ID_CORE && res == -EPIPE)
                static_cast<Loop*>(self)->owner.onBroken(message ? message : "PipeWire went away");
        };
        return e;
    }();
    pw_core_add_listener(l.core, &l.coreListener, &coreEvents, &l);
    pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
        PW_KEY_MEDIA_ROLE, "Screen", nullptr);
    l.stream = pw_stream_new(l.core, "Plim screen", props);
    static const pw_stream_events streamEvents = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = [](void* self, pw_stream_state, pw_stream_state state, const char* error) {
            auto* loop = static_cast<Loop*>(self);
            if (state == PW_STREAM_STATE_STREAMING)
                loop->streamed = true;
            if (loop->streamed)
                loop->owner.onStreaming(state == PW_STREAM_STATE_STREAMING);
            if (state == PW_STREAM_STATE_ERROR)
                loop->owner.onBroken(error ? error : "the stream failed");
            else if (state == PW_STREAM_STATE_UNCONNECTED && loop->streamed)
                loop->owner.onBroken("the desktop stopped sharing the screen");
        };
        e.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
            static_cast<Loop*>(self)->formatChanged(id, param);
        };
        e.process = [](void* self) { static_cast<Loop*>(self)->process(); };
        return e;
    }();
    if (l.stream)
        pw_stream_add_listener(l.stream, &l.streamListener, &streamEvents, &l);

    uint8_t space[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
    const spa_rectangle size{1920, 1080}, smallest{1, 1}, largest{largestSide, largestSide};
    const spa_fraction rate{60, 1}, slowest{0, 1}, fastest{1000, 1};
    const spa_pod* formats = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
        SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
        SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
        SPA_FORMAT_VIDEO_format, SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
            SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &largest),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest)));
    const int r = l.stream ? pw_stream_connect(l.stream, PW_DIRECTION_INPUT, node,
                                 static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
                                 &formats, 1)
                           : -errno;
    pw_thread_loop_unlock(l.loop);
    if (r < 0)
        return fail("Plim could not connect to the screen's PipeWire stream (" + std::string(std::strerror(-r)) + ").");
    return stream;
}

PipeWireStream::~PipeWireStream() { m_loop.reset(); }

Result<bool> PipeWireStream::waitForPicture(double until)
{
    std::unique_lock guard(m_lock);
    while (!m_seen && !m_broken) {
        const double left = until - systemUptime();
        if (left <= 0)
            return false;
        m_changed.wait_for(guard, std::chrono::duration<double>(std::min(left, 0.1)));
    }
    if (m_broken)
        return fail(*m_broken);
    return true;
}

std::optional<std::pair<Image, double>> PipeWireStream::takeFresh()
{
    std::lock_guard guard(m_lock);
    if (m_fresh.isEmpty())
        return std::nullopt;
    std::pair<Image, double> fresh{std::move(m_fresh), m_freshAt};
    m_fresh = {};
    return fresh;
}

std::optional<std::string> PipeWireStream::broken() const
{
    std::lock_guard guard(m_lock);
    if (!m_broken && m_pausedSince && systemUptime() - *m_pausedSince > pausedForGood)
        return "the screen's stream stayed paused";
    return m_broken;
}

void PipeWireStream::onStreaming(bool streaming)
{
    std::lock_guard guard(m_lock);
    if (streaming)
        m_pausedSince.reset();
    else if (!m_pausedSince)
        m_pausedSince = systemUptime();
}

Size PipeWireStream::pixelSize() const
{
    std::lock_guard guard(m_lock);
    return {double(m_width), double(m_height)};
}

Size PipeWireStream::pictureSize() const
{
    std::lock_guard guard(m_lock);
    return {double(m_pictureWidth), double(m_pictureHeight)};
}

double PipeWireStream::scale() const
{
    std::lock_guard guard(m_lock);
    if (!m_logical || !(m_logical->width > 0) || m_width <= 0)
        return 1;
    return m_width / m_logical->width;
}

std::optional<PipeWireStream::Cursor> PipeWireStream::cursor() const
{
    std::lock_guard guard(m_lock);
    return m_cursor;
}

void PipeWireStream::onFormat(uint32_t format, uint32_t width, uint32_t height)
{
    std::lock_guard guard(m_lock);
    m_format = format;
    m_formats.fetch_add(1);
    m_width = width <= largestSide ? int(width) : 0;
    m_height = height <= largestSide ? int(height) : 0;
}

void PipeWireStream::onMetaCrop(const spa_meta_region& region)
{
    std::lock_guard guard(m_lock);
    if (region.region.size.width > 0 && region.region.size.height > 0)
        m_metaCrop = Rect{double(region.region.position.x), double(region.region.position.y),
            double(region.region.size.width), double(region.region.size.height)};
    else
        m_metaCrop.reset();
}

double PipeWireStream::uptimeOf(double streamTime, double arrived)
{
    std::lock_guard guard(m_lock);
    double at = arrived;
    if (streamTime > 0) {
        // The header's time is on the uptime clock when it lies just before the arrival (GNOME
        // stamps with CLOCK_MONOTONIC); otherwise it is mapped by the smallest delay seen.
        const double delay = arrived - streamTime;
        if (delay >= 0 && delay < 0.5 && !m_clockOffset)
            at = streamTime;
        else {
            if (!m_clockOffset || delay < *m_clockOffset)
                m_clockOffset = delay;
            at = streamTime + *m_clockOffset;
        }
    }
    at = std::max(at, m_lastAt + 1e-4);
    m_lastAt = at;
    return at;
}

Image PipeWireStream::recycled(int width, int height)
{
    for (Image& image : m_pool)
        if (image.pixels.use_count() == 1 && image.width == width && image.height == height)
            return image;
    Image image = Image::uninitialized(width, height);
    if (m_pool.size() < 16)
        m_pool.push_back(image);
    return image;
}

void PipeWireStream::onBuffer(const void* data, int stride, uint32_t size, double uptime)
{
    std::unique_lock guard(m_lock);
    if (m_width <= 0 || m_height <= 0)
        return;
    if (stride <= 0)
        stride = m_width * 4;
    // What to copy, in the buffer's pixels: the area asked for, else the stream's own crop.
    int x0 = 0, y0 = 0, x1 = m_width, y1 = m_height;
    if (m_crop) {
        const double s = m_logical && m_logical->width > 0 ? m_width / m_logical->width : 1;
        x0 = int(std::lround(m_crop->x * s));
        y0 = int(std::lround(m_crop->y * s));
        x1 = int(std::lround(m_crop->maxX() * s));
        y1 = int(std::lround(m_crop->maxY() * s));
    } else if (m_metaCrop) {
        x0 = int(m_metaCrop->x);
        y0 = int(m_metaCrop->y);
        x1 = int(m_metaCrop->maxX());
        y1 = int(m_metaCrop->maxY());
    }
    x0 = std::clamp(x0, 0, m_width);
    x1 = std::clamp(x1, x0, m_width);
    y0 = std::clamp(y0, 0, m_height);
    y1 = std::clamp(y1, y0, m_height);
    if (x1 - x0 < 1 || y1 - y0 < 1 || size_t(y1 - 1) * size_t(stride) + size_t(x1) * 4 > size) {
        m_empty.fetch_add(1);
        return;
    }
    if (!m_keepsFirstSize || m_pictureWidth == 0) {
        m_pictureWidth = x1 - x0;
        m_pictureHeight = y1 - y0;
    }
    const int width = m_pictureWidth, height = m_pictureHeight;
    const int copiedWidth = std::min(width, x1 - x0), copiedHeight = std::min(height, y1 - y0);
    Image picture = recycled(width, height);
    const uint32_t format = m_format;
    guard.unlock(); // the copy runs without the lock; the picture is the stream's alone
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (int y = 0; y < copiedHeight; ++y)
        convertRow(bytes + size_t(y0 + y) * size_t(stride) + size_t(x0) * 4, picture.row(y), copiedWidth, format);
    // A window smaller than its first size: the rest is black.
    constexpr uint32_t black = 0xff000000u;
    for (int y = 0; y < height; ++y)
        for (int x = y < copiedHeight ? copiedWidth : 0; x < width; ++x)
            std::memcpy(picture.row(y) + size_t(x) * 4, &black, 4);
    guard.lock();
    m_fresh = std::move(picture);
    m_freshAt = uptime;
    m_seen = true;
    m_copied.fetch_add(1);
    m_changed.notify_all();
}

void PipeWireStream::onCursor(const void* meta, size_t bytes)
{
    if (bytes < sizeof(spa_meta_cursor))
        return;
    spa_meta_cursor cursor;
    std::memcpy(&cursor, meta, sizeof cursor);
    if (!spa_meta_cursor_is_valid(&cursor))
        return; // nothing new
    std::lock_guard guard(m_lock);
    if (cursor.bitmap_offset >= sizeof(spa_meta_cursor) && cursor.bitmap_offset + sizeof(spa_meta_bitmap) <= bytes) {
        spa_meta_bitmap bitmap;
        std::memcpy(&bitmap, static_cast<const uint8_t*>(meta) + cursor.bitmap_offset, sizeof bitmap);
        const auto* base = static_cast<const uint8_t*>(meta) + cursor.bitmap_offset;
        const int w = int(bitmap.size.width), h = int(bitmap.size.height);
        const bool known = bitmap.format == SPA_VIDEO_FORMAT_RGBA || bitmap.format == SPA_VIDEO_FORMAT_BGRA
            || bitmap.format == SPA_VIDEO_FORMAT_RGBx || bitmap.format == SPA_VIDEO_FORMAT_BGRx;
        if (bitmap.format != 0 && bitmap.offset == 0) {
            m_cursor.reset(); // the pointer is invisible
            return;
        }
        if (known && w > 0 && h > 0 && w <= 1024 && h <= 1024 && bitmap.stride >= w * 4
            && bitmap.offset >= sizeof(spa_meta_bitmap)
            && cursor.bitmap_offset + bitmap.offset + size_t(h - 1) * size_t(bitmap.stride) + size_t(w) * 4 <= bytes) {
            Image picture = Image::uninitialized(w, h);
            for (int y = 0; y < h; ++y) {
                convertRow(base + bitmap.offset + size_t(y) * size_t(bitmap.stride), picture.row(y), w, bitmap.format);
                uint8_t* p = picture.row(y);
                for (int x = 0; x < w; ++x, p += 4) // premultiplied, as every Image is
                    for (int c = 0; c < 3; ++c)
                        p[c] = uint8_t((p[c] * p[3] + 127) / 255);
            }
            m_bitmap = picture;
            m_hotspot = {double(cursor.hotspot.x), double(cursor.hotspot.y)};
        }
    }
    m_cursor = Cursor{{double(cursor.position.x), double(cursor.position.y)}, m_hotspot, m_bitmap};
}

void PipeWireStream::onBroken(std::string why)
{
    std::lock_guard guard(m_lock);
    if (!m_broken)
        m_broken = std::move(why);
    m_changed.notify_all();
}

} // namespace plim
