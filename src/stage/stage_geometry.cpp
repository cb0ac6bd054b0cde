#include "stage/stage_geometry.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

constexpr double noZoom = 1.0001;

bool finiteRect(const Rect& r)
{
    return std::isfinite(r.x) && std::isfinite(r.y) && r.size().isUsable();
}

double finiteOr(double value, double fallback)
{
    return std::isfinite(value) ? value : fallback;
}

} // namespace

StageGeometry::StageGeometry(Size canvasSize, Size content, const StageSpec& spec, bool deviceFramed, bool vertical)
    : canvas(canvasSize)
{
    cardCamera = spec.card.has_value();
    if (!canvas.isUsable())
        return;
    const double W = canvas.width;
    const double H = canvas.height;
    const double shorter = std::min(W, H);
    if (!content.isUsable())
        content = canvas;

    double padding = spec.card ? shorter * spec.card->padding : W / 1280 * spec.paddingPX;
    padding = std::clamp(finiteOr(padding, 0), 0.0, 0.35 * shorter);

    const double s = std::min((W - 2 * padding) / content.width, (H - 2 * padding) / content.height);
    screenRect = Rect::centered({content.width * s, content.height * s}, canvas);

    cornerRadius = spec.card ? screenRect.width * spec.card->corners : W / 1280 * spec.cornersPX;
    cornerRadius = std::max(finiteOr(cornerRadius, 0), 0.0);

    cameraCard = screenRect;
    if (spec.card && deviceFramed)
        cameraCard = DeviceFrameGeometry(canvas, content, spec).screen;

    if (!vertical || deviceFramed || H <= W)
        return;
    const double bottom = H * verticalWindowBottom;
    const Rect view{padding, bottom, W - 2 * padding, H - padding - bottom};
    if (!view.size().isUsable() || content.width / content.height <= view.width / view.height)
        return;
    // The picture is wider than the window: fitted to its height it covers it.
    const double k = view.height / content.height;
    window = view;
    screenRect = {view.midX() - content.width * k / 2, view.y, content.width * k, view.height};
    cornerRadius = std::max(finiteOr(spec.card ? view.width * spec.card->corners : W / 1280 * spec.cornersPX, 0), 0.0);
    cameraCard = view;
}

Point StageGeometry::focusOn(const Rect& card, const ZoomState& zoom)
{
    const double cx = finiteOr(zoom.centerX, 0.5);
    const double cy = finiteOr(zoom.centerY, 0.5);
    return {card.x + cx * card.width, card.y + (1 - cy) * card.height};
}

Point StageGeometry::screenPoint(double fractionX, double fractionY) const
{
    return {screenRect.x + fractionX * screenRect.width, screenRect.maxY() - fractionY * screenRect.height};
}

Rect StageGeometry::screenRectOf(const Rect& fractions) const
{
    return {screenRect.x + fractions.x * screenRect.width,
        screenRect.maxY() - (fractions.y + fractions.height) * screenRect.height, fractions.width * screenRect.width,
        fractions.height * screenRect.height};
}

Affine StageGeometry::zoomTransform(const ZoomState& zoom, std::optional<Point> follow) const
{
    const double s = zoom.scale;
    if (window) {
        const double z = std::isfinite(s) && s > noZoom ? s : 1.0;
        double fx = finiteOr(zoom.centerX, 0.5);
        double fy = finiteOr(zoom.centerY, 0.5);
        if (follow && std::isfinite(follow->x) && std::isfinite(follow->y)) {
            const double w = std::clamp((z - 1) / verticalFocusHandOver, 0.0, 1.0);
            fx = follow->x + (fx - follow->x) * w;
            fy = follow->y + (fy - follow->y) * w;
        }
        fx = std::clamp(fx, 0.0, 1.0);
        fy = std::clamp(fy, 0.0, 1.0);
        const Rect& r = screenRect;
        const Rect& v = *window;
        return {z, 0, 0, z, v.x - fx * (z * r.width - v.width) - z * r.x,
            v.maxY() + fy * (z * r.height - v.height) - z * r.maxY()};
    }
    if (!std::isfinite(s) || s <= noZoom || !canvas.isUsable())
        return Affine::identity();
    if (cardCamera)
        return cardCameraTransform(s, focusOn(cameraCard, zoom), cameraCard, canvas);

    // Keep the focus where it is, but never let the magnified canvas uncover the output.
    const Point f = focusOn(screenRect, zoom);
    const double W = canvas.width;
    const double H = canvas.height;
    const double tx = std::clamp(f.x - s * f.x, W - s * W, 0.0);
    const double ty = std::clamp(f.y - s * f.y, H - s * H, 0.0);
    return {s, 0, 0, s, tx, ty};
}

Affine StageGeometry::cardCameraTransform(double z, Point focus, const Rect& card, Size canvas)
{
    if (!(z > noZoom) || !std::isfinite(z) || !std::isfinite(focus.x) || !std::isfinite(focus.y)
        || !canvas.isUsable() || !finiteRect(card))
        return Affine::identity();
    const double W = canvas.width;
    const double H = canvas.height;
    const double viewW = W / z;
    const double viewH = H / z;

    const double growth = std::max(W / card.width, H / card.height) - 1;
    const double t = growth <= 0.0001 ? 1.0 : std::clamp((z - 1) / growth, 0.0, 1.0);

    // The region the view stays inside, from the whole canvas (t = 0) to the card (t = 1).
    const double x0 = t * card.minX();
    const double y0 = t * card.minY();
    const double rw = W + t * (card.width - W);
    const double rh = H + t * (card.height - H);

    const double cx = viewW <= rw ? std::clamp(focus.x, x0 + viewW / 2, x0 + rw - viewW / 2) : x0 + rw / 2;
    const double cy = viewH <= rh ? std::clamp(focus.y, y0 + viewH / 2, y0 + rh - viewH / 2) : y0 + rh / 2;
    return {z, 0, 0, z, -(cx - viewW / 2) * z, -(cy - viewH / 2) * z};
}

Affine StageGeometry::sourceFit(const Rect& source, const Rect& target)
{
    if (!finiteRect(source) || !finiteRect(target))
        return Affine::identity();
    const double k = std::min(target.width / source.width, target.height / source.height);
    const double x = target.x + (target.width - source.width * k) / 2;
    const double y = target.y + (target.height - source.height * k) / 2;
    return {k, 0, 0, k, x - k * source.x, y - k * source.y};
}

std::vector<StageSpec::CardLook::ShadowLayer> StageGeometry::shadowLayers(const StageSpec& spec) const
{
    auto layers = spec.shadowLayers();
    const double length = window ? window->width : screenRect.width;
    for (auto& layer : layers) {
        layer.y *= length;
        layer.blur *= length;
    }
    return layers;
}

} // namespace plim
