#pragma once
// The phone body drawn around a phone recording: screen, body, bezel, corners, outline
// and the dark island at the top of the screen, all in canvas pixels (y upward).

#include "base/geometry.h"
#include "stage/stage_spec.h"

namespace plim {

struct DeviceFrameGeometry {
    Size canvas;
    Rect screen;
    Rect body;
    double bezel = 0;
    double bodyCorner = 0;
    double screenCorner = 0;
    double stroke = 0;
    Rect island;
    double islandCorner = 0;
    bool operator==(const DeviceFrameGeometry&) const = default;

    DeviceFrameGeometry() = default;
    // `content` is the recorded picture's size; the screen keeps its aspect.
    DeviceFrameGeometry(Size canvas, Size content, const StageSpec& spec);
};

} // namespace plim
