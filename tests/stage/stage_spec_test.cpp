#include "stage/stage_spec.h"

#include "base/log.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

using Backdrop = StageSpec::Backdrop;

Json parse(const std::string& text)
{
    auto json = parseJson(text);
    EXPECT_TRUE(json.has_value()) << text;
    return json.value_or(Json{});
}

TEST(StageSpecDecoding, EmptyObjectGivesEveryDefault)
{
    auto decoded = StageSpec::fromJson(parse("{}"));
    EXPECT_TRUE(decoded.notices.empty());
    const StageSpec& spec = decoded.spec;
    EXPECT_EQ(spec.backdrop, Backdrop::named(Backdrop::Named::gradient));
    EXPECT_EQ(spec.paddingPX, 56);
    EXPECT_EQ(spec.cornersPX, 10);
    EXPECT_EQ(spec.shadowPercent, 35);
    EXPECT_EQ(spec.cursorSize, 100);
    EXPECT_TRUE(spec.cursorHideWhenIdle);
    EXPECT_FALSE(spec.cursorSpotlight);
    EXPECT_FALSE(spec.card.has_value());
    EXPECT_EQ(spec.clickStyle, ClickStyle::ring);
    EXPECT_EQ(spec.clickTint, ClickTint::white);
    EXPECT_EQ(spec.zoomStyle, ZoomStyle::smooth);
    EXPECT_EQ(spec.captionLook, StageSpec::CaptionLook::pill);
    EXPECT_EQ(spec.captionSize, StageSpec::CaptionSize::medium);
    EXPECT_EQ(spec.captionPlace, StageSpec::CaptionPlace::bottom);
    EXPECT_EQ(spec, StageSpec{});
}

TEST(StageSpecDecoding, ReadsEveryKey)
{
    auto decoded = StageSpec::fromJson(parse(R"({
        "backdrop": {"kind": "duo", "a": "#112233", "b": "#445566"},
        "paddingPX": 80, "cornersPX": 0, "shadowPercent": 100, "cursorSize": 150,
        "cursorHideWhenIdle": false, "cursorSpotlight": true,
        "card": {"padding": 0.1, "corners": 0.02, "shadow": 0.5, "backdrop": "dawn"},
        "clickStyle": "highlight", "clickTint": "magenta", "zoomStyle": "cut",
        "captionLook": "minimal", "captionSize": "large", "captionPlace": "top"})"));
    EXPECT_TRUE(decoded.notices.empty()) << decoded.notices.front();
    const StageSpec& spec = decoded.spec;
    EXPECT_EQ(spec.backdrop, Backdrop::duo("#112233", "#445566"));
    EXPECT_EQ(spec.paddingPX, 80);
    EXPECT_EQ(spec.cornersPX, 0);
    EXPECT_EQ(spec.shadowPercent, 100);
    EXPECT_EQ(spec.cursorSize, 150);
    EXPECT_FALSE(spec.cursorHideWhenIdle);
    EXPECT_TRUE(spec.cursorSpotlight);
    ASSERT_TRUE(spec.card.has_value());
    EXPECT_EQ(*spec.card, (StageSpec::CardLook{0.1, 0.02, 0.5, std::string("dawn")}));
    EXPECT_EQ(spec.clickStyle, ClickStyle::highlight);
    EXPECT_EQ(spec.clickTint, ClickTint::magenta);
    EXPECT_EQ(spec.zoomStyle, ZoomStyle::cut);
    EXPECT_EQ(spec.captionLook, StageSpec::CaptionLook::minimal);
    EXPECT_EQ(spec.captionSize, StageSpec::CaptionSize::large);
    EXPECT_EQ(spec.captionPlace, StageSpec::CaptionPlace::top);
}

