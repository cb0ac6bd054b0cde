#include "stage/stage_spec.h"

#include "base/json.h"
#include "base/log.h"
#include "library/library.h"
#include "library/plim_look.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

namespace plim {
namespace {

using Backdrop = StageSpec::Backdrop;
using Layer = StageSpec::CardLook::ShadowLayer;

Json parse(const std::string& text)
{
    auto json = parseJson(text);
    EXPECT_TRUE(json.has_value()) << text;
    return json.value_or(Json{});
}

TEST(StageSpecJson, DefaultsEncodeAndEveryKeyReadsBack)
{
    EXPECT_EQ(StageSpec{}.toJson(), parse(R"({"backdrop": "gradient", "paddingPX": 56, "cornersPX": 10,
        "shadowPercent": 35, "cursorSize": 100, "cursorHideWhenIdle": true, "cursorSpotlight": false,
        "clickStyle": "ring", "clickTint": "white", "zoomStyle": "smooth", "captionLook": "pill",
        "captionSize": "medium", "captionPlace": "bottom"})"));
    auto empty = StageSpec::fromJson(parse("{}"));
    EXPECT_EQ(empty.spec, StageSpec{});
    EXPECT_TRUE(empty.notices.empty());

    // Every value differs from its default, so a key that is not read fails the round trip.
    const Json custom = parse(R"({"backdrop": {"kind": "duo", "a": "#112233", "b": "#445566"},
        "paddingPX": 80, "cornersPX": 0, "shadowPercent": 100, "cursorSize": 150,
        "cursorHideWhenIdle": false, "cursorSpotlight": true,
        "card": {"padding": 0.1, "corners": 0.02, "shadow": 0.5, "backdrop": "dawn"},
        "clickStyle": "highlight", "clickTint": "magenta", "zoomStyle": "cut",
        "captionLook": "minimal", "captionSize": "large", "captionPlace": "top"})");
    auto decoded = StageSpec::fromJson(custom);
    EXPECT_TRUE(decoded.notices.empty());
    EXPECT_EQ(decoded.spec.toJson(), custom);
    decoded.spec.card->backdrop.reset();
    EXPECT_FALSE(decoded.spec.toJson()["card"].contains("backdrop"));
}

TEST(StageSpecJson, MalformedKeysKeepTheirDefaultsWithASentenceEach)
{
    auto decoded = StageSpec::fromJson(parse(R"({
        "backdrop": "marble", "paddingPX": "wide", "cornersPX": 12.5, "shadowPercent": 140,
        "cursorSize": 100000, "cursorHideWhenIdle": "yes", "cursorSpotlight": true,
        "card": [1, 2], "clickStyle": "sparkle", "clickTint": 3, "zoomStyle": "bouncy",
        "captionLook": "bold", "captionSize": null, "captionPlace": "middle", "unknownKey": 1})"));
    const StageSpec expected{
        .cursorSpotlight = true, .zoomStyle = ZoomStyle::bouncy, .captionLook = StageSpec::CaptionLook::bold};
    EXPECT_EQ(decoded.spec, expected);
    const std::string look = "The stage look's ";
    EXPECT_EQ(decoded.notices,
        (std::vector<std::string>{look + "\"backdrop\" could not be used (Unknown backdrop \"marble\"), so it "
                                         "keeps the gradient backdrop.",
            look + "\"paddingPX\" is not a whole number from 0 to 400, so it keeps its default of 56.",
            look + "\"cornersPX\" is not a whole number from 0 to 400, so it keeps its default of 10.",
            look + "\"shadowPercent\" is not a whole number from 0 to 100, so it keeps its default of 35.",
            look + "\"cursorSize\" is not a whole number from 1 to 400, so it keeps its default of 100.",
            look + "\"cursorHideWhenIdle\" is not true or false, so it keeps its default of true.",
            look + "\"card\" is not an object, so it was left out.",
            look + "\"clickStyle\" is not one of \"none\", \"ring\", \"pulse\", \"spotlight\" or \"highlight\", "
                   "so it keeps its default of \"ring\".",
            look + "\"clickTint\" is not one of \"white\", \"cobalt\", \"amber\", \"green\" or \"magenta\", so "
                   "it keeps its default of \"white\".",
            look + "\"captionPlace\" is not one of \"bottom\" or \"top\", so it keeps its default of \"bottom\"."}));

    // Card keys fall back one by one; an empty card object is still a card look.
    auto card = StageSpec::fromJson(parse(R"({"card": {"padding": -0.2, "corners": 0.03, "shadow": "x",
        "backdrop": 7}})"));
    EXPECT_EQ(card.spec.card, (StageSpec::CardLook{0.075, 0.03, 1.0, std::nullopt}));
    EXPECT_EQ(card.notices,
        (std::vector<std::string>{
            "The card look's \"padding\" is not a number from 0 to 1, so it keeps its default of 0.075.",
            "The card look's \"shadow\" is not a number from 0 to 100, so it keeps its default of 1.",
            "The card look's \"backdrop\" is not text, so it was left out."}));
    EXPECT_EQ(StageSpec::fromJson(parse(R"({"card": {}})")).spec.card, StageSpec::CardLook{});

