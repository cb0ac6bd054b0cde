// Backend-neutral parts of the compositor seam: colours and paths.

#include "stage/compositor.h"

#include <cctype>
#include <numbers>

namespace plim {

std::optional<Color> Color::fromHex(std::string_view hex)
{
    if (!hex.empty() && hex.front() == '#')
        hex.remove_prefix(1);
    if (hex.size() != 3 && hex.size() != 6 && hex.size() != 8)
        return std::nullopt;
    int digits[8] = {};
    for (size_t i = 0; i < hex.size(); ++i) {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(hex[i])));
        if (c >= '0' && c <= '9')
            digits[i] = c - '0';
        else if (c >= 'a' && c <= 'f')
            digits[i] = c - 'a' + 10;
        else
            return std::nullopt;
    }
    if (hex.size() == 3)
        return Color{digits[0] * 17 / 255.0, digits[1] * 17 / 255.0, digits[2] * 17 / 255.0, 1};
    auto pair = [&](int i) { return (digits[i] * 16 + digits[i + 1]) / 255.0; };
    return Color{pair(0), pair(2), pair(4), hex.size() == 8 ? pair(6) : 1.0};
}

Path& Path::moveTo(Point p)
{
    m_elements.push_back({Element::Kind::move, {p, {}, {}}});
    return *this;
}

Path& Path::lineTo(Point p)
{
    m_elements.push_back({Element::Kind::line, {p, {}, {}}});
    return *this;
}

Path& Path::curveTo(Point c1, Point c2, Point p)
{
    m_elements.push_back({Element::Kind::curve, {c1, c2, p}});
    return *this;
}

Path& Path::close()
{
    m_elements.push_back({Element::Kind::close, {}});
    return *this;
}

namespace {
// Cubic approximation of a quarter circle.
constexpr double kappa = 0.5522847498307936;
}

Path& Path::addRoundedRect(const RoundedRect& shape)
{
    const Rect& r = shape.rect;
    const double rad = std::clamp(shape.radius, 0.0, std::min(r.width, r.height) / 2);
    const double k = rad * (1 - kappa);
    const double x0 = r.minX(), y0 = r.minY(), x1 = r.maxX(), y1 = r.maxY();
    moveTo({x0 + rad, y0});
    lineTo({x1 - rad, y0});
    curveTo({x1 - k, y0}, {x1, y0 + k}, {x1, y0 + rad});
    lineTo({x1, y1 - rad});
    curveTo({x1, y1 - k}, {x1 - k, y1}, {x1 - rad, y1});
    lineTo({x0 + rad, y1});
    curveTo({x0 + k, y1}, {x0, y1 - k}, {x0, y1 - rad});
    lineTo({x0, y0 + rad});
    curveTo({x0, y0 + k}, {x0 + k, y0}, {x0 + rad, y0});
    return close();
}

Path& Path::addCircle(Point c, double radius)
{
    return addRoundedRect({{c.x - radius, c.y - radius, 2 * radius, 2 * radius}, radius});
}

Path Path::transformed(const Affine& transform) const
{
    Path out;
    out.m_elements = m_elements;
    for (Element& e : out.m_elements)
        for (Point& p : e.points)
            p = transform.apply(p);
    return out;
}

} // namespace plim
