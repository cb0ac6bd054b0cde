#pragma once
// Where the screen card sits on the output canvas and how a zoom magnifies it. Pure
// arithmetic on doubles in canvas pixels (origin bottom-left, y upward); lengths named
// "PX" settings of a look are pixels of a 1280-wide canvas, scaled by width / 1280.

#include "base/geometry.h"
#include "plan/zoom_state.h"
#include "stage/device_frame.h"
#include "stage/stage_spec.h"

#include <optional>
#include <vector>

namespace plim {

struct StageGeometry {
    Size canvas;
    Rect screenRect;         // the screen card on the canvas
    double cornerRadius = 0; // of the screen card
    bool cardCamera = false; // the look is a proportional card look
    Rect cameraCard;         // what a card-camera zoom keeps in view
    // The vertical layout of a portrait canvas showing a wider recording: the card is this
    // window over the top of the canvas, from the padding down to verticalWindowBottom of
    // the height (the camera bubble, keycaps and captions stack below it). screenRect is
    // then the recorded picture covering the window at rest; it pans inside the window
    // after the pointer, and a zoom magnifies it there, never the backdrop.
    std::optional<Rect> window;
    bool operator==(const StageGeometry&) const = default;

    static constexpr double verticalWindowBottom = 0.3;
    // Zoom above 1 over which a vertical window's focus passes from the pointer to the zoom's centre.
    static constexpr double verticalFocusHandOver = 0.25;

    StageGeometry() = default;
    // `content` is the recorded picture's size; an unusable one stands in as the canvas size.
    // `vertical` asks for the vertical layout, used where the canvas is portrait and the
    // recording wider than the window; a phone body keeps the plain fit.
    StageGeometry(Size canvas, Size content, const StageSpec& spec, bool deviceFramed, bool vertical = false);

    // The whole-stage transform for a zoom; the identity at scale 1. In the vertical
    // layout it moves the picture inside the window: `follow` (the pointer, fractions of
    // the picture from its top-left) and the zoom's centre sit in the window where they
    // sit in the picture, so both stay in view, and the picture always covers the window.
    Affine zoomTransform(const ZoomState& zoom, std::optional<Point> follow = std::nullopt) const;

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
    // the screen card's width, or the window's); alpha stays an opacity.
    std::vector<StageSpec::CardLook::ShadowLayer> shadowLayers(const StageSpec& spec) const;
};

} // namespace plim