TEST(StageSpecDecoding, MalformedValuesFallBackWithoutLosingOtherKeys)
{
    auto decoded = StageSpec::fromJson(parse(R"({
        "backdrop": "marble", "paddingPX": "wide", "cornersPX": 12.5, "shadowPercent": 140,
        "cursorSize": 120, "cursorHideWhenIdle": "yes", "cursorSpotlight": true,
        "card": [1, 2], "clickStyle": "sparkle", "clickTint": 3, "zoomStyle": "bouncy",
        "captionLook": "bold", "captionSize": null, "captionPlace": "middle", "unknownKey": 1})"));
    const StageSpec& spec = decoded.spec;
    // The bad keys keep their defaults...
    EXPECT_EQ(spec.backdrop, Backdrop::named(Backdrop::Named::gradient));
    EXPECT_EQ(spec.paddingPX, 56);
    EXPECT_EQ(spec.cornersPX, 10);
    EXPECT_EQ(spec.shadowPercent, 35);
    EXPECT_TRUE(spec.cursorHideWhenIdle);
    EXPECT_FALSE(spec.card.has_value());
    EXPECT_EQ(spec.clickStyle, ClickStyle::ring);
    EXPECT_EQ(spec.clickTint, ClickTint::white);
    EXPECT_EQ(spec.captionSize, StageSpec::CaptionSize::medium);
    EXPECT_EQ(spec.captionPlace, StageSpec::CaptionPlace::bottom);
    // ...and the good ones are kept.
    EXPECT_EQ(spec.cursorSize, 120);
    EXPECT_TRUE(spec.cursorSpotlight);
    EXPECT_EQ(spec.zoomStyle, ZoomStyle::bouncy);
    EXPECT_EQ(spec.captionLook, StageSpec::CaptionLook::bold);

    // One notice per bad key (null counts as absent), each a whole sentence naming its key.
    const std::vector<std::string> badKeys = {"backdrop", "paddingPX", "cornersPX", "shadowPercent",
        "cursorHideWhenIdle", "card", "clickStyle", "clickTint", "captionPlace"};
    ASSERT_EQ(decoded.notices.size(), badKeys.size());
    for (size_t i = 0; i < badKeys.size(); ++i) {
        EXPECT_NE(decoded.notices[i].find("\"" + badKeys[i] + "\""), std::string::npos) << decoded.notices[i];
        EXPECT_EQ(decoded.notices[i].back(), '.');
    }
    EXPECT_NE(decoded.notices[0].find("Unknown backdrop \"marble\""), std::string::npos);
    EXPECT_EQ(decoded.notices[1], "The stage look's \"paddingPX\" is not a whole number from 0 to 100000, "
                                  "so it keeps its default of 56.");
}

TEST(StageSpecDecoding, CardLookKeysFallBackOneByOne)
{
    auto decoded = StageSpec::fromJson(parse(R"({"card": {"padding": -0.2, "corners": 0.03, "shadow": "x",
        "backdrop": 7}})"));
    ASSERT_TRUE(decoded.spec.card.has_value());
    const StageSpec::CardLook defaults;
    EXPECT_EQ(decoded.spec.card->padding, defaults.padding);
    EXPECT_EQ(decoded.spec.card->corners, 0.03);
    EXPECT_EQ(decoded.spec.card->shadow, defaults.shadow);
    EXPECT_FALSE(decoded.spec.card->backdrop.has_value());
    EXPECT_EQ(decoded.notices.size(), 3u);

    // An empty card object is still a card look, with every default.
    auto empty = StageSpec::fromJson(parse(R"({"card": {}})"));
    ASSERT_TRUE(empty.spec.card.has_value());
    EXPECT_EQ(*empty.spec.card, defaults);
    EXPECT_TRUE(empty.notices.empty());
}

TEST(StageSpecDecoding, NonObjectGivesDefaultsWithANotice)
{
    for (const char* text : {"[]", "3", "\"gradient\"", "null"}) {
        auto decoded = StageSpec::fromJson(parse(text));
        EXPECT_EQ(decoded.spec, StageSpec{}) << text;
        ASSERT_EQ(decoded.notices.size(), 1u) << text;
    }
}

TEST(StageSpecBackdrop, NamedBackdropsAreBareStrings)
{
    const char* names[] = {"none", "graphite", "slate", "gradient", "wallpaper", "cobalt", "ocean", "plum"};
    for (const char* name : names) {
        auto backdrop = Backdrop::fromJson(Json(name));
        ASSERT_TRUE(backdrop.has_value()) << name;
        ASSERT_TRUE(backdrop->name().has_value());
        EXPECT_EQ(backdropNameText(*backdrop->name()), name);
        EXPECT_EQ(backdrop->toJson(), Json(name));
    }
}

