#include "library/look_store.h"
#include "library/plim_look.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

using namespace plim;
using namespace plim::testkit;
using Saved = std::vector<LookStore::SavedLook>;

TEST(PlimLook, EveryKeyRoundTripsAndADamagedKeyKeepsItsDefault)
{
    using L = PlimLook;
    // Unchosen, the optional keys are not written, so an older look is written back as it was.
    const Json defaults = PlimLook{}.toJson();
    EXPECT_EQ(defaults.size(), 14u) << defaults.dump();
    const PlimLook chosen{.backdropColor = "#102030", .backdropImage = "/pictures/desk.png", .pointerSize = 150,
        .pointerHidesIdle = false, .clickStyle = L::ClickStyle::pulse, .clickTint = L::ClickTint::amber,
        .zoomStyle = ZoomStyle::snappy, .zoomLevel = 2.2, .captionSize = L::CaptionSize::large,
        .captionPlace = L::CaptionPlace::top, .captionBox = L::CaptionBox::light};
    // Each key changed alone comes back alone: no key is read into another's field.
    const std::map<std::string, Json> others{{"shape", "16:10"}, {"backdrop", "wallpaper"}, {"bubbleCorner", "tl"},
        {"backdropColor", "#ffffff"}, {"backdropImage", "/elsewhere.jpg"}, {"pointerSize", 60},
        {"clickStyle", "highlight"}, {"clickTint", "green"}, {"zoomStyle", "cut"}, {"zoomLevel", 3.5},
        {"captionSize", "small"}, {"captionPlace", "bottom"}, {"captionBox", "none"}};
    const Json full = chosen.toJson();
    EXPECT_EQ(PlimLook::fromJson(full).look, chosen);
    for (const auto& [key, value] : full.items()) {
        Json changed = full;
        changed[key] = value.is_boolean() ? Json(!value.get<bool>())
            : others.contains(key)        ? others.at(key)
                                          : Json(value.get<double>() + 0.25);
        auto decoded = PlimLook::fromJson(changed);
        EXPECT_EQ(decoded.look.toJson(), changed) << key;
        EXPECT_NE(decoded.look, chosen) << key;
        EXPECT_TRUE(decoded.droppedKeys.empty()) << key;
    }
    const PlimLook look{.shape = PlimLook::Shape::vertical, .bubbleCorner = PlimLook::BubbleCorner::tl,
        .unknownKeys = Json{{"grain", 3}}};
    EXPECT_EQ(PlimLook::fromJson(Json{{"shape", "9:16"}, {"bubbleCorner", "tl"}, {"grain", 3}}).look, look);
    EXPECT_EQ(look.toJson()["grain"], 3);

    auto decoded = PlimLook::fromJson(Json{{"shape", "21:9"}, {"padding", "wide"}, {"shadow", -1}, {"keys", 1},
        {"backdrop", "meadow"}, {"pointerSize", 20}, {"backdropColor", "red"}, {"zoomLevel", 9}, {"clickStyle", "sparkle"},
        {"captionBox", true}, {"backdropImage", ""}, {"pointerHidesIdle", "no"}});
    EXPECT_EQ(decoded.droppedKeys, (std::vector<std::string>{"backdropColor", "backdropImage", "captionBox", "clickStyle",
                                       "keys", "padding", "pointerHidesIdle", "pointerSize", "shadow", "shape", "zoomLevel"}));
    EXPECT_EQ(decoded.look, (PlimLook{.backdrop = PlimLook::Backdrop::meadow}));
    EXPECT_EQ(PlimLook::fromJson(Json{{"shape", "square"}}).look.shape, PlimLook::Shape::square); // the case name
    EXPECT_TRUE(PlimLook::fromJson(Json::array()).notAnObject);
}

