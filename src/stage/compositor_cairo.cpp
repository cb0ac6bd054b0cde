// The CPU compositor: cairo and pixman for placing, filling and text (Pango), and own
// banded kernels where cairo has no fast path (box-blur Gaussian, pixelate, 2x box
// reduction before a strong shrink). Large operations are split into horizontal bands,
// one per worker, each with its own cairo surface over its rows of the target.

#include "stage/compositor.h"

#include "base/log.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace plim {
namespace {

using SurfacePtr = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using ContextPtr = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

// A cairo surface over `height` rows of `image` starting at row `y0` (no copy).
SurfacePtr wrap(const Image& image, int y0 = 0, int height = -1)
{
    if (height < 0)
        height = image.height - y0;
    auto* data = const_cast<uint8_t*>(image.row(y0));
    return {cairo_image_surface_create_for_data(data, CAIRO_FORMAT_ARGB32, image.width, height,
                static_cast<int>(image.stride)),
        cairo_surface_destroy};
}

cairo_matrix_t toMatrix(const Affine& t)
{
    cairo_matrix_t m;
    cairo_matrix_init(&m, t.a, t.b, t.c, t.d, t.tx, t.ty);
    return m;
}

void addPath(cairo_t* cr, const Path& path)
{
    for (const Path::Element& e : path.elements()) {
        switch (e.kind) {
        case Path::Element::Kind::move: cairo_move_to(cr, e.points[0].x, e.points[0].y); break;
        case Path::Element::Kind::line: cairo_line_to(cr, e.points[0].x, e.points[0].y); break;
        case Path::Element::Kind::curve:
            cairo_curve_to(cr, e.points[0].x, e.points[0].y, e.points[1].x, e.points[1].y, e.points[2].x,
                e.points[2].y);
            break;
        case Path::Element::Kind::close: cairo_close_path(cr); break;
        }
    }
}

void addRoundedRect(cairo_t* cr, const RoundedRect& shape) { addPath(cr, Path().addRoundedRect(shape)); }

void setColor(cairo_t* cr, const Color& c) { cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a); }

cairo_pattern_t* makeGradient(const Gradient& g)
{
    cairo_pattern_t* p = g.kind == Gradient::Kind::linear
        ? cairo_pattern_create_linear(g.from.x, g.from.y, g.to.x, g.to.y)
        : cairo_pattern_create_radial(g.from.x, g.from.y, g.innerRadius, g.to.x, g.to.y, g.outerRadius);
    for (const GradientStop& s : g.stops)
        cairo_pattern_add_color_stop_rgba(p, s.offset, s.color.r, s.color.g, s.color.b, s.color.a);
    cairo_pattern_set_extend(p, CAIRO_EXTEND_PAD);
    return p;
}

// Integer pixel bounds of `r` clipped to the picture; empty when nothing is inside.
struct PixelBox {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool isEmpty() const { return x1 <= x0 || y1 <= y0; }
    int width() const { return x1 - x0; }
    int height() const { return y1 - y0; }
};

PixelBox pixelBox(const Rect& r, int width, int height)
{
    if (!std::isfinite(r.x) || !std::isfinite(r.y) || !std::isfinite(r.width) || !std::isfinite(r.height))
        return {};
    PixelBox b;
    b.x0 = static_cast<int>(std::clamp(std::floor(r.minX()), 0.0, double(width)));
    b.y0 = static_cast<int>(std::clamp(std::floor(r.minY()), 0.0, double(height)));
    b.x1 = static_cast<int>(std::clamp(std::ceil(r.maxX()), 0.0, double(width)));
    b.y1 = static_cast<int>(std::clamp(std::ceil(r.maxY()), 0.0, double(height)));
    return b;
}

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

class CairoCompositor final : public Compositor {
public:
    // Text goes through a font map of our own, so its caches go with the compositor.
    explicit CairoCompositor(int threads)
        : m_threads(std::max(1, threads)), m_fonts(pango_cairo_font_map_new()),
          m_text(pango_font_map_create_context(m_fonts))
    {
    }
    ~CairoCompositor() override
    {
        g_object_unref(m_text);
        g_object_unref(m_fonts);
    }
    CairoCompositor(const CairoCompositor&) = delete;
    CairoCompositor& operator=(const CairoCompositor&) = delete;

    void clear(Image& target, const Color& color) override
    {
        auto surface = wrap(target);
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
        setColor(cr.get(), color);
        cairo_paint(cr.get());
    }

    void copy(Image& target, const Image& source, const std::optional<Rect>& hole) override
    {
        const int w = std::min(target.width, source.width);
        const int h = std::min(target.height, source.height);
        // Whole pixels inside the hole: from the first pixel fully inside to the last.
        PixelBox skip;
        if (hole)
            skip = pixelBox({std::ceil(hole->minX()), std::ceil(hole->minY()),
                                std::floor(hole->maxX()) - std::ceil(hole->minX()),
                                std::floor(hole->maxY()) - std::ceil(hole->minY())},
                w, h);
        parallelRows(h, [&](int y0, int y1) {
            for (int y = y0; y < y1; ++y) {
                if (skip.isEmpty() || y < skip.y0 || y >= skip.y1) {
                    std::memcpy(target.row(y), source.row(y), size_t(w) * 4);
                } else {
                    std::memcpy(target.row(y), source.row(y), size_t(skip.x0) * 4);
                    std::memcpy(target.row(y) + skip.x1 * 4, source.row(y) + skip.x1 * 4, size_t(w - skip.x1) * 4);
                }
            }
        });
    }

