#pragma once
// How the picture is magnified at one output instant, and the easing styles of zoom moves.

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

// Raw values are the JSON strings, in this order.
enum class ZoomStyle { smooth, snappy, glide, bouncy, instant, linear, whip, spring, drift, cut };

inline constexpr std::array<ZoomStyle, 10> allZoomStyles = {
    ZoomStyle::smooth, ZoomStyle::snappy, ZoomStyle::glide, ZoomStyle::bouncy, ZoomStyle::instant,
    ZoomStyle::linear, ZoomStyle::whip,   ZoomStyle::spring, ZoomStyle::drift, ZoomStyle::cut,
};

inline std::string_view zoomStyleText(ZoomStyle style) {
    switch (style) {
    case ZoomStyle::smooth: return "smooth";
    case ZoomStyle::snappy: return "snappy";
    case ZoomStyle::glide: return "glide";
    case ZoomStyle::bouncy: return "bouncy";
    case ZoomStyle::instant: return "instant";
    case ZoomStyle::linear: return "linear";
    case ZoomStyle::whip: return "whip";
    case ZoomStyle::spring: return "spring";
    case ZoomStyle::drift: return "drift";
    case ZoomStyle::cut: return "cut";
    }
    return "smooth";
}

// Empty for text that is not one of the raw values (callers fall back to their default).
inline std::optional<ZoomStyle> zoomStyleFromText(std::string_view text) {
    for (ZoomStyle style : allZoomStyles)
        if (zoomStyleText(style) == text) return style;
    return std::nullopt;
}

// scale 1 = no magnification; the centre is a fraction of the recorded picture from its top-left.
struct ZoomState {
    double scale = 1.0;
    double centerX = 0.5;
    double centerY = 0.5;

    static constexpr ZoomState identity() { return {}; }
    bool isIdentity() const { return scale == 1.0 && centerX == 0.5 && centerY == 0.5; }
    bool operator==(const ZoomState&) const = default;
};

} // namespace plim
