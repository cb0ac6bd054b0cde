#include "share/gif_sink.h"

#include "base/log.h"
#include "share/share_failure.h"

#include <gif_lib.h>
#include <libimagequant.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <cmath>
#include <cstdlib>
#include <system_error>

namespace plim {

namespace {

template<typename T, void (*Free)(T*)>
struct Freer {
    void operator()(T* p) const
    {
        if (p)
            Free(p);
    }
};
using LiqAttr = std::unique_ptr<liq_attr, Freer<liq_attr, liq_attr_destroy>>;
using LiqImage = std::unique_ptr<liq_image, Freer<liq_image, liq_image_destroy>>;
using LiqResult = std::unique_ptr<liq_result, Freer<liq_result, liq_result_destroy>>;
using ColorMap = std::unique_ptr<ColorMapObject, Freer<ColorMapObject, GifFreeMapObject>>;

struct Box {
    int x0, y0, x1, y1; // inclusive-exclusive
    bool empty() const { return x1 <= x0 || y1 <= y0; }
};

int powerOfTwoAtLeast(int n)
{
    int p = 2;
    while (p < n)
        p *= 2;
    return p;
}

} // namespace

struct GIFSink::Gif {
    GifFileType* file = nullptr;
};

int GIFSink::delayHundredths(double seconds)
{
    if (!std::isfinite(seconds))
        return 2;
    return std::max(2, static_cast<int>(std::lround(seconds * 100)));
}

GIFSink::GIFSink(const fs::path& path, Size canvas, Options options)
    : m_path(path), m_canvas(canvas), m_options(options), m_gif(std::make_unique<Gif>())
{
}

Result<std::unique_ptr<GIFSink>> GIFSink::create(const fs::path& path, Size canvas, Options options)
{
    const int width = static_cast<int>(canvas.width);
    const int height = static_cast<int>(canvas.height);
    if (width < 1 || height < 1 || width > 65535 || height > 65535 || !(options.fps > 0))
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifNotCreated(path.string())));

    std::unique_ptr<GIFSink> sink(new GIFSink(path, {double(width), double(height)}, options));
    int error = 0;
    // Opened here rather than by giflib, so the file gets the usual permissions (0666 less
    // the umask) instead of giflib's owner-only ones.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    GifFileType* gif = fd < 0 ? nullptr : EGifOpenFileHandle(fd, &error);
    if (!gif) {
        if (fd >= 0) {
            ::close(fd);
            ::unlink(path.c_str());
        }
        logLine(LogArea::share, "could not create a GIF at " + path.string() + " (" + (fd < 0 ? std::string(std::strerror(errno)) : GifErrorString(error)) + ")");
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifNotCreated(path.string())));
    }
    sink->m_gif->file = gif;
    EGifSetGifVersion(gif, true);
    // Loop forever: the NETSCAPE2.0 application extension with a loop count of 0.
    static const char appName[] = "NETSCAPE2.0";
    static const unsigned char loop[3] = {1, 0, 0};
    bool ok = EGifPutScreenDesc(gif, width, height, 8, 0, nullptr) == GIF_OK
        && EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE) == GIF_OK
        && EGifPutExtensionBlock(gif, 11, appName) == GIF_OK
        && EGifPutExtensionBlock(gif, 3, loop) == GIF_OK
        && EGifPutExtensionTrailer(gif) == GIF_OK;
    if (!ok) {
        sink->cancel();
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifNotCreated(path.string())));
    }
    return sink;
}

GIFSink::~GIFSink()
{
    if (!m_closed)
        cancel();
}

Status GIFSink::append(const Image& image, double t)
{
    if (m_closed)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    if (image.isEmpty())
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));

    const int width = static_cast<int>(m_canvas.width);
    const int height = static_cast<int>(m_canvas.height);
    // Premultiplied BGRA over black is its own colour; GIF frames are opaque.
    Image frame = Image::allocate(width, height);
    for (int y = 0; y < height; ++y) {
        const int sy = image.height == height ? y : std::min(image.height - 1, y * image.height / height);
        const uint8_t* src = image.row(sy);
        uint8_t* dst = frame.row(y);
        for (int x = 0; x < width; ++x) {
            const int sx = image.width == width ? x : std::min(image.width - 1, x * image.width / width);
            const uint8_t* p = src + 4 * sx;
            dst[4 * x + 0] = p[2];
            dst[4 * x + 1] = p[1];
            dst[4 * x + 2] = p[0];
            dst[4 * x + 3] = 255;
        }
    }
    if (m_hasPending) {
        PLIM_TRY(writeFrame(m_pending, t - m_pendingTime));
    }
    m_pending = std::move(frame);
    m_pendingTime = t;
    m_hasPending = true;
    return {};
}

