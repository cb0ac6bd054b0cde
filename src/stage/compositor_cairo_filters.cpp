// The CPU compositor's own kernels where cairo has no fast path: a box-blur Gaussian (at a
// reduced size when it is wide), pixelate, zoom blur, soft shadows and the 2x box reduction.

#include "stage/compositor_cairo.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace plim::cairo_backend {

namespace {

// Three box widths whose repeated application approximates a Gaussian of `sigma`.
std::array<int, 3> boxesForGauss(double sigma)
{
    const int n = 3;
    const double ideal = std::sqrt(12 * sigma * sigma / n + 1);
    int wl = static_cast<int>(std::floor(ideal));
    if (wl % 2 == 0)
        --wl;
    wl = std::max(wl, 1);
    const int wu = wl + 2;
    const double mIdeal = (12 * sigma * sigma - n * wl * wl - 4.0 * n * wl - 3.0 * n) / (-4.0 * wl - 4);
    const int m = static_cast<int>(std::round(mIdeal));
    std::array<int, 3> sizes{};
    for (int i = 0; i < n; ++i)
        sizes[i] = i < m ? wl : wu;
    return sizes;
}

} // namespace

void CairoCompositor::blur(Image& target, const Rect& box, double sigma)
{
    const PixelBox inner = pixelBox(box, target.width, target.height);
    if (inner.isEmpty() || !(sigma > 0.3))
        return;
    // A wide blur loses nothing at a lower resolution: reduce by f, blur by sigma / f,
    // and scale back up bilinearly (pixman's fast path) into the box.
    const int f = sigma >= 16 ? 4 : sigma >= 6 ? 2 : 1;
    const auto sizes = boxesForGauss(sigma / f);
    int reach = 0;
    for (int s : sizes)
        reach += s / 2;
    reach = (reach + 2) * f;
    // Work on the box and what the kernel reaches around it, clamped to the picture and
    // aligned to the reduction.
    PixelBox work = pixelBox(box.outset(reach, reach), target.width, target.height);
    work.x0 = work.x0 / f * f;
    work.y0 = work.y0 / f * f;
    const int sw = (work.width() + f - 1) / f, sh = (work.height() + f - 1) / f;
    Image buffer = reduced(target, work, f, sw, sh);
    Image scratch = blankLike(buffer);
    for (int size : sizes) {
        boxHorizontal(buffer, scratch, size / 2);
        boxVertical(scratch, buffer, size / 2);
    }
    if (f == 1) {
        const int ox = inner.x0 - work.x0, oy = inner.y0 - work.y0;
        for (int y = 0; y < inner.height(); ++y)
            std::memcpy(target.row(inner.y0 + y) + inner.x0 * 4, buffer.row(oy + y) + ox * 4,
                size_t(inner.width()) * 4);
        return;
    }
    scaleUpInto(target, buffer, f, work, inner);
}

void CairoCompositor::pixelate(Image& target, const Rect& box, double blockSize)
{
    const PixelBox b = pixelBox(box, target.width, target.height);
    if (b.isEmpty())
        return;
    const int block = std::max(1, static_cast<int>(std::lround(blockSize)));
    // Blocks aligned so that one is centred on the box's centre.
    const double cx = box.midX(), cy = box.midY();
    const int startX = static_cast<int>(std::floor(cx - block / 2.0 - std::ceil((cx - block / 2.0 - b.x0) / block) * block));
    const int startY = static_cast<int>(std::floor(cy - block / 2.0 - std::ceil((cy - block / 2.0 - b.y0) / block) * block));
    for (int by = startY; by < b.y1; by += block) {
        const int y0 = std::max(by, b.y0), y1 = std::min(by + block, b.y1);
        if (y1 <= y0)
            continue;
        for (int bx = startX; bx < b.x1; bx += block) {
            const int x0 = std::max(bx, b.x0), x1 = std::min(bx + block, b.x1);
            if (x1 <= x0)
                continue;
            uint64_t sum[4] = {};
            for (int y = y0; y < y1; ++y) {
                const uint8_t* p = target.row(y) + x0 * 4;
                for (int x = x0; x < x1; ++x, p += 4)
                    for (int c = 0; c < 4; ++c)
                        sum[c] += p[c];
            }
            const uint64_t n = uint64_t(x1 - x0) * uint64_t(y1 - y0);
            uint8_t mean[4];
            for (int c = 0; c < 4; ++c)
                mean[c] = static_cast<uint8_t>((sum[c] + n / 2) / n);
            for (int y = y0; y < y1; ++y) {
                uint8_t* p = target.row(y) + x0 * 4;
                for (int x = x0; x < x1; ++x, p += 4)
                    std::memcpy(p, mean, 4);
            }
        }
    }
}

