#pragma once
// A plim's look: the few choices the editor offers for how a plim is dressed (shape,
// backdrop, card, pointer and overlay switches). Stored under "look" in the edits file
// and in the saved-looks file. Reading is lenient: a bad key keeps its default and is
// reported by name; keys this version does not know are kept so they are written back.

#include "base/json.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct PlimLook {
    enum class Shape { landscape, vertical, square, iPhone };
    enum class Backdrop { dawn, lagoon, meadow, ember, graphite, paper, desk };
    enum class BubbleCorner { bl, br, tl, tr };

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
    // Keys written by a later version; carried through unchanged.
    Json unknownKeys = Json::object();

    bool operator==(const PlimLook&) const = default;

    // Text forms: "16:9", "9:16", "1:1", "iPhone"; "dawn" ...; "bl" ...
    static std::string_view shapeText(Shape shape);
    static std::string_view backdropText(Backdrop backdrop);
    static std::string_view bubbleCornerText(BubbleCorner corner);
    // Also accepts the case names "landscape", "vertical", "square".
    static std::optional<Shape> shapeFromText(std::string_view text);
    static std::optional<Backdrop> backdropFromText(std::string_view text);
    static std::optional<BubbleCorner> bubbleCornerFromText(std::string_view text);

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
