#include "library/plim_document.h"
#include "base/dates.h"
#include "capture/cursor_track.h"
#include "testkit/testkit.h"

#include <cmath>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

PlimDocument makeDocument(double duration = 10, bool phone = false, PlimEdits edits = {})
{
    return PlimDocument("/nowhere/B.mov", duration, phone, std::move(edits));
}

PlimEdits withClips(std::vector<PlimClip> clips)
{
    PlimEdits e;
    e.plan.clips = std::move(clips);
    return e;
}

const std::string clipA = "7A4E0C11-0000-4000-8000-000000000010";
const std::string clipB = "7A4E0C11-0000-4000-8000-000000000011";

} // namespace

TEST(PlimDocument, ANoOpRecordsNothingAndLeavesTheDocumentClean)
{
    auto doc = makeDocument();
    int notified = 0;
    doc.setObserver([&] { ++notified; });
    doc.setTrimIn(0);            // already the start
    doc.setTrimIn(-4);           // clamps to the start
    doc.setTrimOut(std::nan("")); // not finite
    doc.setZoomLevel("no-such-zoom", 2);
    doc.removeBlur("no-such-blur");
    doc.setShape(PlimLook::Shape::landscape); // the usual look already
    EXPECT_FALSE(doc.canUndo());
    EXPECT_FALSE(doc.isDirty());
    EXPECT_EQ(doc.edits(), PlimEdits{});
    EXPECT_EQ(notified, 0);

    doc.setTrimIn(2);
    EXPECT_TRUE(doc.canUndo());
    EXPECT_TRUE(doc.isDirty());
    EXPECT_EQ(notified, 1);
    doc.setTrimIn(2);
    EXPECT_EQ(doc.undoStack().size(), 1u);
}

TEST(PlimDocument, UndoKeepsEightyStepsAndRedoRetraces)
{
    auto doc = makeDocument(1000);
    for (int i = 1; i <= 81; ++i)
        doc.setTrimIn(i);
    EXPECT_EQ(doc.undoStack().size(), 80u);
    EXPECT_EQ(doc.edits().plan.trimIn, 81);

    int undone = 0;
    while (doc.canUndo()) {
        doc.undo();
        ++undone;
    }
    EXPECT_EQ(undone, 80);
    // The untouched state was the oldest and was dropped: the first change remains.
    EXPECT_EQ(doc.edits().plan.trimIn, 1);
    EXPECT_EQ(doc.redoStack().size(), 80u);
    doc.undo(); // nothing left: no change
    EXPECT_EQ(doc.edits().plan.trimIn, 1);

    doc.redo();
    doc.redo();
    EXPECT_EQ(doc.edits().plan.trimIn, 3);
    // A new change clears what could be redone.
    doc.setTrimIn(50);
    EXPECT_FALSE(doc.canRedo());
    doc.undo();
    EXPECT_EQ(doc.edits().plan.trimIn, 3);
}

TEST(PlimDocument, AGestureIsOneUndoStep)
{
    auto doc = makeDocument(30);
    auto zoom = doc.addZoom(5, 0.5, 0.5);
    ASSERT_TRUE(zoom);
    const PlimEdits beforeDrag = doc.edits();
    ASSERT_EQ(doc.undoStack().size(), 1u);

    doc.beginGesture();
    doc.setZoomSpan(*zoom, 5, 7); // same as now: no-op
    for (int frame = 1; frame <= 60; ++frame)
        doc.setZoomSpan(*zoom, 5 + frame * 0.1, 7 + frame * 0.1);
    doc.beginGesture(); // a second begin keeps the first start
    doc.setZoomSpan(*zoom, 12, 14);
    EXPECT_EQ(*doc.gestureStart(), beforeDrag);
    doc.endGesture();
    EXPECT_FALSE(doc.gestureStart());

    EXPECT_EQ(doc.undoStack().size(), 2u);
    EXPECT_EQ(doc.edits().plan.zooms[0].start, 12);
    doc.undo();
    EXPECT_EQ(doc.edits(), beforeDrag);

    // After the gesture, each change is its own step again.
    doc.setZoomSpan(*zoom, 1, 3);
    doc.setZoomSpan(*zoom, 2, 4);
    EXPECT_EQ(doc.undoStack().size(), 3u);
}