TEST(StageSpecBackdrop, ObjectFormsRoundTrip)
{
    const Backdrop forms[] = {Backdrop::solid("#FF8800"), Backdrop::duo("#000000", "#FFFFFF"),
        Backdrop::image("/home/a/Pictures/sea.png", 12)};
    for (const Backdrop& form : forms) {
        Json json = form.toJson();
        ASSERT_TRUE(json.is_object());
        auto back = Backdrop::fromJson(json);
        ASSERT_TRUE(back.has_value()) << json.dump();
        EXPECT_EQ(*back, form);
        EXPECT_FALSE(back->name().has_value());
    }
    EXPECT_EQ(Backdrop::solid("#123456").toJson(), parse(R"({"kind": "solid", "hex": "#123456"})"));
    EXPECT_EQ(Backdrop::image("a.png", 3).toJson(), parse(R"({"kind": "image", "path": "a.png", "blur": 3})"));
    // A missing blur radius is no blur.
    EXPECT_EQ(Backdrop::fromJson(parse(R"({"kind": "image", "path": "a.png"})")), Backdrop::image("a.png", 0));
}

TEST(StageSpecBackdrop, UnknownNameAndKindFailWithTheirSentences)
{
    auto name = Backdrop::fromJson(Json("marble"));
    ASSERT_FALSE(name.has_value());
    EXPECT_EQ(name.error().sentence, "Unknown backdrop \"marble\"");

    // Names are looked up exactly.
    EXPECT_FALSE(Backdrop::fromJson(Json("Gradient")).has_value());
    EXPECT_FALSE(Backdrop::fromJson(Json("dawn")).has_value());

    auto kind = Backdrop::fromJson(parse(R"({"kind": "video", "path": "a.mov"})"));
    ASSERT_FALSE(kind.has_value());
    EXPECT_EQ(kind.error().sentence, "Unknown backdrop kind \"video\"");

    // Broken objects of known kinds and other JSON types fail too, never crash.
    for (const char* text : {R"({"kind": "solid"})", R"({"kind": "duo", "a": "#000000"})",
             R"({"kind": "image", "path": "a.png", "blur": -1})", R"({"kind": "image", "path": 4})",
             R"({"hex": "#000000"})", "12", "[\"solid\"]", "true"}) {
        auto backdrop = Backdrop::fromJson(parse(text));
        ASSERT_FALSE(backdrop.has_value()) << text;
        EXPECT_FALSE(backdrop.error().sentence.empty());
    }
}

TEST(StageSpecEncoding, WritesEveryKeySortedAndReadsBack)
{
    StageSpec spec;
    spec.backdrop = Backdrop::image("/tmp/x.jpg", 8);
    spec.paddingPX = 20;
    spec.clickTint = ClickTint::amber;
    spec.zoomStyle = ZoomStyle::whip;
    spec.card = StageSpec::CardLook{0.05, 0.015, 1.1, std::nullopt};

    Json json = spec.toJson();
    for (const char* key : {"backdrop", "paddingPX", "cornersPX", "shadowPercent", "cursorSize",
             "cursorHideWhenIdle", "cursorSpotlight", "card", "clickStyle", "clickTint", "zoomStyle",
             "captionLook", "captionSize", "captionPlace"})
        EXPECT_TRUE(json.contains(key)) << key;
    EXPECT_FALSE(json["card"].contains("backdrop"));
    EXPECT_EQ(json["zoomStyle"], "whip");

    std::string text = encodeJson(json);
    EXPECT_LT(text.find("\"backdrop\""), text.find("\"captionLook\""));
    EXPECT_LT(text.find("\"captionPlace\""), text.find("\"card\""));
    EXPECT_LT(text.find("\"cursorSpotlight\""), text.find("\"paddingPX\""));

    auto back = StageSpec::fromJson(parse(text));
    EXPECT_TRUE(back.notices.empty());
    EXPECT_EQ(back.spec, spec);

    // A spec without a card look writes no "card" key.
    EXPECT_FALSE(StageSpec{}.toJson().contains("card"));
}

TEST(StageSpecShadow, LayersFollowStrength)
{
    using Layer = StageSpec::CardLook::ShadowLayer;
    auto normal = StageSpec::CardLook::shadowLayersFor(1.0);
    ASSERT_EQ(normal.size(), 2u);
    EXPECT_DOUBLE_EQ(normal[0].y, 0.035);
    EXPECT_DOUBLE_EQ(normal[0].blur, 0.1);
    EXPECT_DOUBLE_EQ(normal[0].alpha, 0.42);
    EXPECT_DOUBLE_EQ(normal[1].y, 0.004);
    EXPECT_DOUBLE_EQ(normal[1].blur, 0.014);
    EXPECT_DOUBLE_EQ(normal[1].alpha, 0.22);

    // Strength is capped at 1.2.
    EXPECT_EQ(StageSpec::CardLook::shadowLayersFor(5), StageSpec::CardLook::shadowLayersFor(1.2));
    auto capped = StageSpec::CardLook::shadowLayersFor(1.2);
    ASSERT_EQ(capped.size(), 2u);
    EXPECT_DOUBLE_EQ(capped[0].alpha, 0.42 * 1.2);

    // Too weak, zero, negative or not a number: none.
    for (double strength : {0.005, 0.004, 0.0, -1.0, std::nan("")})
        EXPECT_EQ(StageSpec::CardLook::shadowLayersFor(strength), std::vector<Layer>{}) << strength;
    EXPECT_EQ(StageSpec::CardLook::shadowLayersFor(0.0051).size(), 2u);

    // A spec without a card look derives its strength from shadowPercent.
    StageSpec spec;
    EXPECT_DOUBLE_EQ(spec.shadowStrength(), 0.35);
    EXPECT_EQ(spec.shadowLayers(), StageSpec::CardLook::shadowLayersFor(0.35));
    spec.shadowPercent = 0;
    EXPECT_TRUE(spec.shadowLayers().empty());
    spec.card = StageSpec::CardLook{};
    spec.card->shadow = 0.8;
    EXPECT_EQ(spec.shadowLayers(), spec.card->shadowLayers());
    EXPECT_DOUBLE_EQ(spec.shadowLayers()[1].blur, 0.014 * 0.8);
}

TEST(StageSpecFileTest, AbsentFileGivesDefaults)
{
    testkit::TempDir dir;
    auto file = StageSpecFile::read(dir / "B.stage.json");
    EXPECT_EQ(file.kind, StageSpecFile::Kind::absent);
    EXPECT_EQ(file.spec, StageSpec{});
}

TEST(StageSpecFileTest, WritesAndReadsBack)
{
    testkit::TempDir dir;
    StageSpec spec;
    spec.backdrop = Backdrop::solid("#0A0B0C");
    spec.captionPlace = StageSpec::CaptionPlace::top;
    ASSERT_TRUE(StageSpecFile::write(dir / "B.stage.json", spec).has_value());
    std::string text = testkit::readText(dir / "B.stage.json");
    EXPECT_EQ(text, encodeJson(spec.toJson()));

    auto file = StageSpecFile::read(dir / "B.stage.json");
    EXPECT_EQ(file.kind, StageSpecFile::Kind::loaded);
    EXPECT_EQ(file.spec, spec);
    EXPECT_TRUE(file.notices.empty());
}

TEST(StageSpecFileTest, BadFilesAreLeftAsTheyAre)
{
    testkit::TempDir dir;
    LogCapture log;

    // Not JSON: unreadable, defaults, untouched.
    const std::string garbage = "{\"paddingPX\": 40,\n\x01\xff truncated";
    testkit::writeText(dir / "A.stage.json", garbage);
    auto corrupt = StageSpecFile::read(dir / "A.stage.json");
    EXPECT_EQ(corrupt.kind, StageSpecFile::Kind::unreadable);
    EXPECT_EQ(corrupt.spec, StageSpec{});
    EXPECT_NE(corrupt.sentence.find("A.stage.json"), std::string::npos);
    EXPECT_NE(corrupt.sentence.find("left as it is"), std::string::npos);
    EXPECT_EQ(testkit::readText(dir / "A.stage.json"), garbage);
    EXPECT_TRUE(log.contains("A.stage.json"));

    // Valid JSON with bad keys: loaded with notices, logged, untouched.
    const std::string partial = R"({"paddingPX": 40, "clickStyle": "boom"})";
    testkit::writeText(dir / "B.stage.json", partial);
    auto loaded = StageSpecFile::read(dir / "B.stage.json");
    EXPECT_EQ(loaded.kind, StageSpecFile::Kind::loaded);
    EXPECT_EQ(loaded.spec.paddingPX, 40);
    EXPECT_EQ(loaded.spec.clickStyle, ClickStyle::ring);
    ASSERT_EQ(loaded.notices.size(), 1u);
    EXPECT_TRUE(log.contains("\"clickStyle\""));
    EXPECT_EQ(testkit::readText(dir / "B.stage.json"), partial);
}

TEST(StageSpecFileTest, FailedWriteGivesASentenceAndKeepsTheOldFile)
{
    testkit::TempDir dir;
    // A folder where the file should be: the rename cannot replace it, even for root.
    fs::create_directory(dir / "B.stage.json");
    testkit::writeText(dir / "B.stage.json" / "keep.txt", "kept");
    auto written = StageSpecFile::write(dir / "B.stage.json", StageSpec{});
    ASSERT_FALSE(written.has_value());
    EXPECT_NE(written.error().sentence.find("could not save the stage look B.stage.json"), std::string::npos);
    EXPECT_EQ(testkit::readText(dir / "B.stage.json" / "keep.txt"), "kept");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);

    // A parent that is a plain file.
    testkit::writeText(dir / "plain", "x");
    EXPECT_FALSE(StageSpecFile::write(dir / "plain" / "B.stage.json", StageSpec{}).has_value());
    EXPECT_EQ(testkit::readText(dir / "plain"), "x");
}

} // namespace
} // namespace plim
