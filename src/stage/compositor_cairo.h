#pragma once
// The CPU compositor's class and the cairo helpers its files share. Private to stage/.

#include "stage/compositor.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>

namespace plim::cairo_backend {

using SurfacePtr = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using ContextPtr = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

// A cairo surface over `height` rows of `image` starting at row `y0` (no copy).
SurfacePtr wrap(const Image& image, int y0 = 0, int height = -1);
cairo_matrix_t toMatrix(const Affine& t);
void addPath(cairo_t* cr, const Path& path);
void addRoundedRect(cairo_t* cr, const RoundedRect& shape);
void setColor(cairo_t* cr, const Color& c);
cairo_pattern_t* makeGradient(const Gradient& g);

// Integer pixel bounds of `r` clipped to the picture; empty when nothing is inside.
struct PixelBox {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool isEmpty() const { return x1 <= x0 || y1 <= y0; }
    int width() const { return x1 - x0; }
    int height() const { return y1 - y0; }
};
PixelBox pixelBox(const Rect& r, int width, int height);

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

    void clear(Image& target, const Color& color) override;

    void copy(Image& target, const Image& source, const std::optional<Rect>& hole) override;

    void fill(Image& target, const Color& color, const std::optional<RoundedRect>& clip) override;

    void fillGradient(Image& target, const Gradient& gradient, const std::optional<RoundedRect>& clip,
        double opacity) override;

    void fillPath(Image& target, const Path& path, const Color& color) override;

    void strokePath(Image& target, const Path& path, const Color& color, double width) override;

    void draw(Image& target, const Image& source, const Affine& transform, const std::optional<RoundedRect>& clip,
        double opacity, Filter filter) override;

    void blur(Image& target, const Rect& box, double sigma) override;

    void pixelate(Image& target, const Rect& box, double blockSize) override;

    void zoomBlur(Image& target, Point centre, double strength) override;

    Image shadowOf(const Image& sprite, double sigma, const Color& color, int margin) override;

    TextLayer text(std::string_view text, const TextStyle& style) override;

private:
    // Runs fn(first, last) over [0, n) split across the workers; the caller runs the last part.
    void parallelRows(int n, const std::function<void(int, int)>& fn) const;

    // Runs a cairo drawing over the rows `extent` touches, one band per worker; each band
    // has its own surface and context, translated so the drawing speaks target pixels.
    void banded(Image& target, const Rect& extent, const std::function<void(cairo_t*)>& drawing) const;

    // Writes `small` (the pixels of `work` reduced by f) back at full size over `inner`,
    // bilinearly, replacing what was there.
    void scaleUpInto(Image& target, const Image& small, int f, const PixelBox& work, const PixelBox& inner) const;

    // A picture of the same size whose pixels are all about to be written.
    static Image blankLike(const Image& like);

    // The pixels of `box` averaged over f × f cells (f = 1, 2 or 4) into a sw × sh picture;
    // cells past the box's edge repeat its last row and column.
    Image reduced(const Image& src, const PixelBox& box, int f, int sw, int sh) const;

    // The pixels of `box` averaged over 2 × 2 cells; an odd last row or column pairs with itself.
    Image halvedBox(const Image& src, const PixelBox& box) const;

    // One box pass along rows from `src` into `dst`; edges clamp.
    void boxHorizontal(const Image& src, Image& dst, int r) const;

    // One box pass along columns, kept row-major: a running sum per column, the columns
    // split across the workers.
    void boxVertical(const Image& src, Image& dst, int r) const;

    int m_threads;
    PangoFontMap* m_fonts;
    PangoContext* m_text;
};

} // namespace plim::cairo_backend