TEST(PlimDocument, TrimsKeepHalfASecondAndStayInsideTheRecording)
{
    auto doc = makeDocument(10);
    doc.setTrimIn(4);
    EXPECT_EQ(doc.edits().plan.trimIn, 4);
    doc.setTrimOut(2);
    EXPECT_EQ(doc.edits().plan.trimOut, 4.5);
    doc.setTrimIn(9);
    EXPECT_EQ(doc.edits().plan.trimIn, 4.0);
    doc.setTrimOut(25);
    EXPECT_EQ(doc.edits().plan.trimOut, 10);
    doc.setTrimIn(-1);
    EXPECT_EQ(doc.edits().plan.trimIn, 0);

    auto tiny = makeDocument(0.3);
    tiny.setTrimIn(0.2);
    EXPECT_FALSE(tiny.edits().plan.trimIn); // nothing to trim: never below 0
}

TEST(PlimDocument, TrimsMoveTheOuterClipEdgesWhenThePlanHasClips)
{
    auto doc = makeDocument(20, false, withClips({{clipA, 2, 6}, {clipB, 10, 15}}));
    doc.setTrimIn(5.8);
    EXPECT_EQ(doc.edits().plan.clips->at(0).start, 5.5);
    doc.setTrimOut(30);
    EXPECT_EQ(doc.edits().plan.clips->at(1).end, 20);
    doc.setClipEnd(clipB, 1);
    EXPECT_EQ(doc.edits().plan.clips->at(1).end, 10.5);
    doc.setClipStart(clipB, -5);
    EXPECT_EQ(doc.edits().plan.clips->at(1).start, 0);
    EXPECT_FALSE(doc.edits().plan.trimIn);
    EXPECT_FALSE(doc.edits().plan.trimOut);
}

TEST(PlimDocument, ClipsSplitMoveAndDeleteWithTheirRefusals)
{
    auto doc = makeDocument(20, false, withClips({{clipA, 0, 4}, {clipB, 10, 16}}));
    // Output 6 is 2 s into the second clip: raw 12.
    auto split = doc.splitClip(6);
    ASSERT_TRUE(split.succeeded()) << *split.refusal;
    EXPECT_EQ(split.leftID, clipB);
    auto clips = *doc.edits().plan.clips;
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(clips[1], (PlimClip{clipB, 10, 12}));
    EXPECT_EQ(clips[2], (PlimClip{split.rightID, 12, 16}));
    EXPECT_TRUE(isUuid(split.rightID));

    const PlimEdits beforeRefusals = doc.edits();
    auto nearEnd = doc.splitClip(4.2);
    EXPECT_EQ(nearEnd.refusal, splitNearEndSentence());
    EXPECT_EQ(*nearEnd.refusal, "Move the playhead away from the clip's ends to cut there.");
    auto offClip = doc.splitClip(40);
    EXPECT_EQ(offClip.refusal, "Move the playhead onto a clip to cut it there.");
    EXPECT_EQ(doc.edits(), beforeRefusals);

    doc.moveClip(split.rightID, 0);
    EXPECT_EQ(doc.edits().plan.clips->front().id, split.rightID);
    doc.moveClip(split.rightID, 99);
    EXPECT_EQ(doc.edits().plan.clips->back().id, split.rightID);

    ASSERT_TRUE(doc.deleteClip(clipA));
    ASSERT_TRUE(doc.deleteClip(clipB));
    auto last = doc.deleteClip(split.rightID);
    ASSERT_FALSE(last);
    EXPECT_EQ(last.error().sentence, "A plim keeps at least one clip. Trim it with the yellow ends instead.");
    EXPECT_EQ(doc.edits().plan.clips->size(), 1u);
}

TEST(PlimDocument, SplittingATrimmedPlanTurnsItsKeptStretchesIntoClips)
{
    PlimEdits e;
    e.plan.trimIn = 1;
    e.plan.trimOut = 9;
    auto doc = makeDocument(10, false, e);
    auto implicit = doc.clips();
    ASSERT_EQ(implicit.size(), 1u);
    EXPECT_EQ(implicit[0], (PlimClip{PlimClip::idForNumber(0), 1, 9}));

    auto split = doc.splitClip(3); // output 3 = raw 4
    ASSERT_TRUE(split.succeeded()) << *split.refusal;
    ASSERT_TRUE(doc.edits().plan.clips);
    EXPECT_EQ(*doc.edits().plan.clips,
        (std::vector<PlimClip>{{PlimClip::idForNumber(0), 1, 4}, {split.rightID, 4, 9}}));
    doc.undo();
    EXPECT_FALSE(doc.edits().plan.clips);
}