void CairoCompositor::zoomBlur(Image& target, Point centre, double strength)
{
    if (target.isEmpty() || !(strength > 0.001) || !std::isfinite(centre.x) || !std::isfinite(centre.y))
        return;
    // At half resolution (motion blur hides it), three doubling passes, each averaging
    // the picture with itself magnified about the centre, give eight evenly spread
    // samples for the price of three.
    const int f = 2;
    const PixelBox whole{0, 0, target.width, target.height};
    Image small = reduced(target, whole, f, (target.width + f - 1) / f, (target.height + f - 1) / f);
    const Point c{centre.x / f, centre.y / f};
    for (double step : {strength / 7, 2 * strength / 7, 4 * strength / 7}) {
        const Image before = small.clone();
        const double s = 1 + step;
        const Affine t = Affine::translation(-c.x, -c.y).then(Affine::scale(s, s)).then(Affine::translation(c.x, c.y));
        draw(small, before, t, std::nullopt, 0.5, Filter::smooth);
    }
    scaleUpInto(target, small, f, whole, whole);
}

Image CairoCompositor::shadowOf(const Image& sprite, double sigma, const Color& color, int margin)
{
    Image out = Image::allocate(sprite.width + 2 * margin, sprite.height + 2 * margin);
    if (out.isEmpty())
        return out;
    const auto a = static_cast<uint32_t>(std::lround(std::clamp(color.a, 0.0, 1.0) * 255));
    const uint32_t r = static_cast<uint32_t>(std::lround(color.r * 255));
    const uint32_t g = static_cast<uint32_t>(std::lround(color.g * 255));
    const uint32_t b = static_cast<uint32_t>(std::lround(color.b * 255));
    for (int y = 0; y < sprite.height; ++y) {
        const uint8_t* s = sprite.row(y);
        uint8_t* d = out.row(y + margin) + margin * 4;
        for (int x = 0; x < sprite.width; ++x) {
            const uint32_t alpha = s[x * 4 + 3] * a / 255;
            d[x * 4 + 0] = static_cast<uint8_t>(b * alpha / 255);
            d[x * 4 + 1] = static_cast<uint8_t>(g * alpha / 255);
            d[x * 4 + 2] = static_cast<uint8_t>(r * alpha / 255);
            d[x * 4 + 3] = static_cast<uint8_t>(alpha);
        }
    }
    blur(out, Rect{0, 0, double(out.width), double(out.height)}, sigma);
    return out;
}

// Writes `small` (the pixels of `work` reduced by f) back at full size over `inner`,
// bilinearly, replacing what was there.
void CairoCompositor::scaleUpInto(Image& target, const Image& small, int f, const PixelBox& work, const PixelBox& inner) const
{
    const Rect into{double(inner.x0), double(inner.y0), double(inner.width()), double(inner.height())};
    banded(target, into, [&](cairo_t* cr) {
        auto s = wrap(small);
        cairo_pattern_t* p = cairo_pattern_create_for_surface(s.get());
        cairo_matrix_t m;
        // Pixel centres line up: target x + 0.5 = (small x + 0.5) · f + work.x0.
        cairo_matrix_init(&m, 1.0 / f, 0, 0, 1.0 / f, -double(work.x0) / f, -double(work.y0) / f);
        cairo_pattern_set_matrix(p, &m);
        cairo_pattern_set_filter(p, CAIRO_FILTER_BILINEAR);
        cairo_pattern_set_extend(p, CAIRO_EXTEND_PAD);
        cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
        cairo_set_source(cr, p);
        cairo_rectangle(cr, into.x, into.y, into.width, into.height);
        cairo_fill(cr);
        cairo_pattern_destroy(p);
    });
}

// A picture of the same size whose pixels are all about to be written.
Image CairoCompositor::blankLike(const Image& like)
{
    Image image;
    image.width = like.width;
    image.height = like.height;
    image.stride = like.stride;
    image.pixels = std::shared_ptr<uint8_t[]>(new (std::align_val_t(64)) uint8_t[like.stride * like.height],
        [](uint8_t* p) { ::operator delete[](p, std::align_val_t(64)); });
    return image;
}

