#include "stage/stage_spec.h"

#include "base/files.h"
#include "base/json.h"
#include "library/library.h"
#include "library/plim_look.h"
#include "stage/stage_geometry.h"


#include <algorithm>
#include <cmath>
#include <limits>

namespace plim {

namespace {

template<typename E, size_t N>
std::optional<E> fromText(const std::array<E, N>& all, std::string_view (*text)(E), std::string_view raw)
{
    for (E value : all)
        if (text(value) == raw)
            return value;
    return std::nullopt;
}

// "Unknown backdrop kind "x"." -> "Unknown backdrop kind "x"" so it can sit inside a sentence.
std::string withoutFinalStop(std::string sentence)
{
    if (!sentence.empty() && sentence.back() == '.')
        sentence.pop_back();
    return sentence;
}

// Reads fields of one JSON object, collecting a notice for each that falls back.
class LenientReader {
public:
    LenientReader(const Json& object, std::string owner, std::vector<std::string>* notices)
        : m_object(object), m_owner(std::move(owner)), m_notices(notices)
    {
    }

    void integer(std::string_view key, int& field, int lo, int hi)
    {
        const Json* value = jsonField(m_object, key);
        if (!value)
            return;
        auto number = jsonAsInteger(*value);
        if (!number || *number < lo || *number > hi) {
            note(key, "is not a whole number from " + std::to_string(lo) + " to " + std::to_string(hi),
                std::to_string(field));
            return;
        }
        field = static_cast<int>(*number);
    }

    void number(std::string_view key, double& field, double lo, double hi)
    {
        const Json* value = jsonField(m_object, key);
        if (!value)
            return;
        auto number = jsonNumber(m_object, key);
        if (!number || *number < lo || *number > hi) {
            note(key, "is not a number from " + compact(lo) + " to " + compact(hi), compact(field));
            return;
        }
        field = *number;
    }

    void boolean(std::string_view key, bool& field)
    {
        const Json* value = jsonField(m_object, key);
        if (!value)
            return;
        if (!value->is_boolean()) {
            note(key, "is not true or false", field ? "true" : "false");
            return;
        }
        field = value->get<bool>();
    }

    template<typename E, size_t N>
    void choice(std::string_view key, E& field, const std::array<E, N>& all, std::string_view (*text)(E))
    {
        const Json* value = jsonField(m_object, key);
        if (!value)
            return;
        std::optional<E> parsed;
        if (value->is_string())
            parsed = fromText(all, text, value->get<std::string>());
        if (!parsed) {
            std::string names;
            for (size_t i = 0; i < N; ++i)
                names += (i == 0 ? "" : i + 1 == N ? " or " : ", ") + ("\"" + std::string(text(all[i])) + "\"");
            note(key, "is not one of " + names, "\"" + std::string(text(field)) + "\"");
            return;
        }
        field = *parsed;
    }

    void optionalText(std::string_view key, std::optional<std::string>& field)
    {
        const Json* value = jsonField(m_object, key);
        if (!value)
            return;
        if (!value->is_string()) {
            noteDropped(key, "is not text");
            return;
        }
        field = value->get<std::string>();
    }

    void note(std::string_view key, const std::string& problem, const std::string& fallback)
    {
        if (m_notices)
            m_notices->push_back(
                m_owner + " \"" + std::string(key) + "\" " + problem + ", so it keeps its default of " + fallback + ".");
    }

    void noteDropped(std::string_view key, const std::string& problem)
    {
        if (m_notices)
            m_notices->push_back(m_owner + " \"" + std::string(key) + "\" " + problem + ", so it was left out.");
    }

private:
    static std::string compact(double value)
    {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%g", value);
        return buffer;
    }