TEST(PlimDocument, BlurBoxesMoveHalfOutButResizeOnlyInside)
{
    auto doc = makeDocument(10);
    auto id = doc.addBlur(8.5);
    ASSERT_TRUE(id);
    const MaskRegion& mask = doc.edits().plan.masks.at(0);
    EXPECT_EQ(mask.start, 7);
    EXPECT_EQ(mask.end, 10);

    doc.moveBlur(*id, 2, -1);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].x, 0.85);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].y, -0.15);

    doc.resizeBlur(*id, 5, 0.001);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].w, 0.15); // up to the right edge
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].h, 0.02);

    doc.moveBlur(*id, 0.99, 0.5); // w is now 0.15: centre stays inside
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].x, 0.925);
    doc.resizeBlur(*id, 0.5, 0.5);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].w, 0.075);
    doc.resizeBlur(*id, 0, 0.5);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].w, 0.02);
    doc.moveBlur(*id, 0.999, 0.5);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].x, 0.99);
    doc.resizeBlur(*id, 0.5, 0.5);
    EXPECT_DOUBLE_EQ(doc.edits().plan.masks[0].w, 0.02); // 0.01 left to the edge, but never below 0.02

    doc.setBlurSpan(*id, 6, 2);
    EXPECT_EQ(doc.edits().plan.masks[0].start, 2);
    EXPECT_EQ(doc.edits().plan.masks[0].end, 6);
    doc.removeBlur(*id);
    EXPECT_TRUE(doc.edits().plan.masks.empty());
}

TEST(PlimDocument, ZoomsAimFollowAndClamp)
{
    auto doc = makeDocument(10);
    auto id = doc.addZoom(9.5, 1.7, -2);
    ASSERT_TRUE(id);
    ZoomBlock block = doc.edits().plan.zooms.at(0);
    EXPECT_EQ(block.start, 8);
    EXPECT_EQ(block.end, 10);
    EXPECT_EQ(block.centerX, 1);
    EXPECT_EQ(block.centerY, 0);
    EXPECT_EQ(block.origin, ZoomBlock::Origin::mark());

    auto follow = [](double t) { return std::optional<PlimDocument::Point>({t / 10, 0.25}); };
    doc.moveZoom(*id, 2, follow);
    block = doc.edits().plan.zooms.at(0);
    EXPECT_EQ(block.start, 2);
    EXPECT_EQ(block.end, 4);
    EXPECT_DOUBLE_EQ(block.centerX, 0.3);

    doc.aimZoom(*id, 0.6, 0.4);
    EXPECT_TRUE(doc.edits().isAimed(*id));
    doc.moveZoom(*id, 20, follow); // aimed by hand: keeps its target
    block = doc.edits().plan.zooms.at(0);
    EXPECT_EQ(block.start, 8);
    EXPECT_DOUBLE_EQ(block.centerX, 0.6);

    doc.setZoomLevel(*id, 9);
    EXPECT_EQ(doc.edits().plan.zooms[0].scale, PlimDocument::maximumZoomLevel);
    doc.setZoomLevel(*id, 0.2);
    EXPECT_EQ(doc.edits().plan.zooms[0].scale, 1.0);
    doc.setZoomSpan(*id, 3, 3.1);
    EXPECT_EQ(doc.edits().plan.zooms[0].end - doc.edits().plan.zooms[0].start, 0.5);

    doc.removeZoom(*id);
    EXPECT_TRUE(doc.edits().plan.zooms.empty());
    EXPECT_TRUE(doc.edits().aimedZooms.empty());
}

TEST(PlimDocument, PausesAreStoredInWholeMilliseconds)
{
    auto doc = makeDocument(10);
    doc.skip(SkipDecision{{4, 6}, false, 4.0});
    doc.skip(SkipDecision{{4, 6}, true, 4.0}); // same identity: replaced
    ASSERT_EQ(doc.edits().plan.skips.size(), 1u);
    EXPECT_TRUE(doc.edits().plan.skips[0].keep);

    doc.setPauseSpeed("skip-4000", 100);
    EXPECT_EQ(doc.edits().plan.skips[0].rate, PlimDocument::maximumPauseSpeed);
    doc.setPauseSpan("skip-4000", 4.12345, 6.0009);
    EXPECT_DOUBLE_EQ(doc.edits().plan.skips[0].span.start, 4.123);
    EXPECT_DOUBLE_EQ(doc.edits().plan.skips[0].span.end, 6.0);
    EXPECT_EQ(doc.edits().plan.skips[0].identity(), "skip-4123");

    doc.skip(SkipDecision{{1, 2}, false, std::nan("")});
    EXPECT_EQ(doc.edits().plan.skips.size(), 1u);
}

