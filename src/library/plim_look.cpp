#include "library/plim_look.h"

#include <array>
#include <cmath>
#include <utility>

namespace plim {

namespace {

constexpr std::array<std::pair<PlimLook::Shape, std::string_view>, 4> shapeNames{{
    {PlimLook::Shape::landscape, "16:9"},
    {PlimLook::Shape::vertical, "9:16"},
    {PlimLook::Shape::square, "1:1"},
    {PlimLook::Shape::iPhone, "iPhone"},
}};

constexpr std::array<std::pair<PlimLook::Backdrop, std::string_view>, 7> backdropNames{{
    {PlimLook::Backdrop::dawn, "dawn"},
    {PlimLook::Backdrop::lagoon, "lagoon"},
    {PlimLook::Backdrop::meadow, "meadow"},
    {PlimLook::Backdrop::ember, "ember"},
    {PlimLook::Backdrop::graphite, "graphite"},
    {PlimLook::Backdrop::paper, "paper"},
    {PlimLook::Backdrop::desk, "desk"},
}};

constexpr std::array<std::pair<PlimLook::BubbleCorner, std::string_view>, 4> cornerNames{{
    {PlimLook::BubbleCorner::bl, "bl"},
    {PlimLook::BubbleCorner::br, "br"},
    {PlimLook::BubbleCorner::tl, "tl"},
    {PlimLook::BubbleCorner::tr, "tr"},
}};

template<typename E, size_t N>
std::string_view textOf(const std::array<std::pair<E, std::string_view>, N>& table, E value)
{
    for (auto& [e, text] : table)
        if (e == value)
            return text;
    return table[0].second;
}

template<typename E, size_t N>
std::optional<E> valueOf(const std::array<std::pair<E, std::string_view>, N>& table, std::string_view text)
{
    for (auto& [e, name] : table)
        if (name == text)
            return e;
    return std::nullopt;
}

const std::array<std::string_view, 14> knownKeys{"shape", "clickRings", "spotlight", "keys", "cameraBubble",
    "captions", "bubbleCorner", "backdrop", "padding", "corners", "shadow", "cursorGlide", "deadAir", "zoomBlur"};

} // namespace

std::string_view PlimLook::shapeText(Shape shape) { return textOf(shapeNames, shape); }
std::string_view PlimLook::backdropText(Backdrop backdrop) { return textOf(backdropNames, backdrop); }
std::string_view PlimLook::bubbleCornerText(BubbleCorner corner) { return textOf(cornerNames, corner); }

std::optional<PlimLook::Shape> PlimLook::shapeFromText(std::string_view text)
{
    if (auto shape = valueOf(shapeNames, text))
        return shape;
    if (text == "landscape")
        return Shape::landscape;
    if (text == "vertical")
        return Shape::vertical;
    if (text == "square")
        return Shape::square;
    return std::nullopt;
}

std::optional<PlimLook::Backdrop> PlimLook::backdropFromText(std::string_view text)
{
    return valueOf(backdropNames, text);
}

std::optional<PlimLook::BubbleCorner> PlimLook::bubbleCornerFromText(std::string_view text)
{
    return valueOf(cornerNames, text);
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
        bool known = false;
        for (auto k : knownKeys)
            known = known || k == key;
        if (!known)
            look.unknownKeys[key] = it.value();
    }

    auto drop = [&](const char* key) {
        if (value.contains(key))
            out.droppedKeys.push_back(key);
    };
    auto readBool = [&](const char* key, bool& field) {
        if (auto b = jsonBool(value, key))
            field = *b;
        else
            drop(key);
    };
    auto readFraction = [&](const char* key, double& field, double most) {
        auto d = jsonNumber(value, key);
        if (d && *d >= 0 && *d <= most)
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

    // Keys in sorted order so droppedKeys reads in the order the file lists them.
    readEnum("backdrop", look.backdrop, backdropFromText);
    readEnum("bubbleCorner", look.bubbleCorner, bubbleCornerFromText);
    readBool("cameraBubble", look.cameraBubble);
    readBool("captions", look.captions);
    readBool("clickRings", look.clickRings);
    readFraction("corners", look.corners, 0.5);
    readBool("cursorGlide", look.cursorGlide);
    readBool("deadAir", look.deadAir);
    readBool("keys", look.keys);
    readFraction("padding", look.padding, 1);
    readFraction("shadow", look.shadow, 100);
    readEnum("shape", look.shape, shapeFromText);
    readBool("spotlight", look.spotlight);
    readBool("zoomBlur", look.zoomBlur);
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
    return out;
}

} // namespace plim
