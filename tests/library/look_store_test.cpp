#include "library/look_store.h"
#include "library/plim_look.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

TEST(PlimLook, EveryKeyRoundTripsAndUnknownKeysAreKept)
{
    PlimLook look;
    look.shape = PlimLook::Shape::vertical;
    look.clickRings = false;
    look.spotlight = true;
    look.keys = false;
    look.cameraBubble = false;
    look.captions = true;
    look.bubbleCorner = PlimLook::BubbleCorner::tl;
    look.backdrop = PlimLook::Backdrop::desk;
    look.padding = 0.1;
    look.corners = 0.04;
    look.shadow = 0.5;
    look.cursorGlide = false;
    look.deadAir = false;
    look.zoomBlur = true;
    look.unknownKeys["grain"] = 3;

    Json json = look.toJson();
    EXPECT_EQ(json["shape"], "9:16");
    EXPECT_EQ(json["bubbleCorner"], "tl");
    EXPECT_EQ(json["grain"], 3);
    auto back = PlimLook::fromJson(json);
    EXPECT_TRUE(back.droppedKeys.empty());
    EXPECT_EQ(back.look, look);
}

TEST(PlimLook, DamagedKeysKeepDefaultsAndAreNamed)
{
    Json json = PlimLook{}.toJson();
    json["shape"] = "21:9";
    json["padding"] = "wide";
    json["shadow"] = -1;
    json["keys"] = 1;
    json["backdrop"] = "meadow";
    json["spotlight"] = true;
    auto decoded = PlimLook::fromJson(json);
    EXPECT_EQ(decoded.droppedKeys, (std::vector<std::string>{"keys", "padding", "shadow", "shape"}));
    EXPECT_EQ(decoded.look.shape, PlimLook::Shape::landscape);
    EXPECT_EQ(decoded.look.padding, PlimLook{}.padding);
    EXPECT_EQ(decoded.look.backdrop, PlimLook::Backdrop::meadow);
    EXPECT_TRUE(decoded.look.spotlight);

    EXPECT_EQ(PlimLook::shapeFromText("square"), PlimLook::Shape::square);
    EXPECT_EQ(PlimLook::shapeFromText("iPhone"), PlimLook::Shape::iPhone);
    EXPECT_TRUE(PlimLook::fromJson(Json::array()).notAnObject);
}

TEST(LookStore, SavesRenamesRemovesAndReadsBack)
{
    XdgSandbox sandbox;
    EXPECT_EQ(LookStore::defaultFile(), sandbox.home() / ".local/share/plim/looks.json");
    LookStore store;
    EXPECT_TRUE(store.saved().empty());
    EXPECT_FALSE(store.loadProblem());

    PlimLook ember;
    ember.backdrop = PlimLook::Backdrop::ember;
    ASSERT_TRUE(store.save("  Talk ", ember));
    PlimLook paper;
    paper.backdrop = PlimLook::Backdrop::paper;
    ASSERT_TRUE(store.save("Docs", paper));
    ASSERT_TRUE(store.save("Talk", paper)); // same name replaces
    ASSERT_TRUE(store.setNewPlimLook(ember));
    EXPECT_FALSE(store.save("   ", ember));
    EXPECT_FALSE(store.remove("Nope"));
    EXPECT_FALSE(store.rename("Docs", "Talk"));
    ASSERT_TRUE(store.rename("Docs", "Guides"));

    LookStore again(store.file());
    ASSERT_EQ(again.saved().size(), 2u);
    EXPECT_EQ(again.saved()[0].name, "Talk");
    EXPECT_EQ(again.saved()[0].look, paper);
    EXPECT_EQ(again.saved()[1].name, "Guides");
    EXPECT_EQ(again.newPlimLook(), ember);
    ASSERT_TRUE(again.remove("Talk"));
    ASSERT_TRUE(again.setNewPlimLook(std::nullopt));
    LookStore third(store.file());
    ASSERT_EQ(third.saved().size(), 1u);
    EXPECT_FALSE(third.newPlimLook());
    EXPECT_EQ(readJsonFile(store.file())->at("version"), 1);
}

TEST(LookStore, UnreadableCorruptOrNewerFilesAreLeftUntilTheNextSave)
{
    TempDir dir;
    fs::path file = dir / "looks.json";

    const std::string garbage = "{\"saved\": [ {\"name\": ";
    writeText(file, garbage);
    {
        LookStore store(file);
        ASSERT_TRUE(store.loadProblem());
        EXPECT_NE(store.loadProblem()->find("was left as it is"), std::string::npos);
        EXPECT_TRUE(store.saved().empty());
        store.reload();
        EXPECT_EQ(readText(file), garbage);
        ASSERT_TRUE(store.save("Fresh", PlimLook{}));
        EXPECT_FALSE(store.loadProblem());
    }
    EXPECT_EQ(LookStore(file).saved().size(), 1u);

    const std::string newer = R"({"version": 2, "saved": [{"name": "A", "look": {}}]})";
    writeText(file, newer);
    {
        LookStore store(file);
        ASSERT_TRUE(store.loadProblem());
        EXPECT_NE(store.loadProblem()->find("newer Plim (looks format 2)"), std::string::npos);
        EXPECT_TRUE(store.saved().empty());
        EXPECT_EQ(readText(file), newer);
    }

    if (geteuid() != 0) {
        writeText(file, R"({"version": 1, "saved": []})");
        chmod(file.c_str(), 0);
        LookStore store(file);
        ASSERT_TRUE(store.loadProblem());
        EXPECT_NE(store.loadProblem()->find("could not read"), std::string::npos);
        chmod(file.c_str(), 0644);
        EXPECT_EQ(readText(file), R"({"version": 1, "saved": []})");
    }
}

TEST(LookStore, EntriesThatDoNotDecodeStayInTheFile)
{
    TempDir dir;
    fs::path file = dir / "looks.json";
    writeText(file, R"({"version": 1, "theme": "x", "newPlimLook": 7,
        "saved": [{"name": "Good", "look": {"backdrop": "lagoon"}}, {"name": "", "look": {}}, 5]})");
    LookStore store(file);
    EXPECT_FALSE(store.loadProblem());
    ASSERT_EQ(store.saved().size(), 1u);
    EXPECT_EQ(store.saved()[0].look.backdrop, PlimLook::Backdrop::lagoon);
    EXPECT_FALSE(store.newPlimLook());

    ASSERT_TRUE(store.save("Other", PlimLook{}));
    auto json = readJsonFile(file);
    ASSERT_TRUE(json);
    EXPECT_EQ((*json)["theme"], "x");
    EXPECT_EQ((*json)["newPlimLook"], 7);
    ASSERT_EQ((*json)["saved"].size(), 4u);
    EXPECT_EQ((*json)["saved"][3], 5);
    EXPECT_EQ(LookStore(file).saved().size(), 2u);
}

TEST(LookStore, AFailedWriteChangesNothing)
{
    TempDir dir;
    fs::path file = dir / "blocker" / "looks.json";
    writeText(dir / "blocker", "a file where the folder should be");
    LookStore store(file);
    auto saved = store.save("A", PlimLook{});
    ASSERT_FALSE(saved);
    EXPECT_NE(saved.error().sentence.find("Plim could not save your looks."), std::string::npos);
    EXPECT_TRUE(store.saved().empty());
    EXPECT_EQ(readText(dir / "blocker"), "a file where the folder should be");
}