TEST(LookStore, SavesRenamesRemovesAndReadsBack)
{
    XdgSandbox sandbox;
    EXPECT_EQ(LookStore::defaultFile(), sandbox.home() / ".local/share/plim/looks.json");
    LookStore store;
    EXPECT_TRUE(store.saved().empty() && !store.loadProblem());
    const PlimLook ember{.backdrop = PlimLook::Backdrop::ember, .pointerSize = 200,
        .captionBox = PlimLook::CaptionBox::light},
        paper{.backdrop = PlimLook::Backdrop::image, .backdropImage = "/pictures/paper.jpg"};
    ASSERT_TRUE(store.save("  Talk ", ember) && store.save("Docs", paper));
    ASSERT_TRUE(store.save("Talk", paper)); // same name replaces
    ASSERT_TRUE(store.setNewPlimLook(ember));
    EXPECT_FALSE(store.save("   ", ember) || store.remove("Nope"));
    EXPECT_EQ(store.rename("Docs", "Talk").error().sentence,
        "A saved look is already named \"Talk\". Nothing changed; pick another name.");
    ASSERT_TRUE(store.rename("Docs", "Guides"));

    LookStore again(store.file());
    EXPECT_EQ(again.saved(), (Saved{{"Talk", paper}, {"Guides", paper}}));
    EXPECT_EQ(again.newPlimLook(), ember);
    ASSERT_TRUE(again.remove("Talk") && again.setNewPlimLook(std::nullopt));
    LookStore third(store.file());
    EXPECT_EQ(third.saved(), (Saved{{"Guides", paper}}));
    EXPECT_FALSE(third.newPlimLook());
    EXPECT_EQ(readJsonFile(store.file())->at("version"), 1);
}

TEST(LookStore, AFileWithoutReadPermissionIsLeftByteForByte)
{
    if (rerunUnprivileged())
        return;
    TempDir dir;
    fs::path file = dir / "looks.json";
    writeText(file, R"({"version": 1, "saved": []})");
    chmod(file.c_str(), 0);
    LookStore store(file);
    EXPECT_NE(store.loadProblem().value_or("").find("could not read"), std::string::npos);
    chmod(file.c_str(), 0644);
    EXPECT_EQ(readText(file), R"({"version": 1, "saved": []})");
}

TEST(LookStore, UnusableFilesAreLeftAsTheyAreUntilTheNextSave)
{
    TempDir dir;
    fs::path file = dir / "looks.json";
    const std::string replaced = "so none are shown. The file was left as it is; saving a look will replace it, so copy "
                                 "it elsewhere first if you want to keep it.";
    for (auto [bytes, says] : std::vector<std::pair<std::string, std::string>>{{"{\"saved\": [ {\"name\": ", replaced},
             {"[1]", " at " + file.string() + " (it does not hold a list of looks), " + replaced},
             {R"({"version": 2, "saved": [{"name": "A", "look": {}}]})",
                 "Your saved looks at " + file.string() + " were written by a newer Plim (looks format 2), so none are "
                 "shown. The file was left as it is; update Plim to use them, since saving a look here would replace it."}}) {
        writeText(file, bytes);
        LookStore store(file);
        EXPECT_NE(store.loadProblem().value_or("").find(says), std::string::npos) << store.loadProblem().value_or("");
        EXPECT_TRUE(store.saved().empty());
        store.reload();
        EXPECT_EQ(readText(file), bytes);
        ASSERT_TRUE(store.save("Fresh", PlimLook{}));
        EXPECT_FALSE(store.loadProblem());
        EXPECT_EQ(LookStore(file).saved(), (Saved{{"Fresh", PlimLook{}}}));
    }

    writeText(dir / "blocker", "a file where the folder should be");
    LookStore blocked(dir / "blocker" / "looks.json");
    const std::string sentence = blocked.save("A", PlimLook{}).error().sentence;
    EXPECT_EQ(sentence.rfind("Plim could not save your looks. ", 0), 0u);
    EXPECT_NE(sentence.find(" Your saved looks are as they were; free some disk space or check that the folder can be "
                            "written to, then try again."), std::string::npos);
    EXPECT_TRUE(blocked.saved().empty());
    EXPECT_EQ(readText(dir / "blocker"), "a file where the folder should be");
}

TEST(LookStore, EntriesThatDoNotDecodeStayInTheFile)
{
    TempDir dir;
    fs::path file = dir / "looks.json";
    writeText(file, R"({"version": 1, "theme": "x", "newPlimLook": 7,
        "saved": [{"name": "Good", "look": {"backdrop": "lagoon"}}, {"name": "", "look": {}}, 5]})");
    LookStore store(file);
    EXPECT_FALSE(store.loadProblem() || store.newPlimLook());
    EXPECT_EQ(store.saved(), (Saved{{"Good", {.backdrop = PlimLook::Backdrop::lagoon}}}));
    ASSERT_TRUE(store.save("Other", PlimLook{}));
    Json json = readJsonFile(file).value_or(Json());
    EXPECT_EQ(std::tuple(json["theme"], json["newPlimLook"], json["saved"].size()), std::tuple("x", 7, 4u));
    EXPECT_EQ(json["saved"][2], (Json{{"name", ""}, {"look", Json::object()}}));
    EXPECT_EQ(json["saved"][3], 5);
    EXPECT_EQ(LookStore(file).saved().size(), 2u);
}
