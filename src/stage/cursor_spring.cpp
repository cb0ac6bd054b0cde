#include "stage/cursor_spring.h"

#include <algorithm>
#include <cmath>

namespace plim {

CursorSpring::Point CursorSpring::advance(double towardX, double towardY, double dt)
{
    if (!std::isfinite(towardX) || !std::isfinite(towardY) || !std::isfinite(dt) || dt < 0)
        return position();
    carry += std::min(dt, longestAdvance);
    while (carry >= tickDue) {
        tick(x, vx, towardX);
        tick(y, vy, towardY);
        carry -= step;
    }
    carry = std::max(carry, 0.0);
    return position();
}

} // namespace plim