    const Json& m_object;
    std::string m_owner;
    std::vector<std::string>* m_notices;
};

constexpr std::array<StageSpec::CaptionLook, 4> allCaptionLooks = {StageSpec::CaptionLook::pill,
    StageSpec::CaptionLook::bold, StageSpec::CaptionLook::minimal, StageSpec::CaptionLook::light};
constexpr std::array<StageSpec::CaptionSize, 3> allCaptionSizes = {
    StageSpec::CaptionSize::small, StageSpec::CaptionSize::medium, StageSpec::CaptionSize::large};
constexpr std::array<StageSpec::CaptionPlace, 2> allCaptionPlaces = {
    StageSpec::CaptionPlace::bottom, StageSpec::CaptionPlace::top};

} // namespace

std::string_view clickStyleText(ClickStyle style)
{
    switch (style) {
    case ClickStyle::none: return "none";
    case ClickStyle::ring: return "ring";
    case ClickStyle::pulse: return "pulse";
    case ClickStyle::spotlight: return "spotlight";
    case ClickStyle::highlight: return "highlight";
    }
    return "ring";
}

std::optional<ClickStyle> clickStyleFromText(std::string_view text)
{
    return fromText(allClickStyles, clickStyleText, text);
}

std::string_view clickTintText(ClickTint tint)
{
    switch (tint) {
    case ClickTint::white: return "white";
    case ClickTint::cobalt: return "cobalt";
    case ClickTint::amber: return "amber";
    case ClickTint::green: return "green";
    case ClickTint::magenta: return "magenta";
    }
    return "white";
}

std::optional<ClickTint> clickTintFromText(std::string_view text)
{
    return fromText(allClickTints, clickTintText, text);
}

std::string_view cameraShapeText(CameraShape shape)
{
    return shape == CameraShape::card ? "card" : "circle";
}

std::optional<CameraShape> cameraShapeFromText(std::string_view text)
{
    return fromText(allCameraShapes, cameraShapeText, text);
}

std::string_view backdropNameText(StageSpec::Backdrop::Named name)
{
    using Named = StageSpec::Backdrop::Named;
    switch (name) {
    case Named::none: return "none";
    case Named::graphite: return "graphite";
    case Named::slate: return "slate";
    case Named::gradient: return "gradient";
    case Named::wallpaper: return "wallpaper";
    case Named::cobalt: return "cobalt";
    case Named::ocean: return "ocean";
    case Named::plum: return "plum";
    }
    return "gradient";
}

std::optional<StageSpec::Backdrop::Named> backdropNameFromText(std::string_view text)
{
    return fromText(StageSpec::Backdrop::allNamed, backdropNameText, text);
}

std::string_view captionLookText(StageSpec::CaptionLook look)
{
    switch (look) {
    case StageSpec::CaptionLook::pill: return "pill";
    case StageSpec::CaptionLook::bold: return "bold";
    case StageSpec::CaptionLook::minimal: return "minimal";
    case StageSpec::CaptionLook::light: return "light";
    }
    return "pill";
}

std::optional<StageSpec::CaptionLook> captionLookFromText(std::string_view text)
{
    return fromText(allCaptionLooks, captionLookText, text);
}

std::string_view captionSizeText(StageSpec::CaptionSize size)
{
    switch (size) {
    case StageSpec::CaptionSize::small: return "small";
    case StageSpec::CaptionSize::medium: return "medium";
    case StageSpec::CaptionSize::large: return "large";
    }
    return "medium";
}

std::optional<StageSpec::CaptionSize> captionSizeFromText(std::string_view text)
{
    return fromText(allCaptionSizes, captionSizeText, text);
}

std::string_view captionPlaceText(StageSpec::CaptionPlace place)
{
    return place == StageSpec::CaptionPlace::top ? "top" : "bottom";
}

std::optional<StageSpec::CaptionPlace> captionPlaceFromText(std::string_view text)
{
    return fromText(allCaptionPlaces, captionPlaceText, text);
}

// MARK: Backdrop

std::optional<StageSpec::Backdrop::Named> StageSpec::Backdrop::name() const
{
    if (const Named* named = std::get_if<Named>(&value))
        return *named;
    return std::nullopt;
}

Result<StageSpec::Backdrop> StageSpec::Backdrop::fromJson(const Json& json)
{
    if (json.is_string()) {
        std::string text = json.get<std::string>();
        if (auto named = backdropNameFromText(text))
            return Backdrop::named(*named);
        return fail("Unknown backdrop \"" + text + "\"");
    }
    if (!json.is_object())
        return fail("A backdrop must be a name or an object with a \"kind\".");

    auto kind = jsonString(json, "kind");
    if (!kind)
        return fail("The backdrop has no \"kind\" of \"solid\", \"duo\" or \"image\".");
    if (*kind == "solid") {
        auto hex = jsonString(json, "hex");
        if (!hex)
            return fail("The solid backdrop has no \"hex\" colour.");
        return Backdrop::solid(*hex);
    }
    if (*kind == "duo") {
        auto a = jsonString(json, "a");
        auto b = jsonString(json, "b");
        if (!a || !b)
            return fail("The duo backdrop needs two colours, \"a\" and \"b\".");
        return Backdrop::duo(*a, *b);
    }
    if (*kind == "image") {
        auto path = jsonString(json, "path");
        if (!path)
            return fail("The image backdrop has no \"path\".");
        int blur = 0;
        if (const Json* value = jsonField(json, "blur")) {
            auto radius = jsonAsInteger(*value);
            if (!radius || *radius < 0 || *radius > largestImageBlur)
                return fail("The image backdrop's \"blur\" is not a whole number from 0 to "
                    + std::to_string(largestImageBlur) + ".");
            blur = static_cast<int>(*radius);
        }
        return Backdrop::image(*path, blur);
    }
    return fail("Unknown backdrop kind \"" + *kind + "\"");
}

Json StageSpec::Backdrop::toJson() const
{
    struct Encoder {
        Json operator()(Named named) const { return std::string(backdropNameText(named)); }
        Json operator()(const Solid& solid) const { return Json{{"kind", "solid"}, {"hex", solid.hex}}; }
        Json operator()(const Duo& duo) const { return Json{{"kind", "duo"}, {"a", duo.a}, {"b", duo.b}}; }
        Json operator()(const Image& image) const
        {
            return Json{{"kind", "image"}, {"path", image.path}, {"blur", image.blur}};
        }
    };
    return std::visit(Encoder{}, value);
}

// MARK: CardLook

std::vector<StageSpec::CardLook::ShadowLayer> StageSpec::CardLook::shadowLayersFor(double strength)
{
    if (!std::isfinite(strength) || strength <= 0)
        return {};
    double s = std::min(strength, 1.2);
    if (s <= 0.005)
        return {};
    return {
        ShadowLayer{0.035 * s, 0.1 * s, 0.42 * s},
        ShadowLayer{0.004 * s, 0.014 * s, 0.22 * s},
    };
}

StageSpec::CardLook StageSpec::CardLook::fromJson(const Json& json, std::vector<std::string>* notices)
{
    CardLook look;
    LenientReader reader(json, "The card look's", notices);
    reader.number("padding", look.padding, 0, 1);
    reader.number("corners", look.corners, 0, 0.5);
    reader.number("shadow", look.shadow, 0, 100);
    reader.optionalText("backdrop", look.backdrop);
    return look;
}

Json StageSpec::CardLook::toJson() const
{
    Json json = {{"padding", padding}, {"corners", corners}, {"shadow", shadow}};
    if (backdrop)
        json["backdrop"] = *backdrop;
    return json;
}

// MARK: StageSpec

double StageSpec::shadowStrength() const
{
    if (card)
        return card->shadow;
    return shadowPercent / 100.0;
}

StageSpec wearing(StageSpec base, const PlimLook& look)
{
    using B = PlimLook::Backdrop;
    std::optional<std::string> cardBackdrop = base.card ? base.card->backdrop : std::nullopt;
    base.card = StageSpec::CardLook{look.padding, look.corners, look.shadow, std::nullopt};
    switch (look.backdrop) {
    case B::stage: base.card->backdrop = std::move(cardBackdrop); break;
    case B::color: base.backdrop = StageSpec::Backdrop::solid(look.backdropColorOrDefault()); break;
    case B::image: base.backdrop = StageSpec::Backdrop::image(look.backdropImage.value_or(""), 0); break;
    case B::wallpaper: base.backdrop = StageSpec::Backdrop::named(StageSpec::Backdrop::Named::wallpaper); break;
    default: base.card->backdrop = std::string(PlimLook::backdropText(look.backdrop)); break;
    }
    base.cursorSpotlight = look.spotlight;
    if (!look.clickRings)
        base.clickStyle = ClickStyle::none;
    else if (look.clickStyle)
        base.clickStyle = clickStyleFromText(PlimLook::clickStyleText(*look.clickStyle)).value_or(ClickStyle::ring);
    else if (base.clickStyle == ClickStyle::none)
        base.clickStyle = ClickStyle::ring;
    if (look.clickTint)
        base.clickTint = clickTintFromText(PlimLook::clickTintText(*look.clickTint)).value_or(base.clickTint);
    base.cursorSize = look.pointerSize.value_or(base.cursorSize);
    base.cursorHideWhenIdle = look.pointerHidesIdle.value_or(base.cursorHideWhenIdle);
    base.zoomStyle = look.zoomStyle.value_or(base.zoomStyle);
    if (look.captionSize)
        base.captionSize = captionSizeFromText(PlimLook::captionSizeText(*look.captionSize)).value_or(base.captionSize);
    if (look.captionPlace)
        base.captionPlace = captionPlaceFromText(PlimLook::captionPlaceText(*look.captionPlace)).value_or(base.captionPlace);
    if (look.captionBox) {
        using Box = PlimLook::CaptionBox;
        base.captionLook = *look.captionBox == Box::light ? StageSpec::CaptionLook::light
            : *look.captionBox == Box::none              ? StageSpec::CaptionLook::minimal
                                                          : StageSpec::CaptionLook::pill;
    }
    return base;
}

PlimLook lookWornAs(const StageSpec& base, Size canvas, Size content)
{
    PlimLook look;
    look.backdrop = PlimLook::Backdrop::stage;
    if (base.card && base.card->backdrop)
        if (auto named = PlimLook::backdropFromText(*base.card->backdrop); named && int(*named) < int(PlimLook::Backdrop::color))
            look.backdrop = *named;
    // The card in fractions of the canvas the stage lays it out on.
    const StageGeometry staged(canvas, content, base, false);
    const Rect& card = staged.screenRect;
    if (base.card) {
        look.padding = base.card->padding;
        look.corners = base.card->corners;
    } else if (canvas.isUsable() && card.size().isUsable()) {
        look.padding = std::min(card.x, card.y) / std::min(canvas.width, canvas.height);
        look.corners = staged.cornerRadius / card.width;
    }
    look.shadow = base.shadowStrength();
    look.spotlight = base.cursorSpotlight;
    look.clickRings = base.clickStyle != ClickStyle::none;
    return look;
}

StageSpec::Decoded StageSpec::fromJson(const Json& json)
{
    Decoded decoded;
    StageSpec& spec = decoded.spec;
    if (!json.is_object()) {
        decoded.notices.push_back("The stage look is not a JSON object, so every setting keeps its default.");
        return decoded;
    }
    std::vector<std::string>* notices = &decoded.notices;
    LenientReader reader(json, "The stage look's", notices);

    if (const Json* value = jsonField(json, "backdrop")) {
        auto backdrop = Backdrop::fromJson(*value);
        if (backdrop)
            spec.backdrop = *backdrop;
        else
            notices->push_back("The stage look's \"backdrop\" could not be used ("
                + withoutFinalStop(backdrop.error().sentence) + "), so it keeps the gradient backdrop.");
    }
    reader.integer("paddingPX", spec.paddingPX, 0, largestPaddingPX);
    reader.integer("cornersPX", spec.cornersPX, 0, largestCornersPX);
    reader.integer("shadowPercent", spec.shadowPercent, 0, largestShadowPercent);
    reader.integer("cursorSize", spec.cursorSize, smallestCursorSize, largestCursorSize);
    reader.boolean("cursorHideWhenIdle", spec.cursorHideWhenIdle);
    reader.boolean("cursorSpotlight", spec.cursorSpotlight);
    if (const Json* value = jsonField(json, "card")) {
        if (value->is_object())
            spec.card = CardLook::fromJson(*value, notices);
        else
            reader.noteDropped("card", "is not an object");
    }
    reader.choice("clickStyle", spec.clickStyle, allClickStyles, clickStyleText);
    reader.choice("clickTint", spec.clickTint, allClickTints, clickTintText);
    reader.choice("zoomStyle", spec.zoomStyle, allZoomStyles, zoomStyleText);
    reader.choice("captionLook", spec.captionLook, allCaptionLooks, captionLookText);
    reader.choice("captionSize", spec.captionSize, allCaptionSizes, captionSizeText);
    reader.choice("captionPlace", spec.captionPlace, allCaptionPlaces, captionPlaceText);
    return decoded;
}

Json StageSpec::toJson() const
{
    Json json = {
        {"backdrop", backdrop.toJson()},
        {"paddingPX", paddingPX},
        {"cornersPX", cornersPX},
        {"shadowPercent", shadowPercent},
        {"cursorSize", cursorSize},
        {"cursorHideWhenIdle", cursorHideWhenIdle},
        {"cursorSpotlight", cursorSpotlight},
        {"clickStyle", clickStyleText(clickStyle)},
        {"clickTint", clickTintText(clickTint)},
        {"zoomStyle", zoomStyleText(zoomStyle)},
        {"captionLook", captionLookText(captionLook)},
        {"captionSize", captionSizeText(captionSize)},
        {"captionPlace", captionPlaceText(captionPlace)},
    };
    if (card)
        json["card"] = card->toJson();
    return json;
}

// MARK: StageSpecFile

Result<Decoded<StageSpec>> StageSpecFile::read(const fs::path& path)
{
    auto json = readJsonFile(path);
    if (!json) {
        if (json.error().kind == Error::Kind::missing)
            return fail("There is no stage look " + path.filename().string() + ", so this plim uses the default look.",
                Error::Kind::missing);
        return fail("Plim could not read the stage look " + path.filename().string() + " (" + json.error().sentence
                + "), so this plim uses the default look. The file was left as it is; choose a look again to "
                  "replace it.",
            Error::Kind::unreadable);
    }
    auto decoded = StageSpec::fromJson(*json);
    Decoded<StageSpec> out{std::move(decoded.spec), {}};
    for (const std::string& notice : decoded.notices)
        out.notices.push_back(path.filename().string() + ": " + notice);
    // A backdrop picture is looked for in the plim's folder or among Plim's own copies only.
    if (auto* image = std::get_if<StageSpec::Backdrop::Image>(&out.value.backdrop.value)) {
        auto picture = LookStore::backdropPictureFor(path.parent_path(), image->path);
        if (picture) {
            image->path = picture->string();
        } else if (picture.error().kind == Error::Kind::refused) {
            out.notices.push_back("The backdrop picture in " + path.filename().string()
                + " names a file outside the plim's folder, so it was left out. Nothing else changed.");
            out.value.backdrop = StageSpec().backdrop;
        } else {
            image->path = (path.parent_path() / image->path).string();
        }
    }
    if (auto usable = checkBackdrop(out.value.backdrop); !usable)
        out.notices.push_back(path.filename().string() + ": The stage look's \"backdrop\" cannot be drawn. "
            + usable.error().sentence
            + " This render uses the gradient backdrop; the file was left as it is, so choose the backdrop again to "
              "replace it.");
    return out;
}

Status StageSpecFile::write(const fs::path& path, const StageSpec& spec)
{
    auto written = writeJsonAtomic(path, spec.toJson());
    if (!written)
        return fail("Plim could not save the stage look " + path.filename().string() + ". "
            + written.error().sentence + " The look in use is unchanged; free some disk space "
            + "or check that the folder can be written to, then save again.");
    return {};
}

} // namespace plim
