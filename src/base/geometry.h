#pragma once
// Plain 2-D geometry on doubles, shared by every subsystem. On the stage canvas, coordinates are output
// pixels with the origin at the bottom-left and y growing upward.

#include <algorithm>
#include <cmath>

namespace plim {

struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

struct Size {
    double width = 0;
    double height = 0;
    bool operator==(const Size&) const = default;

    // Both sides finite and greater than zero.
    bool isUsable() const
    {
        return std::isfinite(width) && std::isfinite(height) && width > 0 && height > 0;
    }
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    bool operator==(const Rect&) const = default;

    double minX() const { return x; }
    double minY() const { return y; }
    double maxX() const { return x + width; }
    double maxY() const { return y + height; }
    double midX() const { return x + width / 2; }
    double midY() const { return y + height / 2; }
    Point origin() const { return {x, y}; }
    Point center() const { return {midX(), midY()}; }
    Size size() const { return {width, height}; }

    // Grown by dx on the left and right and dy at the bottom and top (shrunk when negative).
    Rect outset(double dx, double dy) const { return {x - dx, y - dy, width + 2 * dx, height + 2 * dy}; }

    bool contains(const Rect& inner, double tolerance = 1e-9) const
    {
        return inner.minX() >= minX() - tolerance && inner.minY() >= minY() - tolerance
            && inner.maxX() <= maxX() + tolerance && inner.maxY() <= maxY() + tolerance;
    }

    static Rect centered(Size size, Size in)
    {
        return {(in.width - size.width) / 2, (in.height - size.height) / 2, size.width, size.height};
    }
};

// An affine transform mapping (x, y) to (a·x + c·y + tx, b·x + d·y + ty).
struct Affine {
    double a = 1;
    double b = 0;
    double c = 0;
    double d = 1;
    double tx = 0;
    double ty = 0;
    bool operator==(const Affine&) const = default;

    static Affine identity() { return {}; }
    static Affine scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }
    static Affine translation(double dx, double dy) { return {1, 0, 0, 1, dx, dy}; }

    bool isIdentity() const { return *this == Affine{}; }

    Point apply(Point p) const { return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty}; }

    // The bounding box of the transformed rectangle.
    Rect apply(const Rect& r) const
    {
        const Point corners[4] = {apply(Point{r.minX(), r.minY()}), apply(Point{r.maxX(), r.minY()}),
            apply(Point{r.minX(), r.maxY()}), apply(Point{r.maxX(), r.maxY()})};
        double x0 = corners[0].x, x1 = corners[0].x, y0 = corners[0].y, y1 = corners[0].y;
        for (const Point& q : corners) {
            x0 = std::min(x0, q.x);
            x1 = std::max(x1, q.x);
            y0 = std::min(y0, q.y);
            y1 = std::max(y1, q.y);
        }
        return {x0, y0, x1 - x0, y1 - y0};
    }

    // This transform followed by `next`.
    Affine then(const Affine& next) const
    {
        return {a * next.a + b * next.c, a * next.b + b * next.d, c * next.a + d * next.c, c * next.b + d * next.d,
            tx * next.a + ty * next.c + next.tx, tx * next.b + ty * next.d + next.ty};
    }
};

} // namespace plim
