#pragma once
// Where the screen card sits on the output canvas and how a zoom magnifies it. Pure
// arithmetic on doubles in canvas pixels (origin bottom-left, y upward); lengths named
// "PX" settings of a look are pixels of a 1280-wide canvas, scaled by width / 1280.

#include "base/geometry.h"
#include "plan/zoom_state.h"
#include "stage/device_frame.h"
#include "stage/stage_spec.h"

#include <vector>

namespace plim {

struct StageGeometry {
    Size canvas;
    Rect screenRect;         // the screen card on the canvas
    double cornerRadius = 0; // of the screen card
    bool cardCamera = false; // the look is a proportional card look
    Rect cameraCard;         // what a card-camera zoom keeps in view
    bool operator==(const StageGeometry&) const = default;

    StageGeometry() = default;
    // `content` is the recorded picture's size; an unusable one stands in as the canvas size.
    StageGeometry(Size canvas, Size content, const StageSpec& spec, bool deviceFramed);

    // The whole-stage transform for a zoom; the identity at scale 1.
    Affine zoomTransform(const ZoomState& zoom) const;

    // Canvas point (before any zoom) of a position given in fractions of the recorded
    // picture from its top-left: pointer, clicks, touches.
    Point screenPoint(double fractionX, double fractionY) const;
    // Canvas rectangle of a box given in fractions of the picture from its top-left.
    Rect screenRectOf(const Rect& fractions) const;

    // Canvas point of a zoom centre (fractions of the picture from its top-left) on `card`.
    static Point focusOn(const Rect& card, const ZoomState& zoom);

    // Zooms by `scale` about `focus` while keeping the view inside a region that blends
    // from the whole canvas (scale near 1) to `card` (fully zoomed in).
    static Affine cardCameraTransform(double scale, Point focus, const Rect& card, Size canvas);

    // Fits `source` into `target` with its aspect kept, centred; the identity when either
    // rectangle is empty or not finite.
    static Affine sourceFit(const Rect& source, const Rect& target);

    // The card's shadow passes with offsets and blur radii in canvas pixels (fractions of
    // the screen card's width); alpha stays an opacity.
    std::vector<StageSpec::CardLook::ShadowLayer> shadowLayers(const StageSpec& spec) const;
};

} // namespace plim