Status GIFSink::writeFrame(const Image& frame, double delay)
{
    const int width = frame.width;
    const int height = frame.height;
    const bool first = m_shown.empty();
    const int tolerance = m_options.changeTolerance;

    // What changed since the colours last sent.
    Box box{0, 0, width, height};
    if (first) {
        m_shown.resize(static_cast<size_t>(width) * height * 4);
    } else {
        box = {width, height, 0, 0};
        for (int y = 0; y < height; ++y) {
            const uint8_t* p = frame.row(y);
            const uint8_t* s = &m_shown[static_cast<size_t>(y) * width * 4];
            for (int x = 0; x < width; ++x, p += 4, s += 4) {
                if (std::abs(p[0] - s[0]) > tolerance || std::abs(p[1] - s[1]) > tolerance || std::abs(p[2] - s[2]) > tolerance) {
                    box.x0 = std::min(box.x0, x);
                    box.x1 = std::max(box.x1, x + 1);
                    box.y0 = std::min(box.y0, y);
                    box.y1 = std::max(box.y1, y + 1);
                }
            }
        }
    }
    const bool still = box.empty();
    if (still)
        box = {0, 0, 1, 1};

    const int bw = box.x1 - box.x0;
    const int bh = box.y1 - box.y0;
    // The rectangle's colours as they are now, and which of its pixels changed: only those
    // shape the palette (the others have no importance) and only those are written; the
    // rest get the transparent index, so the frame before shows through.
    std::vector<uint8_t> rgba(static_cast<size_t>(bw) * bh * 4);
    std::vector<uint8_t> changedMap(static_cast<size_t>(bw) * bh, 0);
    bool anyTransparent = still;
    for (int y = 0; y < bh; ++y) {
        const uint8_t* p = frame.row(box.y0 + y) + 4 * box.x0;
        uint8_t* s = &m_shown[(static_cast<size_t>(box.y0 + y) * width + box.x0) * 4];
        uint8_t* d = &rgba[static_cast<size_t>(y) * bw * 4];
        uint8_t* c = &changedMap[static_cast<size_t>(y) * bw];
        for (int x = 0; x < bw; ++x, p += 4, s += 4, d += 4) {
            std::copy(p, p + 4, d);
            const bool changed = !still
                && (first || std::abs(p[0] - s[0]) > tolerance || std::abs(p[1] - s[1]) > tolerance
                    || std::abs(p[2] - s[2]) > tolerance);
            if (changed) {
                std::copy(p, p + 4, s);
                c[x] = 255;
            } else {
                anyTransparent = true;
            }
        }
    }

    LiqAttr attr(liq_attr_create());
    if (!attr)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    liq_set_speed(attr.get(), m_options.quantizeSpeed);
    // Index 255 is kept for transparency when some pixels stay as they were.
    liq_set_max_colors(attr.get(), anyTransparent ? 255 : 256);
    LiqImage input(liq_image_create_rgba(attr.get(), rgba.data(), bw, bh, 0));
    if (!input)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    if (anyTransparent && !still)
        liq_image_set_importance_map(input.get(), changedMap.data(), changedMap.size(), LIQ_COPY_PIXELS);
    liq_result* rawResult = nullptr;
    if (liq_image_quantize(input.get(), attr.get(), &rawResult) != LIQ_OK)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    LiqResult result(rawResult);
    liq_set_dithering_level(result.get(), m_options.dithering);
    std::vector<uint8_t> indices(static_cast<size_t>(bw) * bh);
    if (liq_write_remapped_image(result.get(), input.get(), indices.data(), indices.size()) != LIQ_OK)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    const liq_palette* palette = liq_get_palette(result.get());

    const int count = static_cast<int>(palette->count);
    const int transparent = anyTransparent ? 255 : NO_TRANSPARENT_COLOR;
    if (anyTransparent)
        for (size_t i = 0; i < indices.size(); ++i)
            if (!changedMap[i])
                indices[i] = 255;
    ColorMap map(GifMakeMapObject(anyTransparent ? 256 : powerOfTwoAtLeast(std::max(count, 2)), nullptr));
    if (!map)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifFrame));
    for (int i = 0; i < map->ColorCount; ++i)
        map->Colors[i] = GifColorType{0, 0, 0};
    for (int i = 0; i < count; ++i)
        map->Colors[i] = GifColorType{palette->entries[i].r, palette->entries[i].g, palette->entries[i].b};

    GraphicsControlBlock gcb{};
    gcb.DisposalMode = DISPOSE_DO_NOT;
    gcb.UserInputFlag = false;
    gcb.DelayTime = delayHundredths(delay);
    gcb.TransparentColor = transparent;
    GifByteType extension[4];
    const size_t length = EGifGCBToExtension(&gcb, extension);
    GifFileType* gif = m_gif->file;
    if (EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), extension) != GIF_OK
        || EGifPutImageDesc(gif, box.x0, box.y0, bw, bh, false, map.get()) != GIF_OK)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::writerFailed));
    for (int y = 0; y < bh; ++y)
        if (EGifPutLine(gif, &indices[static_cast<size_t>(y) * bw], bw) != GIF_OK)
            return std::unexpected(ShareFailure::writer(ShareFailure::Reason::writerFailed));
    ++m_framesWritten;
    return {};
}

Status GIFSink::finish()
{
    if (m_closed)
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifNotFinished));
    if (m_hasPending) {
        if (auto written = writeFrame(m_pending, 1.0 / m_options.fps); !written) {
            cancel();
            return written;
        }
        m_hasPending = false;
    }
    int error = 0;
    const bool ok = m_framesWritten > 0 && EGifCloseFile(m_gif->file, &error) == GIF_OK;
    if (m_framesWritten == 0)
        EGifCloseFile(m_gif->file, &error);
    m_gif->file = nullptr;
    m_closed = true;
    if (!ok) {
        std::error_code ignored;
        fs::remove(m_path, ignored);
        return std::unexpected(ShareFailure::writer(ShareFailure::Reason::gifNotFinished));
    }
    return {};
}

void GIFSink::cancel()
{
    if (m_closed)
        return;
    m_closed = true;
    if (m_gif->file) {
        int error = 0;
        EGifCloseFile(m_gif->file, &error);
        m_gif->file = nullptr;
    }
    std::error_code ignored;
    fs::remove(m_path, ignored);
}

} // namespace plim