// The pixels of `box` averaged over f × f cells (f = 1, 2 or 4) into a sw × sh picture;
// cells past the box's edge repeat its last row and column.
Image CairoCompositor::reduced(const Image& src, const PixelBox& box, int f, int sw, int sh) const
{
    if (f == 1) {
        Image out = Image::allocate(sw, sh);
        for (int y = 0; y < sh; ++y)
            std::memcpy(out.row(y), src.row(box.y0 + y) + box.x0 * 4, size_t(sw) * 4);
        return out;
    }
    Image half = halvedBox(src, box);
    if (f == 2)
        return half;
    return halvedBox(half, {0, 0, half.width, half.height});
}

// The pixels of `box` averaged over 2 × 2 cells; an odd last row or column pairs with itself.
Image CairoCompositor::halvedBox(const Image& src, const PixelBox& box) const
{
    const int w = (box.width() + 1) / 2, h = (box.height() + 1) / 2;
    Image out = Image::uninitialized(w, h); // every pixel is written below
    parallelRows(h, [&](int y0, int y1) {
        for (int y = y0; y < y1; ++y) {
            const uint8_t* a = src.row(box.y0 + 2 * y) + box.x0 * 4;
            const uint8_t* b = src.row(std::min(box.y0 + 2 * y + 1, box.y1 - 1)) + box.x0 * 4;
            uint8_t* d = out.row(y);
            const int pairs = box.width() / 2;
            for (int x = 0; x < pairs; ++x)
                for (int c = 0; c < 4; ++c)
                    d[x * 4 + c] = static_cast<uint8_t>(
                        (a[x * 8 + c] + a[x * 8 + 4 + c] + b[x * 8 + c] + b[x * 8 + 4 + c] + 2) >> 2);
            if (pairs < w)
                for (int c = 0; c < 4; ++c)
                    d[pairs * 4 + c] = static_cast<uint8_t>((a[pairs * 8 + c] + b[pairs * 8 + c] + 1) >> 1);
        }
    });
    return out;
}

// One box pass along rows from `src` into `dst`; edges clamp.
void CairoCompositor::boxHorizontal(const Image& src, Image& dst, int r) const
{
    const int w = src.width;
    const float inv = 1.0f / float(2 * r + 1);
    parallelRows(src.height, [&](int y0, int y1) {
        for (int y = y0; y < y1; ++y) {
            const uint8_t* s = src.row(y);
            uint8_t* d = dst.row(y);
            uint32_t sum[4] = {};
            for (int i = -r; i <= r; ++i) {
                const int x = std::clamp(i, 0, w - 1);
                for (int c = 0; c < 4; ++c)
                    sum[c] += s[x * 4 + c];
            }
            for (int x = 0; x < w; ++x) {
                for (int c = 0; c < 4; ++c)
                    d[x * 4 + c] = static_cast<uint8_t>(float(sum[c]) * inv + 0.5f);
                const int out = std::max(x - r, 0), in = std::min(x + r + 1, w - 1);
                for (int c = 0; c < 4; ++c)
                    sum[c] += s[in * 4 + c] - s[out * 4 + c];
            }
        }
    });
}

// One box pass along columns, kept row-major: a running sum per column, the columns
// split across the workers.
void CairoCompositor::boxVertical(const Image& src, Image& dst, int r) const
{
    const int h = src.height;
    const float inv = 1.0f / float(2 * r + 1);
    parallelRows(src.width, [&](int x0, int x1) {
        const int n = (x1 - x0) * 4;
        std::vector<uint32_t> sum(static_cast<size_t>(n), 0);
        for (int i = -r; i <= r; ++i) {
            const uint8_t* s = src.row(std::clamp(i, 0, h - 1)) + x0 * 4;
            for (int k = 0; k < n; ++k)
                sum[k] += s[k];
        }
        for (int y = 0; y < h; ++y) {
            uint8_t* d = dst.row(y) + x0 * 4;
            for (int k = 0; k < n; ++k)
                d[k] = static_cast<uint8_t>(float(sum[k]) * inv + 0.5f);
            const uint8_t* out = src.row(std::max(y - r, 0)) + x0 * 4;
            const uint8_t* in = src.row(std::min(y + r + 1, h - 1)) + x0 * 4;
            for (int k = 0; k < n; ++k)
                sum[k] += in[k] - out[k];
        }
    });
}

} // namespace plim::cairo_backend
