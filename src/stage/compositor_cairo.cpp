// The CPU compositor: cairo and pixman for placing, filling and text (Pango), and own
// banded kernels where cairo has no fast path (box-blur Gaussian, pixelate, 2x box
// reduction before a strong shrink). Large operations are split into horizontal bands,
// one per worker, each with its own cairo surface over its rows of the target.

#include "stage/compositor_cairo.h"

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

namespace plim::cairo_backend {

SurfacePtr wrap(const Image& image, int y0, int height)
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

void CairoCompositor::clear(Image& target, const Color& color)
{
    auto surface = wrap(target);
    ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
    cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
    setColor(cr.get(), color);
    cairo_paint(cr.get());
}

void CairoCompositor::copy(Image& target, const Image& source, const std::optional<Rect>& hole)
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

void CairoCompositor::fill(Image& target, const Color& color, const std::optional<RoundedRect>& clip)
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

void CairoCompositor::fillGradient(Image& target, const Gradient& gradient, const std::optional<RoundedRect>& clip,
    double opacity)
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

void CairoCompositor::fillPath(Image& target, const Path& path, const Color& color)
{
    auto surface = wrap(target);
    ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
    setColor(cr.get(), color);
    addPath(cr.get(), path);
    cairo_fill(cr.get());
}

void CairoCompositor::strokePath(Image& target, const Path& path, const Color& color, double width)
{
    auto surface = wrap(target);
    ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
    setColor(cr.get(), color);
    cairo_set_line_width(cr.get(), width);
    cairo_set_line_join(cr.get(), CAIRO_LINE_JOIN_ROUND);
    addPath(cr.get(), path);
    cairo_stroke(cr.get());
}

void CairoCompositor::draw(Image& target, const Image& source, const Affine& transform, const std::optional<RoundedRect>& clip,
    double opacity, Filter filter)
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

// Runs fn(first, last) over [0, n) split across the workers; the caller runs the last part.
void CairoCompositor::parallelRows(int n, const std::function<void(int, int)>& fn) const
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
void CairoCompositor::banded(Image& target, const Rect& extent, const std::function<void(cairo_t*)>& drawing) const
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

} // namespace plim::cairo_backend

namespace plim {

Result<std::unique_ptr<Compositor>> Compositor::create(const Options& options)
{
    switch (options.backend) {
    case Backend::cpu: {
        const int threads = options.threads > 0 ? options.threads
                                                : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
        return std::unique_ptr<Compositor>(std::make_unique<cairo_backend::CairoCompositor>(threads));
    }
    }
    return fail("This build of Plim has no such drawing backend.");
}

} // namespace plim
