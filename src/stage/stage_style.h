#pragma once
// Every colour, curve and radius of the stage art in one place: backdrops, click tints,
// pointer, camera bubble, keycaps, captions, spotlight and transitions. Overlay lengths
// marked "u" are pixels of a 1280 × 720 canvas, scaled by the canvas's shorter side / 720,
// so a vertical or square video gets overlays as large as a landscape one of its height.

#include "library/plim_look.h"
#include "stage/compositor.h"
#include "stage/stage_spec.h"

#include <vector>

namespace plim::stage_style {

// The shorter canvas side at which one u is one pixel.
inline constexpr double unitSide = 720;

// A backdrop's art: a linear gradient at `angle` degrees (0 = left to right, 90 = bottom to
// top) over its stops, and a soft radial glow near the top-left for depth.
struct BackdropArt {
    std::vector<GradientStop> stops;
    double angle = 0;
    Color glow = {1, 1, 1, 0}; // drawn from the glow point, fading to transparent
};

inline BackdropArt art(std::vector<int> hexes, double angle, Color glow = {1, 1, 1, 0.10})
{
    BackdropArt a;
    for (size_t i = 0; i < hexes.size(); ++i)
        a.stops.push_back({hexes.size() == 1 ? 0.0 : double(i) / double(hexes.size() - 1), Color::rgb(hexes[i])});
    a.angle = angle;
    a.glow = glow;
    return a;
}

inline BackdropArt namedBackdrop(StageSpec::Backdrop::Named name)
{
    using N = StageSpec::Backdrop::Named;
    switch (name) {
    case N::none: return art({0x000000}, 0, {1, 1, 1, 0});
    case N::graphite: return art({0x3A3D44, 0x1E2024, 0x141518}, -60, {1, 1, 1, 0.06});
    case N::slate: return art({0x64748B, 0x475569, 0x2B3442}, -60, {1, 1, 1, 0.08});
    case N::gradient: return art({0x6D5BF0, 0x8E6CF5, 0x3AA0F7}, -35, {1, 1, 1, 0.16});
    case N::wallpaper: return art({0x6D5BF0, 0x8E6CF5, 0x3AA0F7}, -35, {1, 1, 1, 0.16});
    case N::cobalt: return art({0x2F6BFF, 0x1D4ED8, 0x142C7A}, -50, {0.6, 0.8, 1, 0.14});
    case N::ocean: return art({0x22C1C3, 0x1490B8, 0x0B4F7A}, -55, {0.8, 1, 1, 0.14});
    case N::plum: return art({0xC0449C, 0x7B2FA8, 0x3B1C6E}, -45, {1, 0.8, 1, 0.14});
    }
    return art({0x6D5BF0, 0x3AA0F7}, -35);
}

inline BackdropArt lookBackdrop(PlimLook::Backdrop backdrop)
{
    using B = PlimLook::Backdrop;
    switch (backdrop) {
    case B::dawn: return art({0xFFB38A, 0xF58FB0, 0xA98BF0}, -30, {1, 1, 0.9, 0.18});
    case B::lagoon: return art({0x7FE3D0, 0x2BB5C9, 0x1B6FA8}, -40, {1, 1, 1, 0.16});
    case B::meadow: return art({0xC6E97A, 0x6CC47E, 0x2E8B6A}, -40, {1, 1, 0.9, 0.14});
    case B::ember: return art({0xFFC45C, 0xF2703C, 0xB8283E}, -35, {1, 0.95, 0.8, 0.16});
    case B::graphite: return art({0x3A3D44, 0x1E2024, 0x141518}, -60, {1, 1, 1, 0.06});
    case B::paper: return art({0xFBF8F1, 0xF0EBE0, 0xE3DCCD}, -70, {1, 1, 1, 0.30});
    case B::desk: return art({0x9C7350, 0x73513A, 0x4A3327}, -65, {1, 0.9, 0.8, 0.10});
    // Drawn from their colour or picture (or the stage look's backdrop); the gradient stands in
    // when that cannot be.
    case B::stage:
    case B::color:
    case B::image:
    case B::wallpaper: return namedBackdrop(StageSpec::Backdrop::Named::gradient);
    }
    return art({0xFFB38A, 0xA98BF0}, -30);
}

// Two colours of a `duo` backdrop are laid out like the named ones.
inline constexpr double duoAngle = -35;
// Blur radius units of an `image` backdrop are pixels of a 1280-wide canvas.
inline constexpr double imageBlurPerUnit = 1.0;

inline Color clickTint(ClickTint tint)
{
    switch (tint) {
    case ClickTint::white: return Color::rgb(0xFFFFFF);
    case ClickTint::cobalt: return Color::rgb(0x3D7BFF);
    case ClickTint::amber: return Color::rgb(0xFFB020);
    case ClickTint::green: return Color::rgb(0x34C759);
    case ClickTint::magenta: return Color::rgb(0xFF3DA5);
    }
    return Color::rgb(0xFFFFFF);
}

// Click effects: full radius in u, ring line width in u.
inline constexpr double clickRadius = 26;
inline constexpr double clickRingWidth = 3.2;
inline constexpr double clickHighlightRadius = 20;
inline constexpr double clickSpotlightRadius = 44;

// Card shadow colour (opacity comes from the shadow layers).
inline constexpr Color cardShadow = {0.02, 0.03, 0.08, 1};

// Pointer: height of the arrow in u at size 100 and no zoom; it grows with the zoom by
// zoom^pointerZoomPower; a press shrinks it to pointerPressScale.
inline constexpr double pointerHeight = 24;
inline constexpr double pointerZoomPower = 0.75;
inline constexpr double pointerPressScale = 0.82;
inline constexpr Color pointerFill = {0.05, 0.05, 0.07, 1};
inline constexpr Color pointerOutline = {1, 1, 1, 1};
inline constexpr double pointerOutlineWidth = 1.6; // in arrow units of 24
inline constexpr Color pointerShadow = {0, 0, 0, 0.45};
inline constexpr double pointerSmearMin = 6;       // canvas pixels per frame before the pointer streaks
inline constexpr int pointerSmearCopies = 10;

// A touch on a phone recording: radius in u, fill and rim.
inline constexpr double touchRadius = 22;
inline constexpr Color touchFill = {0.55, 0.55, 0.58, 0.45};
inline constexpr Color touchRim = {1, 1, 1, 0.7};

// Spotlight around the pointer: clear inside spotlightInner u, dimmed by spotlightDim
// beyond spotlightOuter u, and a faint warm glow at the pointer.
inline constexpr double spotlightInner = 90;
inline constexpr double spotlightOuter = 230;
inline constexpr double spotlightDim = 0.55;
inline constexpr Color spotlightGlow = {1, 0.97, 0.9, 0.10};

// Camera bubble: diameter as a fraction of the canvas's shorter side at scale 1, its
// margin from the corner, the card shape's corner fraction and the ring.
inline constexpr double bubbleDiameter = 0.24;
inline constexpr double bubbleMargin = 0.04;
inline constexpr double bubbleCardCorner = 0.22;
inline constexpr Color bubbleRing = {1, 1, 1, 0.92};
inline constexpr double bubbleRingWidth = 0.028; // of the diameter
inline constexpr Color bubbleShadow = {0, 0, 0, 0.35};

// Keycaps: height in u, corner, padding, gap, distance from the bottom, colours, and the
// fade in / out in seconds.
inline constexpr double keycapHeight = 40;
inline constexpr double keycapCorner = 9;
inline constexpr double keycapPadding = 13;
inline constexpr double keycapGap = 8;
inline constexpr double keycapBottom = 84;
inline constexpr double keycapText = 20;
inline constexpr Color keycapFill = {0.09, 0.09, 0.11, 0.86};
inline constexpr Color keycapEdge = {1, 1, 1, 0.16};
inline constexpr Color keycapTextColor = {1, 1, 1, 1};
inline constexpr double keycapFadeIn = 0.08;
inline constexpr double keycapFadeOut = 0.25;
inline constexpr size_t keycapsShown = 4;

// Captions: text size in u per size, distance from the edge, pill padding and colours.
inline double captionText(StageSpec::CaptionSize size)
{
    switch (size) {
    case StageSpec::CaptionSize::small: return 20;
    case StageSpec::CaptionSize::medium: return 26;
    case StageSpec::CaptionSize::large: return 34;
    }
    return 26;
}
inline constexpr double captionMargin = 84;
inline constexpr double captionMaxWidth = 0.78; // of the canvas width
inline constexpr double captionPillPadX = 0.75; // of the text size
inline constexpr double captionPillPadY = 0.38;
inline constexpr Color captionPill = {0.05, 0.05, 0.07, 0.74};
inline constexpr Color captionLightBox = {0.98, 0.98, 0.97, 0.92};
inline constexpr Color captionLightText = {0.09, 0.09, 0.11, 1};
inline constexpr Color captionShadow = {0, 0, 0, 0.75};

// Device frame body.
inline constexpr Color deviceBody = {0.08, 0.08, 0.09, 1};
inline constexpr Color deviceStroke = {0.32, 0.32, 0.35, 1};
inline constexpr Color deviceIsland = {0, 0, 0, 1};

// Transitions: the blur's full sigma as a fraction of the canvas width, the punch's
// full magnification and its flash.
inline constexpr double transitionBlur = 0.02;
inline constexpr double punchScale = 0.08;
inline constexpr double punchFlash = 0.18;

// Zoom blur: magnification spread per unit of zoom velocity, capped.
inline constexpr double zoomBlurPerVelocity = 0.015;
inline constexpr double zoomBlurMax = 0.03;

// Typeface of keycaps and captions; the key symbols Noto Sans lacks (⌃ ⌥ ⇧ ⌘) come from
// DejaVu Sans, which draws them at the capitals' size on the baseline, all but ⌃.
inline constexpr const char* fontFamily = "Noto Sans, DejaVu Sans";

} // namespace plim::stage_style
