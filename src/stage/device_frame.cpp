#include "stage/device_frame.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

double atLeastOne(double length)
{
    return std::isfinite(length) ? std::max(length, 1.0) : 1.0;
}

} // namespace

DeviceFrameGeometry::DeviceFrameGeometry(Size canvasSize, Size content, const StageSpec& spec)
    : canvas(canvasSize)
{
    if (!canvas.isUsable())
        return;
    const double W = canvas.width;
    const double H = canvas.height;
    const double m = std::min(W, H);

    double padding = spec.card ? std::clamp(m * spec.card->padding, 0.0, 0.35 * m)
                               : std::clamp(W / 1280 * spec.paddingPX, 0.06 * m, 0.35 * m);
    if (!std::isfinite(padding))
        padding = 0;

    // Without a card look the fit leaves room for the body around the screen.
    const double cw = atLeastOne(content.width);
    const double ch = atLeastOne(content.height);
    const double widthTerm = spec.card ? cw : 1.104 * cw;
    const double heightTerm = spec.card ? ch : ch + 0.104 * cw;
    const double s = std::min(std::max(H - 2 * padding, 1.0) / heightTerm, std::max(W - 2 * padding, 1.0) / widthTerm);

    const double w = cw * s;
    const double h = ch * s;
    screen = Rect::centered({w, h}, canvas);
    bezel = 0.052 * w;
    body = screen.outset(bezel, bezel);
    screenCorner = 0.135 * w;
    bodyCorner = screenCorner + bezel;
    stroke = std::max(0.18 * bezel, 1.0);

    const double islandWidth = 0.32 * w;
    const double islandHeight = 0.095 * w;
    island = {screen.midX() - islandWidth / 2, screen.maxY() - 0.03 * w - islandHeight, islandWidth, islandHeight};
    islandCorner = std::min(0.05 * w, islandHeight / 2);
}

} // namespace plim
