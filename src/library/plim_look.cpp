#include "library/plim_look.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <utility>

namespace plim {

namespace {

template<typename E, size_t N>
using Names = std::array<std::pair<E, std::string_view>, N>;

constexpr Names<PlimLook::Shape, 5> shapeNames{{
    {PlimLook::Shape::landscape, "16:9"},
    {PlimLook::Shape::wide, "16:10"},
    {PlimLook::Shape::vertical, "9:16"},
    {PlimLook::Shape::square, "1:1"},
    {PlimLook::Shape::iPhone, "iPhone"},
}};

constexpr Names<PlimLook::Backdrop, 11> backdropNames{{
    {PlimLook::Backdrop::dawn, "dawn"},
    {PlimLook::Backdrop::lagoon, "lagoon"},
    {PlimLook::Backdrop::meadow, "meadow"},
    {PlimLook::Backdrop::ember, "ember"},
    {PlimLook::Backdrop::graphite, "graphite"},
    {PlimLook::Backdrop::paper, "paper"},
    {PlimLook::Backdrop::desk, "desk"},
    {PlimLook::Backdrop::color, "color"},
    {PlimLook::Backdrop::image, "image"},
    {PlimLook::Backdrop::wallpaper, "wallpaper"},
    {PlimLook::Backdrop::stage, "stage"},
}};

constexpr Names<PlimLook::BubbleCorner, 4> cornerNames{{
    {PlimLook::BubbleCorner::bl, "bl"},
    {PlimLook::BubbleCorner::br, "br"},
    {PlimLook::BubbleCorner::tl, "tl"},
    {PlimLook::BubbleCorner::tr, "tr"},
}};

constexpr Names<PlimLook::ClickStyle, 4> clickStyleNames{{
    {PlimLook::ClickStyle::ring, "ring"},
    {PlimLook::ClickStyle::pulse, "pulse"},
    {PlimLook::ClickStyle::highlight, "highlight"},
    {PlimLook::ClickStyle::spotlight, "spotlight"},
}};

constexpr Names<PlimLook::ClickTint, 5> clickTintNames{{
    {PlimLook::ClickTint::white, "white"},
    {PlimLook::ClickTint::cobalt, "cobalt"},
    {PlimLook::ClickTint::amber, "amber"},
    {PlimLook::ClickTint::green, "green"},
    {PlimLook::ClickTint::magenta, "magenta"},
}};

constexpr Names<PlimLook::CaptionSize, 3> captionSizeNames{{
    {PlimLook::CaptionSize::small, "small"},
    {PlimLook::CaptionSize::medium, "medium"},
    {PlimLook::CaptionSize::large, "large"},
}};

constexpr Names<PlimLook::CaptionPlace, 2> captionPlaceNames{{
    {PlimLook::CaptionPlace::bottom, "bottom"},
    {PlimLook::CaptionPlace::top, "top"},
}};

constexpr Names<PlimLook::CaptionBox, 3> captionBoxNames{{
    {PlimLook::CaptionBox::dark, "dark"},
    {PlimLook::CaptionBox::light, "light"},
    {PlimLook::CaptionBox::none, "none"},
}};

template<typename E, size_t N>
std::string_view textOf(const Names<E, N>& table, E value)
{
    for (auto& [e, text] : table)
        if (e == value)
            return text;
    return table[0].second;
}

template<typename E, size_t N>
std::optional<E> valueOf(const Names<E, N>& table, std::string_view text)
{
    for (auto& [e, name] : table)
        if (name == text)
            return e;
    return std::nullopt;
}

const std::array<std::string_view, 25> knownKeys{"shape", "clickRings", "spotlight", "keys", "cameraBubble",
    "captions", "bubbleCorner", "backdrop", "padding", "corners", "shadow", "cursorGlide", "deadAir", "zoomBlur",
    "backdropColor", "backdropImage", "pointerSize", "pointerHidesIdle", "clickStyle", "clickTint", "zoomStyle",
    "zoomLevel", "captionSize", "captionPlace", "captionBox"};

} // namespace

std::string_view PlimLook::shapeText(Shape shape) { return textOf(shapeNames, shape); }
std::string_view PlimLook::backdropText(Backdrop backdrop) { return textOf(backdropNames, backdrop); }
std::string_view PlimLook::bubbleCornerText(BubbleCorner corner) { return textOf(cornerNames, corner); }
std::string_view PlimLook::clickStyleText(ClickStyle style) { return textOf(clickStyleNames, style); }
std::string_view PlimLook::clickTintText(ClickTint tint) { return textOf(clickTintNames, tint); }
std::string_view PlimLook::captionSizeText(CaptionSize size) { return textOf(captionSizeNames, size); }
std::string_view PlimLook::captionPlaceText(CaptionPlace place) { return textOf(captionPlaceNames, place); }
std::string_view PlimLook::captionBoxText(CaptionBox box) { return textOf(captionBoxNames, box); }

std::optional<PlimLook::Shape> PlimLook::shapeFromText(std::string_view text)
{
    if (auto shape = valueOf(shapeNames, text))
        return shape;
    constexpr Names<Shape, 4> caseNames{{
        {Shape::landscape, "landscape"}, {Shape::vertical, "vertical"}, {Shape::square, "square"}, {Shape::wide, "wide"}}};
    return valueOf(caseNames, text);
}

std::optional<PlimLook::Backdrop> PlimLook::backdropFromText(std::string_view text) { return valueOf(backdropNames, text); }
std::optional<PlimLook::BubbleCorner> PlimLook::bubbleCornerFromText(std::string_view text) { return valueOf(cornerNames, text); }
std::optional<PlimLook::ClickStyle> PlimLook::clickStyleFromText(std::string_view text) { return valueOf(clickStyleNames, text); }
std::optional<PlimLook::ClickTint> PlimLook::clickTintFromText(std::string_view text) { return valueOf(clickTintNames, text); }
std::optional<PlimLook::CaptionSize> PlimLook::captionSizeFromText(std::string_view text) { return valueOf(captionSizeNames, text); }
std::optional<PlimLook::CaptionPlace> PlimLook::captionPlaceFromText(std::string_view text) { return valueOf(captionPlaceNames, text); }
std::optional<PlimLook::CaptionBox> PlimLook::captionBoxFromText(std::string_view text) { return valueOf(captionBoxNames, text); }

const std::vector<PlimLook::Backdrop>& PlimLook::gradientBackdrops()
{
    static const std::vector<Backdrop> gradients{Backdrop::dawn, Backdrop::lagoon, Backdrop::meadow, Backdrop::ember,
        Backdrop::graphite, Backdrop::paper, Backdrop::desk};
    return gradients;
}

bool PlimLook::isColorText(std::string_view text)
{
    return text.size() == 7 && text[0] == '#'
        && std::all_of(text.begin() + 1, text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

PlimLook::Decoded PlimLook::fromJson(const Json& value)
{
    Decoded out;
    if (!value.is_object()) {
        out.notAnObject = true;
        return out;
    }
    PlimLook& look = out.look;
    for (auto it = value.begin(); it != value.end(); ++it) {
        const std::string& key = it.key();
        if (std::find(knownKeys.begin(), knownKeys.end(), key) == knownKeys.end())
            look.unknownKeys[key] = it.value();
    }

    auto drop = [&](const char* key) {
        if (value.contains(key))
            out.droppedKeys.push_back(key);
    };
    auto readBool = [&](const char* key, auto& field) {
        if (auto b = jsonBool(value, key))
            field = *b;
        else
            drop(key);
    };
    auto readNumber = [&](const char* key, auto& field, double least, double most) {
        auto d = jsonNumber(value, key);
        if (d && *d >= least && *d <= most)
            field = *d;
        else
            drop(key);
    };
    auto readEnum = [&](const char* key, auto& field, auto parse) {
        auto text = jsonString(value, key);
        auto parsed = text ? parse(*text) : std::nullopt;
        if (parsed)
            field = *parsed;
        else
            drop(key);
    };
    auto readText = [&](const char* key, std::optional<std::string>& field, auto usable) {
        auto text = jsonString(value, key);
        if (text && usable(*text))
            field = *text;
        else
            drop(key);
    };
    auto zoomStyle = [](std::string_view text) { return zoomStyleFromText(text); };

    // Keys in sorted order so droppedKeys reads in the order the file lists them.
    readEnum("backdrop", look.backdrop, backdropFromText);
    readText("backdropColor", look.backdropColor, isColorText);
    readText("backdropImage", look.backdropImage, [](const std::string& path) { return !path.empty(); });
    readEnum("bubbleCorner", look.bubbleCorner, bubbleCornerFromText);
    readBool("cameraBubble", look.cameraBubble);
    readEnum("captionBox", look.captionBox, captionBoxFromText);
    readEnum("captionPlace", look.captionPlace, captionPlaceFromText);
    readEnum("captionSize", look.captionSize, captionSizeFromText);
    readBool("captions", look.captions);
    readBool("clickRings", look.clickRings);
    readEnum("clickStyle", look.clickStyle, clickStyleFromText);
    readEnum("clickTint", look.clickTint, clickTintFromText);
    readNumber("corners", look.corners, 0, 0.5);
    readBool("cursorGlide", look.cursorGlide);
    readBool("deadAir", look.deadAir);
    readBool("keys", look.keys);
    readNumber("padding", look.padding, 0, 1);
    readBool("pointerHidesIdle", look.pointerHidesIdle);
    if (auto size = jsonInteger(value, "pointerSize"); size && *size >= smallestPointerSize && *size <= largestPointerSize)
        look.pointerSize = static_cast<int>(*size);
    else
        drop("pointerSize");
    readNumber("shadow", look.shadow, 0, 100);
    readEnum("shape", look.shape, shapeFromText);
    readBool("spotlight", look.spotlight);
    readBool("zoomBlur", look.zoomBlur);
    readNumber("zoomLevel", look.zoomLevel, smallestZoomLevel, largestZoomLevel);
    readEnum("zoomStyle", look.zoomStyle, zoomStyle);
    return out;
}

Json PlimLook::toJson() const
{
    Json out = unknownKeys.is_object() ? unknownKeys : Json::object();
    out["shape"] = shapeText(shape);
    out["clickRings"] = clickRings;
    out["spotlight"] = spotlight;
    out["keys"] = keys;
    out["cameraBubble"] = cameraBubble;
    out["captions"] = captions;
    out["bubbleCorner"] = bubbleCornerText(bubbleCorner);
    out["backdrop"] = backdropText(backdrop);
    out["padding"] = padding;
    out["corners"] = corners;
    out["shadow"] = shadow;
    out["cursorGlide"] = cursorGlide;
    out["deadAir"] = deadAir;
    out["zoomBlur"] = zoomBlur;
    auto put = [&](const char* key, const auto& field, auto text) {
        if (field)
            out[key] = text(*field);
    };
    auto same = [](const auto& v) { return v; };
    put("backdropColor", backdropColor, same);
    put("backdropImage", backdropImage, same);
    put("pointerSize", pointerSize, same);
    put("pointerHidesIdle", pointerHidesIdle, same);
    put("clickStyle", clickStyle, clickStyleText);
    put("clickTint", clickTint, clickTintText);
    put("zoomStyle", zoomStyle, [](ZoomStyle s) { return zoomStyleText(s); });
    put("zoomLevel", zoomLevel, same);
    put("captionSize", captionSize, captionSizeText);
    put("captionPlace", captionPlace, captionPlaceText);
    put("captionBox", captionBox, captionBoxText);
    return out;
}

} // namespace plim