    void fill(Image& target, const Color& color, const std::optional<RoundedRect>& clip) override
    {
        const Rect extent = clip ? clip->rect : Rect{0, 0, double(target.width), double(target.height)};
        banded(target, extent, [&](cairo_t* cr) {
            setColor(cr, color);
            if (clip) {
                addRoundedRect(cr, *clip);
                cairo_fill(cr);
            } else {
                cairo_paint(cr);
            }
        });
    }

    void fillGradient(Image& target, const Gradient& gradient, const std::optional<RoundedRect>& clip,
        double opacity) override
    {
        const Rect extent = clip ? clip->rect : Rect{0, 0, double(target.width), double(target.height)};
        banded(target, extent, [&](cairo_t* cr) {
            cairo_pattern_t* p = makeGradient(gradient);
            cairo_set_source(cr, p);
            if (clip) {
                addRoundedRect(cr, *clip);
                cairo_clip(cr);
            }
            cairo_paint_with_alpha(cr, opacity);
            cairo_pattern_destroy(p);
        });
    }

    void fillPath(Image& target, const Path& path, const Color& color) override
    {
        auto surface = wrap(target);
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        setColor(cr.get(), color);
        addPath(cr.get(), path);
        cairo_fill(cr.get());
    }

    void strokePath(Image& target, const Path& path, const Color& color, double width) override
    {
        auto surface = wrap(target);
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        setColor(cr.get(), color);
        cairo_set_line_width(cr.get(), width);
        cairo_set_line_join(cr.get(), CAIRO_LINE_JOIN_ROUND);
        addPath(cr.get(), path);
        cairo_stroke(cr.get());
    }

    void draw(Image& target, const Image& source, const Affine& transform, const std::optional<RoundedRect>& clip,
        double opacity, Filter filter) override
    {
        if (source.isEmpty() || target.isEmpty() || opacity <= 0)
            return;
        Image src = source;
        Affine t = transform;
        // A shrink by more than 2x: halve with a box filter first so detail averages
        // instead of aliasing; bilinear handles the rest.
        if (filter == Filter::smooth) {
            double scale = std::sqrt(std::abs(t.a * t.d - t.b * t.c));
            while (scale < 0.5 && src.width >= 2 && src.height >= 2) {
                src = halvedBox(src, {0, 0, src.width, src.height});
                t = Affine::scale(2, 2).then(t);
                scale *= 2;
            }
        }
        const Rect bounds = t.apply(Rect{0, 0, double(src.width), double(src.height)});
        const Rect extent = clip ? clip->rect : bounds;
        const cairo_filter_t cf = filter == Filter::nearest ? CAIRO_FILTER_NEAREST
            : filter == Filter::best                        ? CAIRO_FILTER_GOOD
                                                            : CAIRO_FILTER_BILINEAR;
        banded(target, extent, [&](cairo_t* cr) {
            auto s = wrap(src);
            cairo_pattern_t* p = cairo_pattern_create_for_surface(s.get());
            cairo_matrix_t m = toMatrix(t);
            cairo_matrix_invert(&m);
            cairo_pattern_set_matrix(p, &m);
            cairo_pattern_set_filter(p, cf);
            cairo_pattern_set_extend(p, CAIRO_EXTEND_PAD);
            cairo_set_source(cr, p);
            // The picture's own outline bounds it; the clip (if any) trims it further.
            cairo_save(cr);
            const cairo_matrix_t placed = toMatrix(t);
            cairo_transform(cr, &placed);
            cairo_rectangle(cr, 0, 0, src.width, src.height);
            cairo_restore(cr);
            if (clip) {
                cairo_clip(cr);
                addRoundedRect(cr, *clip);
            }
            if (opacity >= 1) {
                cairo_fill(cr);
            } else {
                cairo_clip(cr);
                cairo_paint_with_alpha(cr, opacity);
            }
            cairo_pattern_destroy(p);
        });
    }

    void blur(Image& target, const Rect& box, double sigma) override
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

    void pixelate(Image& target, const Rect& box, double blockSize) override
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

    void zoomBlur(Image& target, Point centre, double strength) override
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

    Image shadowOf(const Image& sprite, double sigma, const Color& color, int margin) override
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

