#include "library/plim_document.h"
#include "base/dates.h"
#include "capture/capture.h"
#include "testkit/testkit.h"

#include <cmath>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace plim;
using namespace plim::testkit;

namespace {

PlimDocument makeDocument(double duration = 10, bool phone = false, std::optional<std::vector<PlimClip>> clips = {})
{
    return PlimDocument("/nowhere/B.mov", duration, phone, PlimEdits{.plan = {.clips = std::move(clips)}});
}

template<typename T>
std::pair<double, double> span(const T& item) { return {item.start, item.end}; }

template<typename R>
std::string refusal(const R& result)
{
    return result ? "(done)" : result.error().sentence;
}

const std::string clipA = "7A4E0C11-0000-4000-8000-000000000010";
const std::string clipB = "7A4E0C11-0000-4000-8000-000000000011";

} // namespace

TEST(PlimDocument, NoOpsRecordNothingUndoKeepsEightyStepsAndAGestureIsOne)
{
    auto doc = makeDocument(1000);
    int notified = 0;
    doc.setObserver([&] { ++notified; });
    doc.setTrimIn(-4);            // clamps to the start, where it already is
    doc.setTrimOut(1200);         // clamps to the end
    doc.setTrimOut(std::nan("")); // not finite
    doc.removeBlur("no-such-blur");
    doc.setShape(PlimLook::Shape::landscape); // the usual look already
    EXPECT_FALSE(doc.canUndo() || doc.isDirty() || notified || doc.edits() != PlimEdits{});

    for (int i = 1; i <= 81; ++i)
        doc.setTrimIn(i);
    doc.setTrimIn(81);
    EXPECT_TRUE(doc.isDirty());
    EXPECT_EQ(notified, 81);
    EXPECT_EQ(doc.undoStack().size(), 80u);
    while (doc.canUndo())
        doc.undo();
    // The untouched state was the oldest and was dropped: the first change remains.
    EXPECT_EQ(doc.edits().plan.trimIn, 1);
    EXPECT_EQ(doc.redoStack().size(), 80u);
    doc.undo(); // nothing left to undo
    doc.redo();
    doc.redo();
    EXPECT_EQ(doc.edits().plan.trimIn, 3);

    const PlimEdits beforeDrag = doc.edits();
    doc.beginGesture();
    doc.setTrimIn(3); // same as now: no-op
    for (int frame = 1; frame <= 60; ++frame)
        doc.setTrimIn(3 + frame * 0.1);
    doc.beginGesture(); // a second begin keeps the first start
    doc.setTrimIn(20);
    doc.endGesture();
    EXPECT_FALSE(doc.canRedo()); // a new change clears what could be redone
    EXPECT_EQ(doc.undoStack().size(), 3u);
    doc.undo();
    EXPECT_EQ(doc.edits(), beforeDrag);
    doc.setTrimIn(30); // after the gesture each change is its own step again
    doc.setTrimIn(31);
    EXPECT_EQ(doc.undoStack().size(), 4u);
}

TEST(PlimDocument, TrimsKeepHalfASecondInsideTheRecordingOrMoveTheOuterClipEdges)
{
    auto doc = makeDocument(10);
    using Row = std::tuple<char, double, std::optional<double>, std::optional<double>>; // edge, to, trim in, out
    for (auto [edge, to, in, out] : std::vector<Row>{{'i', 4, 4, {}}, {'o', 2, 4, 4.5}, {'i', 9, 4, 4.5},
             {'o', 25, 4, 10}, {'i', -1, 0, 10}}) {
        edge == 'i' ? doc.setTrimIn(to) : doc.setTrimOut(to);
        EXPECT_EQ(std::pair(doc.edits().plan.trimIn, doc.edits().plan.trimOut), std::pair(in, out)) << edge << to;
    }
    auto tiny = makeDocument(0.3);
    tiny.setTrimIn(0.2);
    EXPECT_FALSE(tiny.edits().plan.trimIn); // nothing to trim: never below 0

    auto clipped = makeDocument(20, false, std::vector<PlimClip>{{clipA, 2, 6}, {clipB, 10, 15}});
    clipped.setTrimIn(5.8);
    clipped.setTrimOut(30);
    EXPECT_EQ(clipped.edits().plan.clips, (std::vector<PlimClip>{{clipA, 5.5, 6}, {clipB, 10, 20}}));
    clipped.setClipEnd(clipB, 1);
    clipped.setClipStart(clipB, -5);
    EXPECT_EQ(clipped.edits().plan.clips->at(1), (PlimClip{clipB, 0, 10.5}));
    EXPECT_FALSE(clipped.edits().plan.trimIn || clipped.edits().plan.trimOut);
}

