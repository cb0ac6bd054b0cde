// The pointer layer: the arrow with its soft shadow and motion smear, a touch on a phone
// recording, and the spotlight that dims the frame around the pointer.

#include "stage/stage_renderer_cairo.h"

#include <algorithm>
#include <cmath>

namespace plim::stage_draw {

namespace {

// The pointer arrow, tip at the origin, 24 units tall, y down.
Path arrowPath()
{
    return Path()
        .moveTo({0, 0})
        .lineTo({0, 18.2})
        .lineTo({4.3, 14.1})
        .lineTo({7.1, 20.6})
        .lineTo({10.2, 19.3})
        .lineTo({7.4, 12.9})
        .lineTo({13.1, 12.9})
        .close();
}

constexpr double arrowUnits = 24;

} // namespace

void CairoStageRenderer::preparePointer()
{
    // The soft shadow is drawn once at a large size and scaled down per frame.
    const double k = 4;
    const int size = static_cast<int>(arrowUnits * k) + 8;
    Image sprite = Image::allocate(size, size);
    m_c->fillPath(sprite, arrowPath().transformed(Affine::scale(k, k).then(Affine::translation(4, 4))),
        {0, 0, 0, 1});
    m_pointerShadowScale = k;
    m_pointerShadowMargin = static_cast<int>(3 * 2.2 * k);
    m_pointerShadow = m_c->shadowOf(sprite, 2.2 * k, style::pointerShadow, m_pointerShadowMargin);
    m_pointerShadowMargin += 4;
}

void CairoStageRenderer::drawPointer(Image& out, const StageMoment::Cursor& cursor)
{
    if (!(cursor.alpha > 0.002))
        return;
    const double press = std::clamp(cursor.press, 0.0, 1.0);
    const double height = style::pointerHeight * m_u * (m_spec.cursorSize / 100.0)
        * std::pow(m_zoom, style::pointerZoomPower) * (1 - (1 - style::pointerPressScale) * press);
    if (!(height > 0.5))
        return;
    const double k = height / arrowUnits;
    const Point tip = pictureOf(cursor.x, cursor.y);
    if (!inView(tip))
        return;
    const double alpha = std::clamp(cursor.alpha, 0.0, 1.0);
    if (m_options.motionSmear) {
        const Point was = pictureOf(cursor.previousX, cursor.previousY);
        const double dx = tip.x - was.x, dy = tip.y - was.y;
        const double travel = std::hypot(dx, dy);
        if (travel > style::pointerSmearMin * m_u) {
            // Copies close enough to overlap into a streak, fading toward where it was.
            const int copies = std::clamp(static_cast<int>(travel / (0.25 * height)), 2, style::pointerSmearCopies);
            for (int i = copies; i >= 1; --i) {
                const double f = double(i) / (copies + 1);
                drawArrow(out, {tip.x - dx * f, tip.y - dy * f}, k, alpha * 0.3 * (1 - f));
            }
        }
    }
    drawArrow(out, tip, k, alpha);
}

// The arrow drawn as a vector at its sub-pixel place (sharp at any size), with its shadow.
void CairoStageRenderer::drawArrow(Image& out, Point tip, double k, double alpha)
{
    const double shadowScale = k / m_pointerShadowScale;
    m_c->draw(out, m_pointerShadow,
        Affine::translation(-m_pointerShadowMargin, -m_pointerShadowMargin)
            .then(Affine::scale(shadowScale, shadowScale))
            .then(Affine::translation(tip.x, tip.y + 1.2 * k)),
        std::nullopt, alpha);
    const double pad = 2 * style::pointerOutlineWidth * k + 2;
    const int size = static_cast<int>(std::ceil(arrowUnits * k + 2 * pad));
    Image sprite = Image::allocate(size, size);
    const double ox = std::floor(tip.x - pad), oy = std::floor(tip.y - pad);
    const Path path = arrowPath().transformed(Affine::scale(k, k).then(Affine::translation(tip.x - ox, tip.y - oy)));
    m_c->strokePath(sprite, path, style::pointerOutline, 2 * style::pointerOutlineWidth * k);
    m_c->fillPath(sprite, path, style::pointerFill);
    m_c->draw(out, sprite, Affine::translation(ox, oy), std::nullopt, alpha, Filter::nearest);
}

// A finger on a phone recording: a soft grey disc with a light rim.
void CairoStageRenderer::drawTouch(Image& out, Point at)
{
    const double r = style::touchRadius * m_u * std::sqrt(m_zoom);
    const RoundedRect disc{{at.x - r, at.y - r, 2 * r, 2 * r}, r};
    m_c->fill(out, style::touchFill, disc);
    m_c->strokePath(out, Path().addCircle(at, r - 1), style::touchRim, 2 * m_u);
}

void CairoStageRenderer::prepareSpotlight()
{
    if (!m_spec.cursorSpotlight)
        return;
    const double inner = style::spotlightInner * m_u, outer = style::spotlightOuter * m_u;
    const int side = std::max(2, static_cast<int>(std::ceil(2 * outer)));
    const double r = side / 2.0;
    m_spotlight = Image::allocate(side, side);
    m_c->fillGradient(m_spotlight,
        Gradient::radial({r, r}, inner * r / outer, r, {{0, {0, 0, 0, 0}}, {1, {0, 0, 0, style::spotlightDim}}}));
    m_c->fillGradient(m_spotlight,
        Gradient::radial({r, r}, 0, inner * r / outer, {{0, style::spotlightGlow}, {1, style::spotlightGlow.withAlpha(0)}}));
}

void CairoStageRenderer::drawSpotlight(Image& out, Point at)
{
    // Uniform dimming outside a square around the pointer; inside it the prepared
    // radial falloff, scaled with the zoom.
    const double k = std::sqrt(m_zoom);
    const double outer = style::spotlightOuter * m_u * k;
    // On whole pixels, so the falloff meets the dimmed bands without a seam.
    const double side = std::max(1.0, std::round(2 * outer));
    const Rect square{std::round(at.x - side / 2), std::round(at.y - side / 2), side, side};
    const Color dim{0, 0, 0, style::spotlightDim};
    for (const Rect& band : around({0, 0, m_canvas.width, m_canvas.height}, square))
        m_c->fill(out, dim, RoundedRect{band, 0});
    const double scale = square.width / m_spotlight.width;
    m_c->draw(out, m_spotlight, Affine::scale(scale, scale).then(Affine::translation(square.x, square.y)));
}

} // namespace plim::stage_draw
