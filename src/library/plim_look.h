#pragma once
// A plim's look: the few choices the editor offers for how a plim is dressed (shape,
// backdrop, card, pointer, clicks, zooms, captions and overlay switches). Stored under
// "look" in the edits file and in the saved-looks file. Reading is lenient: a bad key keeps
// its default and is reported by name; keys this version does not know are kept so they
// are written back. The optional keys are written only when chosen: absent, the stage
// look beside the movie (or its defaults) decides, so an older look draws as it always did.

#include "base/json.h"
#include "plan/zoom_state.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct PlimLook {
    enum class Shape { landscape, vertical, square, iPhone, wide };
    // stage: the backdrop of the stage look the plim is worn over, whatever it is.
    enum class Backdrop { dawn, lagoon, meadow, ember, graphite, paper, desk, color, image, wallpaper, stage };
    enum class BubbleCorner { bl, br, tl, tr };
    // Raw values are the stage look's names: "ring", "pulse" (a ripple), "highlight" (a dot),
    // "spotlight" (a soft light).
    enum class ClickStyle { ring, pulse, highlight, spotlight };
    enum class ClickTint { white, cobalt, amber, green, magenta };
    enum class CaptionSize { small, medium, large };
    enum class CaptionPlace { bottom, top };
    enum class CaptionBox { dark, light, none };

    static constexpr std::string_view defaultBackdropColor = "#1E2024";
    static constexpr int smallestPointerSize = 50, largestPointerSize = 300; // percent
    static constexpr double smallestZoomLevel = 1.1, largestZoomLevel = 4.0;

    Shape shape = Shape::landscape;
    bool clickRings = true;
    bool spotlight = false;
    bool keys = true;
    bool cameraBubble = true;
    bool captions = false;
    BubbleCorner bubbleCorner = BubbleCorner::br;
    Backdrop backdrop = Backdrop::dawn;
    double padding = 0.06;  // fraction of the canvas's shorter side
    double corners = 0.02;  // fraction of the screen card's width
    double shadow = 1.0;    // shadow strength, 1 = normal
    bool cursorGlide = true;
    bool deadAir = true;
    bool zoomBlur = false;
    std::optional<std::string> backdropColor; // "#RRGGBB" of the colour backdrop
    std::optional<std::string> backdropImage; // the image backdrop's picture file
    std::optional<int> pointerSize;           // percent of the usual pointer
    std::optional<bool> pointerHidesIdle;     // a resting pointer fades out
    std::optional<ClickStyle> clickStyle;     // when clickRings is on
    std::optional<ClickTint> clickTint;
    std::optional<ZoomStyle> zoomStyle;       // for zoom blocks without their own style
    std::optional<double> zoomLevel;          // for new zoom blocks
    std::optional<CaptionSize> captionSize;
    std::optional<CaptionPlace> captionPlace;
    std::optional<CaptionBox> captionBox;
    // Keys written by a later version; carried through unchanged.
    Json unknownKeys = Json::object();

    bool operator==(const PlimLook&) const = default;

    // The colour backdrop's colour, its default when none was chosen.
    std::string backdropColorOrDefault() const { return backdropColor.value_or(std::string(defaultBackdropColor)); }

    // Text forms: "16:9", "16:10", "9:16", "1:1", "iPhone"; "dawn" ... "color", "image",
    // "wallpaper", "stage"; "bl" ...; the rest their case names.
    static std::string_view shapeText(Shape shape);
    static std::string_view backdropText(Backdrop backdrop);
    static std::string_view bubbleCornerText(BubbleCorner corner);
    static std::string_view clickStyleText(ClickStyle style);
    static std::string_view clickTintText(ClickTint tint);
    static std::string_view captionSizeText(CaptionSize size);
    static std::string_view captionPlaceText(CaptionPlace place);
    static std::string_view captionBoxText(CaptionBox box);
    // Also accepts the case names "landscape", "vertical", "square", "wide".
    static std::optional<Shape> shapeFromText(std::string_view text);
    static std::optional<Backdrop> backdropFromText(std::string_view text);
    static std::optional<BubbleCorner> bubbleCornerFromText(std::string_view text);
    static std::optional<ClickStyle> clickStyleFromText(std::string_view text);
    static std::optional<ClickTint> clickTintFromText(std::string_view text);
    static std::optional<CaptionSize> captionSizeFromText(std::string_view text);
    static std::optional<CaptionPlace> captionPlaceFromText(std::string_view text);
    static std::optional<CaptionBox> captionBoxFromText(std::string_view text);
    // The gradient backdrops, in the order the editor shows them.
    static const std::vector<Backdrop>& gradientBackdrops();
    // Whether `text` is a colour written "#RRGGBB".
    static bool isColorText(std::string_view text);

    struct Decoded;
    // Lenient: each unusable key keeps its default and is named in droppedKeys; a value
    // that is not an object gives the default look with notAnObject set.
    static Decoded fromJson(const Json& value);
    Json toJson() const;
};

struct PlimLook::Decoded {
    PlimLook look;
    std::vector<std::string> droppedKeys; // keys present but unusable, in key order
    bool notAnObject = false;
};

} // namespace plim
