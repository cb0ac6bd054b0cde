#pragma once
// How a plim is dressed when it is composed: backdrop, screen card, shadow, pointer,
// click effect, zoom style and caption look. Persisted as JSON with sorted keys; read
// leniently, so a missing or malformed key takes its default and leaves a notice.

#include "base/decoded.h"
#include "base/error.h"
#include "base/files.h"
#include "base/geometry.h"
#include "base/json_fwd.h"
#include "plan/zoom_state.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace plim {

struct PlimLook;

// Raw values are the JSON strings, in declaration order.
enum class ClickStyle { none, ring, pulse, spotlight, highlight };
enum class ClickTint { white, cobalt, amber, green, magenta };
enum class CameraShape { circle, card };

inline constexpr std::array<ClickStyle, 5> allClickStyles = {
    ClickStyle::none, ClickStyle::ring, ClickStyle::pulse, ClickStyle::spotlight, ClickStyle::highlight};
inline constexpr std::array<ClickTint, 5> allClickTints = {
    ClickTint::white, ClickTint::cobalt, ClickTint::amber, ClickTint::green, ClickTint::magenta};
inline constexpr std::array<CameraShape, 2> allCameraShapes = {CameraShape::circle, CameraShape::card};

std::string_view clickStyleText(ClickStyle style);
std::optional<ClickStyle> clickStyleFromText(std::string_view text);
std::string_view clickTintText(ClickTint tint);
std::optional<ClickTint> clickTintFromText(std::string_view text);
std::string_view cameraShapeText(CameraShape shape);
std::optional<CameraShape> cameraShapeFromText(std::string_view text);

struct StageSpec {
    // What fills the canvas behind the screen card.
    struct Backdrop {
        enum class Named { none, graphite, slate, gradient, wallpaper, cobalt, ocean, plum };
        static constexpr std::array<Named, 8> allNamed = {Named::none, Named::graphite, Named::slate,
            Named::gradient, Named::wallpaper, Named::cobalt, Named::ocean, Named::plum};

        struct Solid {
            std::string hex;
            bool operator==(const Solid&) const = default;
        };
        struct Duo {
            std::string a;
            std::string b;
            bool operator==(const Duo&) const = default;
        };
        struct Image {
            std::string path;
            int blur = 0;
            bool operator==(const Image&) const = default;
        };

        std::variant<Named, Solid, Duo, Image> value = Named::gradient;
        bool operator==(const Backdrop&) const = default;

        static Backdrop named(Named name) { return {name}; }
        static Backdrop solid(std::string hex) { return {Solid{std::move(hex)}}; }
        static Backdrop duo(std::string a, std::string b) { return {Duo{std::move(a), std::move(b)}}; }
        static Backdrop image(std::string path, int blur) { return {Image{std::move(path), blur}}; }

        // Empty unless this is a named backdrop.
        std::optional<Named> name() const;

        // A bare name, or an object with "kind" "solid", "duo" or "image".
        static Result<Backdrop> fromJson(const Json& json);
        Json toJson() const;
    };

    enum class CaptionLook { pill, bold, minimal, light }; // pill: a dark box; light: a light box
    enum class CaptionSize { small, medium, large };
    enum class CaptionPlace { bottom, top };

    // The proportional card look; when present it replaces the PX settings.
    struct CardLook {
        // One shadow pass; each value is a fraction of the length the shadow is drawn at.
        struct ShadowLayer {
            double y = 0;     // downward offset
            double blur = 0;  // radius
            double alpha = 0; // opacity
            bool operator==(const ShadowLayer&) const = default;
        };

        double padding = 0.075;  // fraction of the canvas's shorter side
        double corners = 0.01;   // fraction of the screen card's width
        double shadow = 1.0;     // strength, 1 = normal
        std::optional<std::string> backdrop;
        bool operator==(const CardLook&) const = default;

        std::vector<ShadowLayer> shadowLayers() const { return shadowLayersFor(shadow); }
        // Wide soft shadow first, tight contact shadow second; none for a strength too weak to see.
        static std::vector<ShadowLayer> shadowLayersFor(double strength);