TEST(PlimDocument, ClipsSplitMoveAndDeleteWithTheirRefusals)
{
    auto doc = makeDocument(20, false, std::vector<PlimClip>{{clipA, 0, 4}, {clipB, 10, 16}});
    auto cut = doc.splitClip(6); // output 6 is 2 s into the second clip: raw 12
    ASSERT_TRUE(cut) << cut.error().sentence;
    auto split = *cut;
    EXPECT_EQ(split.leftID, clipB);
    EXPECT_TRUE(isUuid(split.rightID));
    EXPECT_EQ(doc.edits().plan.clips, (std::vector<PlimClip>{{clipA, 0, 4}, {clipB, 10, 12}, {split.rightID, 12, 16}}));

    const PlimEdits beforeRefusals = doc.edits();
    auto nearEnd = doc.splitClip(4.2);
    ASSERT_FALSE(nearEnd);
    EXPECT_EQ(nearEnd.error(), (Error{"Move the playhead away from the clip's ends to cut there.", Error::Kind::refused}));
    EXPECT_EQ(refusal(doc.splitClip(9.8)), splitNearEndSentence());
    EXPECT_EQ(refusal(doc.splitClip(40)), "Move the playhead onto a clip to cut it there.");
    EXPECT_EQ(doc.edits(), beforeRefusals);

    doc.moveClip(split.rightID, 0);
    EXPECT_EQ(doc.edits().plan.clips->front().id, split.rightID);
    doc.moveClip(split.rightID, 99);
    EXPECT_EQ(doc.edits().plan.clips->back().id, split.rightID);
    ASSERT_TRUE(doc.deleteClip(clipA) && doc.deleteClip(clipB));
    EXPECT_EQ(refusal(doc.deleteClip(split.rightID)), "A plim keeps at least one clip. Trim it with the yellow ends instead.");
    EXPECT_EQ(doc.edits().plan.clips->size(), 1u);

    // Without clips, the kept stretch of the trims is cut under its positional id.
    auto trimmed = makeDocument(10);
    trimmed.setTrimIn(1);
    trimmed.setTrimOut(9);
    EXPECT_EQ(trimmed.clips(), (std::vector<PlimClip>{{PlimClip::idForNumber(0), 1, 9}}));
    auto later = trimmed.splitClip(3); // output 3 = raw 4
    auto edge = trimmed.splitClip(0.5); // exactly half a second into the clip is far enough from its end
    ASSERT_TRUE(later && edge);
    EXPECT_EQ(trimmed.edits().plan.clips,
        (std::vector<PlimClip>{{PlimClip::idForNumber(0), 1, 1.5}, {edge->rightID, 1.5, 4}, {later->rightID, 4, 9}}));
}

TEST(PlimDocument, BlurBoxesMoveHalfOutButResizeOnlyInside)
{
    auto doc = makeDocument(10);
    const EditPlan& plan = doc.edits().plan;
    auto id = doc.addBlur(8.5);
    ASSERT_TRUE(id);
    EXPECT_EQ(span(plan.masks.at(0)), std::pair(7.0, 10.0));
    // Move or resize to (a, b), then the box's x, y, w, h.
    using Row = std::tuple<char, double, double, double, double, double, double>;
    for (auto [op, a, b, x, y, w, h] : std::vector<Row>{{'m', 2, -1, 0.85, -0.15, 0.3, 0.3},
             {'r', 5, 0.001, 0.85, -0.15, 0.15, 0.02}, // up to the right edge; never below 0.02
             {'r', 0, 0.5, 0.85, -0.15, 0.02, 0.5}, {'m', 0.999, 0.5, 0.99, 0.5, 0.02, 0.5}, // the centre stays inside
             {'r', 0.5, 0.5, 0.99, 0.5, 0.02, 0.5}}) { // 0.01 left to the edge, but never below 0.02
        op == 'm' ? doc.moveBlur(*id, a, b) : doc.resizeBlur(*id, a, b);
        const MaskRegion& m = plan.masks.at(0);
        for (auto [got, want] : std::vector<std::pair<double, double>>{{m.x, x}, {m.y, y}, {m.w, w}, {m.h, h}})
            EXPECT_NEAR(got, want, 1e-12) << op << " " << a << " " << b;
    }
    doc.setBlurSpan(*id, 6, 2);
    EXPECT_EQ(span(plan.masks[0]), std::pair(2.0, 6.0));
    doc.setBlurSpan(*id, 12, 10);
    EXPECT_NEAR(plan.masks[0].start, 9.9, 1e-12);
    doc.removeBlur(*id);
    EXPECT_TRUE(plan.masks.empty());
}

