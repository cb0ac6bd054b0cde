#include "stage/reframe_math.h"

#include <algorithm>
#include <cmath>

namespace plim {

Rect ReframeMath::bubbleRect(Size outputSize)
{
    if (!outputSize.isUsable())
        return {};
    const double w = outputSize.width;
    const double side = 0.26 * w;
    return {(w - side) / 2, 0.05 * w, side, side};
}

ReframeMath::BottomStack ReframeMath::bottomStack(Size outputSize, std::optional<double> bubbleTop, bool hasKeycaps)
{
    if (!outputSize.isUsable() || !bubbleTop || !std::isfinite(*bubbleTop) || *bubbleTop <= 0)
        return {};
    const double w = outputSize.width;
    const double h = outputSize.height;
    const double k = w / 1280 * 1.4;
    const double base = *bubbleTop + 24 * k;
    const double a = std::max(0.0, base - 64 * k);
    const double b = std::max(0.0, base - 118 * k);
    return {
        std::min(std::max(0.0, h / 2 - 64 * k), a),
        std::min(std::max(0.0, h / 2 - 118 * k), hasKeycaps ? a : b),
    };
}

} // namespace plim