        // Lenient: each bad key keeps its default and adds a notice.
        static CardLook fromJson(const Json& json, std::vector<std::string>* notices = nullptr);
        Json toJson() const;
    };

    // The ranges of the look's whole numbers, shared by the file reader and the command line.
    static constexpr int largestPaddingPX = 400; // of a 1280-wide canvas
    static constexpr int largestCornersPX = 400;
    static constexpr int largestShadowPercent = 100;
    static constexpr int smallestCursorSize = 1;
    static constexpr int largestCursorSize = 400;
    static constexpr int largestImageBlur = 200;

    Backdrop backdrop;
    int paddingPX = 56;
    int cornersPX = 10;
    int shadowPercent = 35;
    int cursorSize = 100;
    bool cursorHideWhenIdle = true;
    bool cursorSpotlight = false;
    std::optional<CardLook> card;
    ClickStyle clickStyle = ClickStyle::ring;
    ClickTint clickTint = ClickTint::white;
    ZoomStyle zoomStyle = ZoomStyle::smooth;
    CaptionLook captionLook = CaptionLook::pill;
    CaptionSize captionSize = CaptionSize::medium;
    CaptionPlace captionPlace = CaptionPlace::bottom;
    bool operator==(const StageSpec&) const = default;

    // The card's shadow strength: the card look's, else shadowPercent / 100.
    double shadowStrength() const;
    std::vector<CardLook::ShadowLayer> shadowLayers() const { return CardLook::shadowLayersFor(shadowStrength()); }

    struct Decoded;
    // Never fails: anything that is not an object gives the defaults with a notice.
    static Decoded fromJson(const Json& json);
    Json toJson() const;
};

struct StageSpec::Decoded {
    StageSpec spec;
    std::vector<std::string> notices; // one sentence per key that fell back to its default
};

// The stage look of a plim whose edits carry `look`: the look's card (padding, corners,
// shadow and backdrop), its spotlight and its click switch over `base`. Clicks switched on
// keep the base's style unless it draws none, then they are rings. The look's optional
// choices (pointer, click style and tint, zoom style, caption look) replace the base's only
// when chosen. A colour, picture or wallpaper backdrop becomes the base's own backdrop.
StageSpec wearing(StageSpec base, const PlimLook& look);

// The look that, worn over `base` on a `canvas` showing a recording of `content` pixels,
// stages as `base` does: the stage's own backdrop, its card in fractions of that canvas, its
// shadow, spotlight and click switch; the look's optional choices are left to `base`.
PlimLook lookWornAs(const StageSpec& base, Size canvas, Size content);

// Whether the backdrop can be drawn as chosen: its colours read as #RGB, #RRGGBB or
// #RRGGBBAA, and its picture is an ordinary file Plim can read as a picture of a size it
// decodes (only its header is read). Otherwise a sentence saying what is wrong with it,
// without advice, for the caller's own.
Status checkBackdrop(const StageSpec::Backdrop& backdrop);

std::string_view backdropNameText(StageSpec::Backdrop::Named name);
std::optional<StageSpec::Backdrop::Named> backdropNameFromText(std::string_view text);
std::string_view captionLookText(StageSpec::CaptionLook look);
std::optional<StageSpec::CaptionLook> captionLookFromText(std::string_view text);
std::string_view captionSizeText(StageSpec::CaptionSize size);
std::optional<StageSpec::CaptionSize> captionSizeFromText(std::string_view text);
std::string_view captionPlaceText(StageSpec::CaptionPlace place);
std::optional<StageSpec::CaptionPlace> captionPlaceFromText(std::string_view text);

// The stage look stored beside a movie (B.stage.json).
struct StageSpecFile {
    // Reads and never modifies the file. A missing file fails with kind `missing`, one that
    // cannot be read or parsed with kind `unreadable` (the sentence says the default look
    // is used); the notices name the file, the keys that fell back to their defaults and
    // a backdrop that cannot be drawn.
    static Result<Decoded<StageSpec>> read(const fs::path& path);
    static Status write(const fs::path& path, const StageSpec& spec);
};

} // namespace plim