TEST(PlimDocument, ZoomsAimFollowAndClamp)
{
    auto doc = makeDocument(10);
    const PlimEdits& edits = doc.edits();
    auto id = doc.addZoom(9.5, 1.7, -2);
    ASSERT_TRUE(id);
    const auto mark = ZoomBlock::Origin::mark();
    EXPECT_EQ(edits.plan.zooms.at(0), (ZoomBlock{*id, 8, 10, 1, 0, PlimDocument::newZoomLevel, mark}));
    auto follow = [](double t) { return std::optional<Point>({t / 10, 0.25}); };
    doc.moveZoom(*id, 2, follow); // re-centres on the point at its new middle
    EXPECT_EQ(span(edits.plan.zooms[0]), std::pair(2.0, 4.0));
    EXPECT_DOUBLE_EQ(edits.plan.zooms[0].centerX, 0.3);
    doc.aimZoom(*id, 0.6, 0.4);
    doc.moveZoom(*id, 20, follow); // aimed by hand: keeps its target
    doc.setZoomLevel(*id, 9);
    EXPECT_EQ(edits.plan.zooms[0], (ZoomBlock{*id, 8, 10, 0.6, 0.4, PlimDocument::maximumZoomLevel, mark}));
    doc.setZoomLevel(*id, 0.2);
    doc.setZoomSpan(*id, 3, 3.1);
    EXPECT_EQ(edits.plan.zooms[0], (ZoomBlock{*id, 3, 3.5, 0.6, 0.4, 1.0, mark}));
    doc.removeZoom(*id);
    EXPECT_TRUE(edits.plan.zooms.empty() && edits.aimedZooms.empty());
    // A look with a zoom level gives it to new zooms.
    doc.setLook([](PlimLook& look) { look.zoomLevel = 2.5; });
    ASSERT_TRUE(doc.addZoom(1, 0.5, 0.5));
    EXPECT_EQ(edits.plan.zooms.at(0).scale, 2.5);
}

TEST(PlimDocument, PausesVoiceoversAndCaptions)
{
    auto doc = makeDocument(10);
    const PlimEdits& edits = doc.edits();
    doc.skip(SkipDecision{{4, 6}, false, 4.0});
    doc.skip(SkipDecision{{4, 6}, true, 4.0}); // same identity: replaced
    doc.skip(SkipDecision{{1, 2}, false, std::nan("")});
    doc.setPauseSpeed("skip-4000", 100);
    doc.setPauseSpan("skip-4000", 4.12345, 6.0009); // whole milliseconds
    EXPECT_EQ(edits.plan.skips, (std::vector<SkipDecision>{{{4.123, 6.0}, true, PlimDocument::maximumPauseSpeed}}));

    auto id = doc.addVoiceover(PlimEdits::Voiceover{"", 2, 3, "voice.m4a", 0.2});
    ASSERT_TRUE(id && isUuid(*id));
    doc.moveVoiceover(*id, 9);
    EXPECT_EQ(edits.voiceovers[0].start, 7);
    doc.moveVoiceover(*id, -3);
    EXPECT_EQ(edits.voiceovers[0].start, 0);
    auto second = doc.addVoiceover(PlimEdits::Voiceover{*id, 1, 1, "other.m4a", 0.2});
    EXPECT_NE(second, id); // a taken id gets a new one
    doc.removeVoiceover(*id);
    EXPECT_EQ(edits.voiceovers.size(), 1u);
    doc.setCaptionsFile("B.captions.json");
    EXPECT_EQ(edits.captionsFile, "B.captions.json");
    doc.setCaptionsFile("  ");
    EXPECT_FALSE(edits.captionsFile);
}