TEST(PlimDocument, VoiceoversAndCaptions)
{
    auto doc = makeDocument(10);
    auto id = doc.addVoiceover(PlimEdits::Voiceover{"", 2, 3, "voice.m4a", 0.2});
    ASSERT_TRUE(id);
    EXPECT_TRUE(isUuid(*id));
    doc.moveVoiceover(*id, 9);
    EXPECT_EQ(doc.edits().voiceovers[0].start, 7);
    doc.moveVoiceover(*id, -3);
    EXPECT_EQ(doc.edits().voiceovers[0].start, 0);
    auto second = doc.addVoiceover(PlimEdits::Voiceover{*id, 1, 1, "other.m4a", 0.2});
    ASSERT_TRUE(second);
    EXPECT_NE(*second, *id); // a taken id gets a new one
    doc.removeVoiceover(*id);
    ASSERT_EQ(doc.edits().voiceovers.size(), 1u);

    doc.setCaptionsFile("B.captions.json");
    EXPECT_EQ(doc.edits().captionsFile, "B.captions.json");
    doc.setCaptionsFile("  ");
    EXPECT_FALSE(doc.edits().captionsFile);
}

TEST(PlimDocument, TheIPhoneShapeIsForPhonePlimsOnly)
{
    auto doc = makeDocument(10, false);
    auto refused = doc.setShape(PlimLook::Shape::iPhone);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().sentence, refusedShapeSentence());
    EXPECT_FALSE(doc.isDirty());

    ASSERT_TRUE(doc.setShape(PlimLook::Shape::square));
    EXPECT_EQ(doc.edits().look->shape, PlimLook::Shape::square);
    PlimLook phoneLook;
    phoneLook.shape = PlimLook::Shape::iPhone;
    phoneLook.backdrop = PlimLook::Backdrop::ember;
    doc.applyLook(phoneLook);
    EXPECT_EQ(doc.edits().look->shape, PlimLook::Shape::square);
    EXPECT_EQ(doc.edits().look->backdrop, PlimLook::Backdrop::ember);
    doc.setLook([](PlimLook& look) { look.zoomBlur = true; });
    EXPECT_TRUE(doc.edits().look->zoomBlur);

    auto phone = makeDocument(10, true);
    ASSERT_TRUE(phone.setShape(PlimLook::Shape::iPhone));
    EXPECT_EQ(phone.edits().look->shape, PlimLook::Shape::iPhone);
}

TEST(PlimDocument, SavesWithThisApplicationAsWriter)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    auto opened = PlimDocument::open(movie, 10, false);
    ASSERT_TRUE(opened.document);
    EXPECT_EQ(opened.source, PlimEdits::ReadResult::Kind::none);
    auto& doc = *opened.document;
    doc.setTrimIn(1.25);
    ASSERT_TRUE(doc.save());
    EXPECT_FALSE(doc.isDirty());
    auto json = readJsonFile(dir / "B.edits.json");
    ASSERT_TRUE(json);
    EXPECT_EQ((*json)["writtenBy"], "Plim 0.1.0");
    EXPECT_EQ((*json)["version"], 2);
    EXPECT_EQ((*json)["trimIn"], 1.25);

    auto again = PlimDocument::open(movie, 10, false);
    EXPECT_EQ(again.source, PlimEdits::ReadResult::Kind::edits);
    EXPECT_EQ(again.document->edits().plan.trimIn, 1.25);
}

TEST(PlimDocument, AFailedSaveKeepsTheChangesOpen)
{
    TempDir dir;
    fs::create_directory(dir / "B.edits.json"); // a folder where the file belongs
    auto doc = PlimDocument(dir / "B.mov", 10, false, PlimEdits{});
    doc.setTrimIn(2);
    auto saved = doc.save();
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error().sentence.rfind("Plim could not save the edits for B. ", 0), 0u);
    EXPECT_NE(saved.error().sentence.find(" Your changes are still open. Free some disk space or check that the plims "
                                          "folder can be written to, then edit again to "),
        std::string::npos);
    EXPECT_EQ(saved.error().shortSentence.rfind("Plim could not save this plim's edits: ", 0), 0u);
    EXPECT_TRUE(doc.isDirty());
    EXPECT_EQ(doc.edits().plan.trimIn, 2);
    EXPECT_TRUE(fs::is_directory(dir / "B.edits.json"));
}