    TextLayer text(std::string_view text, const TextStyle& style) override
    {
        TextLayer layer;
        if (text.empty())
            return layer;
        auto probe = SurfacePtr(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1), cairo_surface_destroy);
        ContextPtr pcr(cairo_create(probe.get()), cairo_destroy);
        pango_cairo_update_context(pcr.get(), m_text);
        PangoLayout* layout = pango_layout_new(m_text);
        PangoFontDescription* font = pango_font_description_new();
        pango_font_description_set_family(font, style.family.c_str());
        pango_font_description_set_weight(font, static_cast<PangoWeight>(style.weight));
        pango_font_description_set_absolute_size(font, std::max(1.0, style.size) * PANGO_SCALE);
        pango_layout_set_font_description(layout, font);
        pango_font_description_free(font);
        pango_layout_set_text(layout, text.data(), static_cast<int>(text.size()));
        if (style.maxWidth > 0) {
            pango_layout_set_width(layout, static_cast<int>(style.maxWidth * PANGO_SCALE));
            pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
            pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER);
        }
        PangoRectangle ink, logical;
        pango_layout_get_pixel_extents(layout, &ink, &logical);
        if (style.maxWidth > 0) {
            // Centred lines sit inside the wrap width; crop to the lines themselves.
            const int left = std::min(ink.x, logical.x);
            logical.width = std::max(ink.x + ink.width, logical.x + logical.width) - left;
            logical.x = left;
        }
        const int x0 = std::min(ink.x, logical.x) - 1, y0 = std::min(ink.y, logical.y) - 1;
        const int x1 = std::max(ink.x + ink.width, logical.x + logical.width) + 1;
        const int y1 = std::max(ink.y + ink.height, logical.y + logical.height) + 1;
        layer.image = Image::allocate(x1 - x0, y1 - y0);
        if (!layer.image.isEmpty()) {
            auto surface = wrap(layer.image);
            ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
            cairo_translate(cr.get(), -x0, -y0);
            setColor(cr.get(), style.color);
            pango_cairo_update_layout(cr.get(), layout);
            pango_cairo_show_layout(cr.get(), layout);
            cairo_surface_flush(surface.get());
        }
        layer.baseline = pango_layout_get_baseline(layout) / double(PANGO_SCALE) - y0;
        layer.logical = {double(logical.width), double(logical.height)};
        g_object_unref(layout);
        return layer;
    }

private:
    // Runs fn(first, last) over [0, n) split across the workers; the caller runs the last part.
    void parallelRows(int n, const std::function<void(int, int)>& fn) const
    {
        const int parts = std::clamp(n / 64, 1, m_threads);
        if (parts <= 1) {
            fn(0, n);
            return;
        }
        std::vector<std::jthread> workers;
        workers.reserve(parts - 1);
        for (int i = 0; i < parts - 1; ++i)
            workers.emplace_back([&fn, i, n, parts] { fn(n * i / parts, n * (i + 1) / parts); });
        fn(n * (parts - 1) / parts, n);
    }

    // Runs a cairo drawing over the rows `extent` touches, one band per worker; each band
    // has its own surface and context, translated so the drawing speaks target pixels.
    void banded(Image& target, const Rect& extent, const std::function<void(cairo_t*)>& drawing) const
    {
        const PixelBox b = pixelBox(extent.outset(2, 2), target.width, target.height);
        if (b.isEmpty())
            return;
        const bool large = double(b.width()) * b.height() > 256.0 * 256.0;
        const int bands = large ? m_threads : 1;
        auto band = [&](int y0, int y1) {
            if (y1 <= y0)
                return;
            auto surface = wrap(target, y0, y1 - y0);
            ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
            cairo_translate(cr.get(), 0, -y0);
            drawing(cr.get());
            cairo_surface_flush(surface.get());
        };
        if (bands <= 1) {
            band(b.y0, b.y1);
            return;
        }
        std::vector<std::jthread> workers;
        const int h = b.height();
        for (int i = 0; i < bands - 1; ++i)
            workers.emplace_back([&, i] { band(b.y0 + h * i / bands, b.y0 + h * (i + 1) / bands); });
        band(b.y0 + h * (bands - 1) / bands, b.y1);
    }

    // Writes `small` (the pixels of `work` reduced by f) back at full size over `inner`,
    // bilinearly, replacing what was there.
    void scaleUpInto(Image& target, const Image& small, int f, const PixelBox& work, const PixelBox& inner) const
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
    static Image blankLike(const Image& like)
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
    Image reduced(const Image& src, const PixelBox& box, int f, int sw, int sh) const
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
    Image halvedBox(const Image& src, const PixelBox& box) const
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
    void boxHorizontal(const Image& src, Image& dst, int r) const
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
    void boxVertical(const Image& src, Image& dst, int r) const
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

    int m_threads;
    PangoFontMap* m_fonts;
    PangoContext* m_text;
};

} // namespace

Result<std::unique_ptr<Compositor>> Compositor::create(const Options& options)
{
    switch (options.backend) {
    case Backend::cpu: {
        const int threads = options.threads > 0 ? options.threads
                                                : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
        return std::unique_ptr<Compositor>(std::make_unique<CairoCompositor>(threads));
    }
    }
    return fail("This build of Plim has no such drawing backend.");
}

} // namespace plim