TEST(PlimDocument, TheFirstLookChangeStartsFromTheSeedAndTheIPhoneShapeIsForPhonePlimsOnly)
{
    auto seeded = makeDocument();
    const PlimLook seed{.backdrop = PlimLook::Backdrop::stage, .padding = 0.1, .shadow = 0.4};
    seeded.setLookSeed(seed);
    seeded.setLook([](PlimLook& look) { look.shadow = 0.4; }); // as the seed already has it
    EXPECT_FALSE(seeded.canUndo() || seeded.edits().look);
    seeded.setLook([](PlimLook& look) { look.keys = false; });
    PlimLook changed = seed;
    changed.keys = false;
    EXPECT_EQ(seeded.edits().look, changed);
    seeded.undo();
    EXPECT_FALSE(seeded.canUndo() || seeded.edits().look);

    auto doc = makeDocument(10, false);

    EXPECT_EQ(refusal(doc.setShape(PlimLook::Shape::iPhone)), "The iPhone frame is for plims recorded from an iPhone. "
        "This plim came from your computer, so it keeps its shape.");
    EXPECT_FALSE(doc.isDirty());
    ASSERT_TRUE(doc.setShape(PlimLook::Shape::square));
    doc.applyLook(PlimLook{.shape = PlimLook::Shape::iPhone, .backdrop = PlimLook::Backdrop::ember});
    EXPECT_EQ(doc.edits().look, (PlimLook{.shape = PlimLook::Shape::square, .backdrop = PlimLook::Backdrop::ember}));
    auto phone = makeDocument(10, true);
    ASSERT_TRUE(phone.setShape(PlimLook::Shape::iPhone));
    EXPECT_EQ(phone.edits().look->shape, PlimLook::Shape::iPhone);
}

// The edits a new document starts from in the saving tests.
const auto firstEdit = [] { return PlimEdits{.plan = {.trimIn = 0.75}}; };

TEST(PlimDocument, AFileWithoutReadPermissionIsReportedAndSavingLeavesItByteForByte)
{
    if (rerunUnprivileged())
        return;
    TempDir dir;
    fs::path movie = dir / "B.mov", file = dir / "B.edits.json";
    const std::string locked = R"({"version": 2, "trimIn": 3})";
    writeText(file, locked);
    chmod(file.c_str(), 0);
    auto opened = PlimDocument::open(movie, 10, false, firstEdit);
    ASSERT_TRUE(opened.notice);
    EXPECT_EQ(std::pair(opened.editsFromFile, opened.notice->kind), std::pair(false, Error::Kind::unreadable));
    EXPECT_NE(opened.notice->sentence.find("B.edits.json is on disk but could not be read"), std::string::npos)
        << opened.notice->sentence;
    ASSERT_TRUE(opened.document->save());
    chmod(file.c_str(), 0644);
    EXPECT_EQ(readText(file), locked);
}