TEST(PlimDocument, OpeningNeverOverwritesARefusedOrUnreadableFile)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    auto firstEdit = [] {
        PlimEdits e;
        e.plan.trimIn = 0.75;
        return e;
    };
    for (std::string bytes : {std::string(R"({"version": 3, "writtenBy": "Plim 9"})"), std::string("{ not json")}) {
        SCOPED_TRACE(bytes);
        writeText(dir / "B.edits.json", bytes);
        auto opened = PlimDocument::open(movie, 10, false, firstEdit);
        ASSERT_TRUE(opened.document);
        ASSERT_TRUE(opened.notice);
        EXPECT_NE(opened.source, PlimEdits::ReadResult::Kind::edits);
        auto& doc = *opened.document;
        EXPECT_EQ(doc.edits().plan.trimIn, 0.75); // the automatic edit stands in
        EXPECT_TRUE(doc.protectsFileOnDisk());
        ASSERT_TRUE(doc.save());
        EXPECT_EQ(readText(dir / "B.edits.json"), bytes);

        // An explicit edit and save replaces it.
        doc.setTrimIn(1);
        EXPECT_FALSE(doc.protectsFileOnDisk());
        ASSERT_TRUE(doc.save());
        auto json = readJsonFile(dir / "B.edits.json");
        ASSERT_TRUE(json);
        EXPECT_EQ((*json)["version"], 2);
        EXPECT_EQ((*json)["trimIn"], 1);
    }

    if (geteuid() != 0) {
        const std::string locked = R"({"version": 2, "trimIn": 3})";
        writeText(dir / "B.edits.json", locked);
        chmod((dir / "B.edits.json").c_str(), 0);
        auto opened = PlimDocument::open(movie, 10, false, firstEdit);
        EXPECT_EQ(opened.source, PlimEdits::ReadResult::Kind::unreadable);
        ASSERT_TRUE(opened.document->save());
        chmod((dir / "B.edits.json").c_str(), 0644);
        EXPECT_EQ(readText(dir / "B.edits.json"), locked);
    }
}

TEST(PlimDocument, APlimWithoutUsableEditsStartsFromItsAutomaticEdit)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    CursorTrack track;
    track.displayWidth = 1000;
    track.displayHeight = 800;
    // Still until 2 s, then moving; two clicks close together at 4 s.
    for (int64_t t = 0; t <= 8000; t += 16) {
        double x = t < 2000 ? 100 : 100 + (t - 2000) * 0.05;
        track.samples.push_back(CursorSample{t, x, 300, 0});
    }
    track.clicks = {ClickEvent{4000, 400, 300}, ClickEvent{4500, 420, 310}};
    ASSERT_TRUE(track.write(movie));
    writeText(dir / "B.edits.json", "{ damaged");

    PlimLook look;
    look.backdrop = PlimLook::Backdrop::graphite;
    auto opened = PlimDocument::open(movie, 8, false, PlimDocument::automaticEdit(movie, 8, look));
    ASSERT_TRUE(opened.document);
    EXPECT_EQ(opened.source, PlimEdits::ReadResult::Kind::unreadable);
    const PlimEdits& edits = opened.document->edits();
    EXPECT_EQ(edits.look, look);
    ASSERT_TRUE(edits.plan.trimIn);
    EXPECT_GT(*edits.plan.trimIn, 1.5); // the still start is trimmed
    EXPECT_LT(*edits.plan.trimIn, 2.0);
    ASSERT_FALSE(edits.plan.zooms.empty());
    const ZoomBlock& zoom = edits.plan.zooms[0];
    EXPECT_EQ(zoom.origin, ZoomBlock::Origin::clickCluster(2));
    EXPECT_LT(zoom.start, 4.0);
    EXPECT_GT(zoom.end, 4.5);
    EXPECT_EQ(readText(dir / "B.edits.json"), "{ damaged");

    // No cursor track: empty edits.
    auto bare = PlimDocument::automaticEdit(dir / "Other.mov", 8)();
    EXPECT_EQ(bare, PlimEdits{});
}
