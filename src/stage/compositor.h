#pragma once
// The drawing operations the stage renderer is built from: place a picture through a
// transform and a rounded-rectangle mask, fill shapes and gradients, blur or pixelate a
// box, set text, and whole-frame effects. The renderer speaks only to this seam, so a GPU
// backend can sit beside the CPU one (compositor_cairo.cpp) without the renderer changing.
//
// Coordinates here are picture pixels: origin at the top-left of the target Image, y
// downward, pixel centres at +0.5 (cairo's convention). The renderer converts from the
// stage canvas (y upward) in one place. Colours are straight (not premultiplied) sRGB
// components in 0..1; Images are premultiplied BGRA (base/image.h) and blending happens on
// the sRGB values, as every screen recording and encoder expects.
//
// Threads: a Compositor is used by one thread at a time (the renderer's). The CPU backend
// may split an operation into horizontal bands across its own worker threads; every call
// returns only when the target is finished. Images passed in are only read, except the
// target, which is modified in place; a target must not be shared with a source of the
// same call.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct Color {
    double r = 0;
    double g = 0;
    double b = 0;
    double a = 1;
    bool operator==(const Color&) const = default;

    Color withAlpha(double alpha) const { return {r, g, b, alpha}; }
    // Straight mix: t = 0 gives this colour, t = 1 `other`.
    Color mixed(const Color& other, double t) const
    {
        return {r + (other.r - r) * t, g + (other.g - g) * t, b + (other.b - b) * t, a + (other.a - a) * t};
    }
    // "#RRGGBB", "RRGGBB", "#RGB" or "#RRGGBBAA"; empty for anything else.
    static std::optional<Color> fromHex(std::string_view hex);
    static constexpr Color rgb(int hex, double alpha = 1)
    {
        return {((hex >> 16) & 0xff) / 255.0, ((hex >> 8) & 0xff) / 255.0, (hex & 0xff) / 255.0, alpha};
    }
};

struct GradientStop {
    double offset = 0; // 0..1 along the gradient
    Color color;
    bool operator==(const GradientStop&) const = default;
};

// Linear from `from` to `to`, or radial between a circle (from, innerRadius) and a circle
// (to, outerRadius). Outside its extent the end colours are held.
struct Gradient {
    enum class Kind { linear, radial };
    Kind kind = Kind::linear;
    Point from;
    Point to;
    double innerRadius = 0;
    double outerRadius = 0;
    std::vector<GradientStop> stops;
    bool operator==(const Gradient&) const = default;

    static Gradient linear(Point from, Point to, std::vector<GradientStop> stops)
    {
        return {Kind::linear, from, to, 0, 0, std::move(stops)};
    }
    static Gradient radial(Point centre, double innerRadius, double outerRadius, std::vector<GradientStop> stops)
    {
        return {Kind::radial, centre, centre, innerRadius, outerRadius, std::move(stops)};
    }
};

// A rectangle with circular corners (radius clamped to half the shorter side).
struct RoundedRect {
    Rect rect;
    double radius = 0;
    bool operator==(const RoundedRect&) const = default;
};

// A vector outline in picture pixels: moves, lines, cubic curves and closes.
class Path {
public:
    Path& moveTo(Point p);
    Path& lineTo(Point p);
    Path& curveTo(Point c1, Point c2, Point p);
    Path& close();
    Path& addRoundedRect(const RoundedRect& shape);
    Path& addCircle(Point centre, double radius);
    // Every point mapped through `transform`.
    Path transformed(const Affine& transform) const;

    struct Element {
        enum class Kind { move, line, curve, close };
        Kind kind = Kind::move;
        Point points[3];
        bool operator==(const Element&) const = default;
    };
    const std::vector<Element>& elements() const { return m_elements; }
    bool isEmpty() const { return m_elements.empty(); }

private:
    std::vector<Element> m_elements;
};