TEST(PlimDocument, SavesButNeverOverwritesARefusedOrUnreadableFileUntilEdited)
{
    TempDir dir;
    fs::path movie = dir / "B.mov", file = dir / "B.edits.json";
    for (auto [bytes, kind] : {std::pair(std::string(R"({"version": 3, "writtenBy": "Plim 9"})"), Error::Kind::refused),
             std::pair(std::string("{ not json"), Error::Kind::corrupt)}) {
        writeText(file, bytes);
        auto opened = PlimDocument::open(movie, 10, false, firstEdit);
        ASSERT_TRUE(opened.document && opened.notice);
        EXPECT_EQ(std::pair(opened.editsFromFile, opened.notice->kind), std::pair(false, kind));
        auto& doc = *opened.document;
        EXPECT_EQ(doc.edits().plan.trimIn, 0.75); // the automatic edit stands in
        ASSERT_TRUE(doc.save());
        EXPECT_EQ(readText(file), bytes);
        doc.setTrimIn(1.25); // an explicit edit and save replaces it
        ASSERT_TRUE(doc.save());
        EXPECT_FALSE(doc.isDirty());
        Json json = readJsonFile(file).value_or(Json());
        EXPECT_EQ(std::tuple(json["writtenBy"], json["version"], json["trimIn"]), std::tuple("Plim 0.1.0", 2, 1.25));
        auto again = PlimDocument::open(movie, 10, false);
        EXPECT_TRUE(again.editsFromFile && !again.notice);
    }

    fs::create_directory(dir / "C.edits.json"); // a folder where the file belongs
    auto doc = PlimDocument(dir / "C.mov", 10, false, PlimEdits{});
    doc.setTrimIn(2);
    auto saved = doc.save();
    auto failure = saved ? Error{} : saved.error();
    EXPECT_EQ(failure.sentence.rfind("Plim could not save the edits for C. ", 0), 0u);
    EXPECT_NE(failure.sentence.find(" Your changes are still open. Free some disk space or check that the plims folder "
                                    "can be written to, then edit again to save them."), std::string::npos);
    // The short form keeps only the reason the write gave.
    auto written = PlimEdits{}.write(dir / "C.mov", plimNameAndVersion());
    ASSERT_FALSE(written);
    EXPECT_EQ(doc.shortSaveSentence(failure), "Plim could not save this plim's edits: " + written.error().sentence);
    EXPECT_TRUE(doc.isDirty() && fs::is_directory(dir / "C.edits.json"));
}

TEST(PlimDocument, AnOlderStageLookComesAlongWhateverTheEditsFileHolds)
{
    TempDir dir;
    fs::path movie = dir / "B.mov", file = dir / "B.edits.json";
    const std::string stage = R"({"paddingPX": 80, "backdrop": "plum"})";
    writeText(dir / "B.stage.json", stage);
    // No edits file, a newer one, a damaged one, a readable one.
    for (auto [bytes, fromFile] : std::vector<std::pair<std::optional<std::string>, bool>>{{std::nullopt, false},
             {R"({"version": 3})", false}, {"{ not json", false}, {R"({"trimIn": 2})", true}}) {
        fs::remove(file);
        if (bytes)
            writeText(file, *bytes);
        auto opened = PlimDocument::open(movie, 10, false, firstEdit);
        EXPECT_EQ(std::tuple(opened.editsFromFile, opened.notice.has_value(), opened.document->edits().plim3Stage),
            std::tuple(fromFile, bytes && !fromFile, std::optional(Json::parse(stage))))
            << bytes.value_or("no edits file");
    }
    EXPECT_EQ(readText(dir / "B.stage.json"), stage);
}

TEST(PlimDocument, TheAutomaticEditComesFromTheCursorTrack)
{
    TempDir dir;
    CursorTrack track{.displayWidth = 1000, .displayHeight = 800};
    // Still until 2 s, then moving; two clicks close together at 4 s.
    for (int64_t t = 0; t <= 8000; t += 16)
        track.samples.push_back(CursorSample{t, t < 2000 ? 100 : 100 + (t - 2000) * 0.05, 300, 0});
    track.clicks = {ClickEvent{4000, 400, 300}, ClickEvent{4500, 420, 310}};
    ASSERT_TRUE(track.write(dir / "B.mov"));

    const PlimLook look{.backdrop = PlimLook::Backdrop::graphite, .zoomLevel = 3.0};
    const PlimEdits edits = PlimDocument::automaticEdit(dir / "B.mov", 8, look)();
    EXPECT_EQ(edits.look, look);
    EXPECT_GT(edits.plan.trimIn.value_or(0), 1.5); // the still start is trimmed
    EXPECT_LT(edits.plan.trimIn.value_or(0), 2.0);
    ASSERT_FALSE(edits.plan.zooms.empty());
    EXPECT_EQ(edits.plan.zooms[0].origin, ZoomBlock::Origin::clickCluster(2));
    EXPECT_EQ(edits.plan.zooms[0].scale, 3.0); // the look's level
    EXPECT_EQ(PlimDocument::automaticEdit(dir / "Other.mov", 8)(), PlimEdits{}); // no cursor track: empty edits
}