    for (const char* text : {"[]", "3", "\"gradient\"", "null"}) {
        auto odd = StageSpec::fromJson(parse(text));
        EXPECT_EQ(odd.spec, StageSpec{}) << text;
        EXPECT_EQ(odd.notices, std::vector<std::string>{
            "The stage look is not a JSON object, so every setting keeps its default."}) << text;
    }
}

TEST(StageSpecBackdrop, FormsRoundTripAndBadOnesFailWithASentence)
{
    for (Backdrop::Named name : Backdrop::allNamed)
        EXPECT_EQ(Backdrop::fromJson(Backdrop::named(name).toJson()), Backdrop::named(name));
    for (const Backdrop& form : {Backdrop::solid("#FF8800"), Backdrop::duo("#000000", "#FFFFFF"),
             Backdrop::image("/home/a/Pictures/sea.png", 12)}) {
        EXPECT_EQ(Backdrop::fromJson(form.toJson()), form) << form.toJson().dump();
        EXPECT_FALSE(form.name());
    }
    EXPECT_EQ(Backdrop::solid("#123456").toJson(), parse(R"({"kind": "solid", "hex": "#123456"})"));
    EXPECT_EQ(Backdrop::image("a.png", 3).toJson(), parse(R"({"kind": "image", "path": "a.png", "blur": 3})"));
    EXPECT_EQ(Backdrop::fromJson(parse(R"({"kind": "image", "path": "a.png"})")), Backdrop::image("a.png", 0));

    const std::string notObject = "A backdrop must be a name or an object with a \"kind\".";
    const std::vector<std::pair<std::string, std::string>> failures = {
        {R"("marble")", "Unknown backdrop \"marble\""},
        {R"("Gradient")", "Unknown backdrop \"Gradient\""},
        {R"({"kind": "video", "path": "a.mov"})", "Unknown backdrop kind \"video\""},
        {R"({"kind": "solid"})", "The solid backdrop has no \"hex\" colour."},
        {R"({"kind": "duo", "a": "#000000"})", "The duo backdrop needs two colours, \"a\" and \"b\"."},
        {R"({"kind": "image", "path": 4})", "The image backdrop has no \"path\"."},
        {R"({"kind": "image", "path": "a.png", "blur": -1})",
            "The image backdrop's \"blur\" is not a whole number from 0 to 200."},
        {R"({"kind": "image", "path": "a.png", "blur": 40000})",
            "The image backdrop's \"blur\" is not a whole number from 0 to 200."},
        {R"({"hex": "#000000"})", "The backdrop has no \"kind\" of \"solid\", \"duo\" or \"image\"."},
        {"12", notObject}, {R"(["solid"])", notObject}, {"true", notObject}};
    for (const auto& [text, sentence] : failures) {
        auto backdrop = Backdrop::fromJson(parse(text));
        ASSERT_FALSE(backdrop.has_value()) << text;
        EXPECT_EQ(backdrop.error().sentence, sentence);
    }
}

TEST(StageSpecShadow, LayersFollowTheStrengthCappedAt1Point2)
{
    auto scaled = [](double s) {
        return std::vector<Layer>{{0.035 * s, 0.1 * s, 0.42 * s}, {0.004 * s, 0.014 * s, 0.22 * s}};
    };
    for (auto [strength, expected] : std::vector<std::pair<double, std::vector<Layer>>>{{1.0, scaled(1)},
             {0.5, scaled(0.5)}, {1.2, scaled(1.2)}, {5, scaled(1.2)}, {0.0051, scaled(0.0051)}, {0.005, {}},
             {0.0, {}}, {-1.0, {}}, {std::nan(""), {}}})
        EXPECT_EQ(StageSpec::CardLook::shadowLayersFor(strength), expected) << strength;
    // Without a card look the strength is shadowPercent / 100; a card look's replaces it.
    EXPECT_EQ(StageSpec{.shadowPercent = 80}.shadowLayers(), scaled(0.8));
    EXPECT_EQ((StageSpec{.shadowPercent = 80, .card = StageSpec::CardLook{.shadow = 0.3}}.shadowLayers()), scaled(0.3));
}

TEST(StageSpecFileTest, WritesReadsAndLeavesBadFilesAsTheyAreAndAFailedWriteKeepsWhatWasThere)
{
    testkit::TempDir dir;
    LogCapture log;
    EXPECT_EQ(StageSpecFile::read(dir / "none.stage.json").error().kind, Error::Kind::missing);

    const StageSpec spec{.backdrop = Backdrop::solid("#0A0B0C"), .captionPlace = StageSpec::CaptionPlace::top};
    ASSERT_TRUE(StageSpecFile::write(dir / "B.stage.json", spec).has_value());
    EXPECT_EQ(testkit::readText(dir / "B.stage.json"), encodeJson(spec.toJson()));
    auto back = StageSpecFile::read(dir / "B.stage.json");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->value, spec);
    EXPECT_TRUE(back->notices.empty());

    const std::string garbage = "{\"paddingPX\": 40,\n\x01\xff truncated";
    testkit::writeText(dir / "A.stage.json", garbage);
    auto corrupt = StageSpecFile::read(dir / "A.stage.json");
    ASSERT_FALSE(corrupt);
    EXPECT_EQ(corrupt.error().kind, Error::Kind::unreadable);
    const std::string& sentence = corrupt.error().sentence;
    EXPECT_TRUE(sentence.starts_with("Plim could not read the stage look A.stage.json (")) << sentence;
    EXPECT_TRUE(sentence.ends_with("), so this plim uses the default look. The file was left as it is; "
                                   "choose a look again to replace it."));
    EXPECT_EQ(testkit::readText(dir / "A.stage.json"), garbage);

    const std::string partial = R"({"paddingPX": 40, "clickStyle": "boom"})";
    testkit::writeText(dir / "C.stage.json", partial);
    auto loaded = StageSpecFile::read(dir / "C.stage.json");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->value.paddingPX, 40);
    ASSERT_EQ(loaded->notices.size(), 1u);
    EXPECT_TRUE(loaded->notices[0].starts_with("C.stage.json: ")) << loaded->notices[0];
    EXPECT_TRUE(log.lines().empty()); // the caller decides whether to log or show them
    EXPECT_EQ(testkit::readText(dir / "C.stage.json"), partial);

    // Backdrops that cannot be drawn: a notice each, the file kept. The PNG's header says
    // 20000 x 20000, which is refused before a pixel is decoded.
    testkit::writeText(dir / "notes.png", "not a picture");
    std::string huge("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x4e\x20\0\0\x4e\x20\x08\x06\0\0\0", 29);
    testkit::writeText(dir / "huge.png", huge);
    for (const auto& [backdrop, why] : std::vector<std::pair<std::string, std::string>>{
             {R"({"kind": "solid", "hex": "#zzzzzz"})", "\"#zzzzzz\" is not a colour"},
             {R"({"kind": "duo", "a": "#000000", "b": "#12"})", "\"#12\" is not a colour"},
             {R"({"kind": "image", "path": "gone.png"})", "gone.png is not there."},
             {R"({"kind": "image", "path": "notes.png"})", "notes.png is not a PNG picture."},
             {R"({"kind": "image", "path": "huge.png"})", "of 20000 × 20000, more than"}}) {
        const std::string text = R"({"backdrop": )" + backdrop + "}";
        testkit::writeText(dir / "D.stage.json", text);
        auto read = StageSpecFile::read(dir / "D.stage.json");
        ASSERT_TRUE(read) << text;
        ASSERT_EQ(read->notices.size(), 1u) << text;
        EXPECT_NE(read->notices[0].find(why), std::string::npos) << read->notices[0];
        EXPECT_TRUE(read->notices[0].ends_with("the file was left as it is, so choose the backdrop again to replace it."));
        EXPECT_EQ(testkit::readText(dir / "D.stage.json"), text);
    }

    // A folder where the file should be: the rename cannot replace it, even for root.
    fs::create_directory(dir / "E.stage.json");
    testkit::writeText(dir / "E.stage.json" / "keep.txt", "kept");
    const auto files = std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator());
    auto written = StageSpecFile::write(dir / "E.stage.json", StageSpec{});
    ASSERT_FALSE(written.has_value());
    const std::string& refused = written.error().sentence;
    EXPECT_TRUE(refused.starts_with("Plim could not save the stage look E.stage.json. ")) << refused;
    EXPECT_TRUE(refused.ends_with(" The look in use is unchanged; free some disk space or check that the "
                                  "folder can be written to, then save again."));
    EXPECT_EQ(testkit::readText(dir / "E.stage.json" / "keep.txt"), "kept");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), files); // no temporary left
    testkit::writeText(dir / "plain", "x");
    EXPECT_FALSE(StageSpecFile::write(dir / "plain" / "B.stage.json", StageSpec{}).has_value());
    EXPECT_EQ(testkit::readText(dir / "plain"), "x");
}

TEST(StageSpecFileTest, ABackdropPictureComesFromThePlimsFolderOrPlimsOwnCopiesOnly)
{
    testkit::XdgSandbox sandbox;
    testkit::TempDir dir, elsewhere;
    testkit::writeText(elsewhere / "Photo.PNG", "picture bytes");
    testkit::writeText(dir / "inside.png", "inside");
    fs::create_symlink(elsewhere / "Photo.PNG", dir / "link.png");

    // A picture picked anywhere becomes Plim's own copy, once, and the original stays.
    auto kept = LookStore::keepBackdropPicture(elsewhere / "Photo.PNG");
    ASSERT_TRUE(kept) << kept.error().sentence;
    EXPECT_EQ(kept->parent_path(), LookStore::backdropsFolder());
    EXPECT_EQ(kept->extension(), ".png");
    EXPECT_EQ(testkit::readText(*kept), "picture bytes");
    EXPECT_EQ(LookStore::keepBackdropPicture(elsewhere / "Photo.PNG").value_or(fs::path()), *kept);
    EXPECT_EQ(LookStore::keepBackdropPicture(*kept).value_or(fs::path()), *kept);
    EXPECT_EQ(testkit::readText(elsewhere / "Photo.PNG"), "picture bytes");
    EXPECT_FALSE(LookStore::keepBackdropPicture(elsewhere / "none.png"));

    auto read = [&](const std::string& path) {
        EXPECT_TRUE(StageSpecFile::write(dir / "B.stage.json", {.backdrop = Backdrop::image(path, 0)}));
        auto back = StageSpecFile::read(dir / "B.stage.json");
        EXPECT_TRUE(back);
        return back.value_or(Decoded<StageSpec>{});
    };
    EXPECT_EQ(read("inside.png").value.backdrop, Backdrop::image((fs::canonical(dir.path()) / "inside.png").string(), 0));
    EXPECT_EQ(read(kept->string()).value.backdrop, Backdrop::image(kept->string(), 0));
    for (const std::string& outside : {(elsewhere / "Photo.PNG").string(), std::string("../x.png"), std::string("link.png")}) {
        auto back = read(outside);
        EXPECT_EQ(back.value.backdrop, StageSpec().backdrop) << outside;
        EXPECT_EQ(back.notices, std::vector<std::string>{"The backdrop picture in B.stage.json names a file outside the "
                                                         "plim's folder, so it was left out. Nothing else changed."});
    }
}

// An edits file's look replaces the stage look's pointer, clicks, zoom style and captions
// only where it chose them, so a look written before those choices draws as it did.
TEST(StageSpecWearing, ALookReplacesOnlyWhatItChose)
{
    using L = PlimLook;
    using S = StageSpec;
    const S base{.cursorSize = 160,
        .cursorHideWhenIdle = false,
        .clickStyle = ClickStyle::pulse,
        .clickTint = ClickTint::amber,
        .zoomStyle = ZoomStyle::glide,
        .captionLook = S::CaptionLook::bold,
        .captionSize = S::CaptionSize::small,
        .captionPlace = S::CaptionPlace::top};
    auto choices = [](const S& s) {
        return std::tuple(s.cursorSize, s.cursorHideWhenIdle, s.clickStyle, s.clickTint, s.zoomStyle, s.captionLook,
            s.captionSize, s.captionPlace);
    };
    const S older = wearing(base, L{});
    EXPECT_EQ(choices(older), choices(base));
    EXPECT_EQ(older.card->backdrop, "dawn");
    const S chosen = wearing(base, L{.spotlight = true, .backdrop = L::Backdrop::color, .padding = 0.15,
        .corners = 0.25, .shadow = 0.5, .backdropColor = "#abcdef", .pointerSize = 250,
        .pointerHidesIdle = true, .clickStyle = L::ClickStyle::highlight, .clickTint = L::ClickTint::green,
        .zoomStyle = ZoomStyle::snappy, .captionSize = L::CaptionSize::large, .captionPlace = L::CaptionPlace::bottom,
        .captionBox = L::CaptionBox::light});
    EXPECT_EQ(choices(chosen), std::tuple(250, true, ClickStyle::highlight, ClickTint::green, ZoomStyle::snappy,
        S::CaptionLook::light, S::CaptionSize::large, S::CaptionPlace::bottom));
    EXPECT_EQ(chosen.backdrop, S::Backdrop::solid("#abcdef"));
    EXPECT_EQ(chosen.card, (S::CardLook{0.15, 0.25, 0.5, std::nullopt}));
    EXPECT_TRUE(chosen.cursorSpotlight && !older.cursorSpotlight);
    EXPECT_EQ(wearing(base, L{.clickRings = false, .clickStyle = L::ClickStyle::ring}).clickStyle, ClickStyle::none);
    EXPECT_EQ(wearing(base, L{.backdrop = L::Backdrop::wallpaper}).backdrop, S::Backdrop::named(S::Backdrop::Named::wallpaper));
    EXPECT_EQ(wearing(base, L{.backdrop = L::Backdrop::image, .backdropImage = "/p.png"}).backdrop, S::Backdrop::image("/p.png", 0));
}

} // namespace
} // namespace plim