// How a picture is resampled when it is placed. `smooth` is bilinear with, for sources
// shrunk by more than 2x, a box pre-filter so fine detail (text) does not alias; `best`
// is a higher-order filter for still pictures; `nearest` keeps pixels square (pixelate).
enum class Filter { nearest, smooth, best };

// How text is set (plain UTF-8, no markup).
struct TextStyle {
    std::string family = "Noto Sans";
    double size = 16;  // pixels (not points)
    int weight = 600;  // 400 regular, 600 semibold, 700 bold
    Color color = {1, 1, 1, 1};
    double maxWidth = 0; // wrap into centred lines no wider than this; 0 = one line
    bool operator==(const TextStyle&) const = default;
};

// Text set and rasterised once: its picture (premultiplied, tightly cropped to the ink and
// advance box), where its baseline sits in that picture, and the logical size used for
// layout (advance width, line height).
struct TextLayer {
    Image image;
    double baseline = 0; // pixels from the picture's top to the baseline
    Size logical;        // advance width × line height in pixels
    Rect ink;            // the drawn pixels' box in the picture
};

class Compositor {
public:
    enum class Backend { cpu };

    struct Options {
        Backend backend = Backend::cpu;
        int threads = 0; // worker threads for banded kernels; 0 = one per core
    };

    virtual ~Compositor() = default;

    // Fails with a sentence when the backend cannot start (for instance no font can be set).
    static Result<std::unique_ptr<Compositor>> create(const Options& options);
    static Result<std::unique_ptr<Compositor>> create() { return create(Options{}); }

    // --- Filling ---
    // Replaces every pixel of `target` with `color`.
    virtual void clear(Image& target, const Color& color) = 0;
    // Copies `source` onto `target` at the same size (the fast path for a prepared ground),
    // leaving the whole pixels inside `hole` as they are (they are about to be covered).
    virtual void copy(Image& target, const Image& source, const std::optional<Rect>& hole = std::nullopt) = 0;
    // Paints `color` over `target` inside `clip` (everywhere when absent), anti-aliased.
    virtual void fill(Image& target, const Color& color, const std::optional<RoundedRect>& clip = std::nullopt) = 0;
    virtual void fillGradient(Image& target, const Gradient& gradient,
        const std::optional<RoundedRect>& clip = std::nullopt, double opacity = 1) = 0;
    virtual void fillPath(Image& target, const Path& path, const Color& color) = 0;
    virtual void strokePath(Image& target, const Path& path, const Color& color, double width) = 0;

    // --- Pictures ---
    // Paints `source` over `target` through `transform` (source pixels to target pixels),
    // sub-pixel exact, inside `clip` (anti-aliased edges) when given, at `opacity`.
    virtual void draw(Image& target, const Image& source, const Affine& transform,
        const std::optional<RoundedRect>& clip = std::nullopt, double opacity = 1, Filter filter = Filter::smooth) = 0;

    // --- Regions ---
    // Gaussian blur of the pixels inside `box` (outside untouched). The picture is clamped
    // to its own edges, so the box's border does not darken.
    virtual void blur(Image& target, const Rect& box, double sigma) = 0;
    // Blocks of `blockSize` pixels, each the mean of what it covers, aligned on the box's centre.
    virtual void pixelate(Image& target, const Rect& box, double blockSize) = 0;
    // Radial zoom blur: samples along the line to `centre` over `strength` (a fraction of
    // the distance, 0 = none) are averaged.
    virtual void zoomBlur(Image& target, Point centre, double strength) = 0;
    // Blurs a copy of `target`'s alpha by `sigma` and returns it tinted by `color` (a
    // soft shadow for sprites); the result has `margin` pixels of room on each side.
    virtual Image shadowOf(const Image& sprite, double sigma, const Color& color, int margin) = 0;

    // --- Text ---
    // Sets `text` in `style`; an empty layer (empty image) for empty text.
    virtual TextLayer text(std::string_view text, const TextStyle& style) = 0;
};

} // namespace plim
