// The editor driven with real input on the test's X server: a plim with a pointer track
// opens with its automatic edit, its trim end and zoom block are dragged on the timeline,
// a blur box is drawn on the preview, and three undos take each back, the edits file read
// back with the document's own reader after every step and the preview's picture checked
// where the box lies. The inspector shows what the plim's stage look wears where its own look
// chooses nothing, the first change keeps the rest of the staged look, and its controls,
// clicked and keyed, reach the edits file and the preview.
// A plim's caption lines show on the timeline at their times and, switched on, in the
// preview. Edits and caption files that cannot be read are said and stay as they were.
// Generate captions transcribes a spoken plim off the GUI thread and shows the result.

#include "app/voiceover_take.h"
#include "base/files.h"
#include "captions/caption_track.h"
#include "captions/speech_plims.h"
#include "library/plim_document.h"
#include "library/plim_edits.h"
#include "stage/stage_spec.h"
#include "testkit/servers.h"
#include "testkit/test_movies.h"
#include "testkit/testkit.h"
#include "ui/editor_blur_overlay.h"
#include "ui/editor_window.h"
#include "ui/inspector.h"
#include "ui/preview_view.h"
#include "ui/timeline_view.h"
#include "wait_until.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QTest>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

using namespace plim;
using namespace plim::testkit;

namespace {

// A drag with the button held, in small steps as a hand makes it.
void drag(QWidget* widget, QPointF from, QPointF to)
{
    QTest::mousePress(widget, Qt::LeftButton, {}, from.toPoint());
    for (int i = 1; i <= 8; ++i) {
        const QPointF at = from + (to - from) * (i / 8.0);
        QTest::mouseMove(widget, at.toPoint());
        QTest::qWait(10);
    }
    QTest::mouseRelease(widget, Qt::LeftButton, {}, to.toPoint());
}

PlimEdits editsOnDisk(const fs::path& movie)
{
    auto read = PlimEdits::read(movie);
    EXPECT_TRUE(read && read->value) << (read ? "no edits file" : read.error().sentence);
    return read && read->value ? *read->value : PlimEdits{};
}

// The edits on disk once the editor has saved what it holds.
PlimEdits savedEdits(EditorWindow& window)
{
    window.saveNow();
    return editsOnDisk(window.document()->movieURL());
}

// How much the picture varies over a rectangle: the spread of its green channel, which the
// movie fills with noise and a blur box evens out.
double spread(const QImage& image, QRect area)
{
    area = area.intersected(image.rect());
    if (area.isEmpty())
        return -1;
    double sum = 0, squares = 0;
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const double g = qGreen(image.pixel(x, y));
            sum += g;
            squares += g * g;
            ++count;
        }
    const double mean = sum / count;
    return std::sqrt(std::max(0.0, squares / count - mean * mean));
}

// The part of the shown frame that a rectangle of the preview widget covers: the frame is
// fitted into the widget, centred.
QRect inFrame(const PreviewView& preview, const QImage& frame, QRectF widgetArea)
{
    const QSizeF fitted = QSizeF(frame.size()).scaled(QSizeF(preview.size()), Qt::KeepAspectRatio);
    const QPointF origin((preview.width() - fitted.width()) / 2, (preview.height() - fitted.height()) / 2);
    const double scale = frame.width() / fitted.width();
    return QRectF((widgetArea.topLeft() - origin) * scale, widgetArea.size() * scale).toRect();
}

// How many pixels differ clearly between two pictures of one size (none when the sizes differ).
int changedPixels(const QImage& a, const QImage& b)
{
    if (a.size() != b.size())
        return 0;
    int count = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            count += std::abs(qRed(p) - qRed(q)) + std::abs(qGreen(p) - qGreen(q)) + std::abs(qBlue(p) - qBlue(q)) > 60;
        }
    return count;
}

// The preview's picture at an output time, once drawn there at the widget's size.
QImage frameAt(PreviewView& preview, double outputTime)
{
    preview.seek(outputTime);
    auto drawn = [&] {
        const QSize shown = preview.shownFrame().size();
        return std::abs(preview.position() - outputTime) < 0.05
            && (std::abs(shown.width() - preview.width()) <= 2 || std::abs(shown.height() - preview.height()) <= 2);
    };
    EXPECT_TRUE(waitUntil(drawn, 10)) << "the preview never drew " << outputTime << " s at its size";
    QTest::qWait(100); // the exact frame, after a near one
    return preview.shownFrame();
}

// A plim movie with a pointer track.
fs::path trackedPlim(const fs::path& movie, const TestMovie& source)
{
    EXPECT_TRUE(writeTestMovie(movie, source));
    EXPECT_TRUE(testTrack(source).write(movie));
    return movie;
}

// The editor on `movie`, shown and active once its plim is read and the preview shows a
// picture; null, the failure recorded, when it never gets there.
std::unique_ptr<EditorWindow> openEditor(const fs::path& movie, std::function<void(const fs::path&)> share = {})
{
    auto window = std::make_unique<EditorWindow>(EditorWindow::Opening{movie}, std::move(share),
        movie.parent_path() / "looks.json");
    window->setAttribute(Qt::WA_DeleteOnClose, false);
    window->resize(1280, 720);
    window->show();
    window->activateWindow();
    if (!QTest::qWaitForWindowActive(window.get())
        || !waitUntil([&] { return window->document() && window->preview()->framesShown() > 0; }, 30)) {
        ADD_FAILURE() << "the editor did not open: " << window->status().toStdString();
        return nullptr;
    }
    return window;
}

// Whether the timeline draws a caption block at movie time `t` (above its words).
bool captionBlockAt(TimelineView& timeline, double t)
{
    const QImage image = timeline.grab().toImage();
    return image.pixelColor(int(timeline.xOf(t)), timeline.laneRect(TimelineView::Lane::captions).top() + 3).blue() > 0x40;
}

// Each test's editor runs in a home of its own, its plim in a folder of its own.
struct Editor : ::testing::Test {
    XdgSandbox sandbox;
    TempDir folder;
};

} // namespace

TEST_F(Editor, DragsTrimZoomAndBlurOneUndoStepEachAndUndoesThemInTurn)
{
    const fs::path movie = folder / "Editing.mov";
    const TestMovie source{.width = 480, .height = 300, .duration = 8, .colors = {{0, 0x406080}}, .noise = true};
    ASSERT_TRUE(writeTestMovie(movie, source));
    // The pointer rests for a second, then crosses the picture and clicks twice in the middle.
    CursorTrack track = testTrack(source);
    for (auto& sample : track.samples)
        if (sample.t < 1000) {
            sample.x = source.width * 0.2;
            sample.y = source.height * 0.5;
        }
    track.clicks = {{3900, 240, 150}, {4300, 250, 160}};
    ASSERT_TRUE(track.write(movie));

    std::vector<fs::path> shared;
    auto opened = openEditor(movie, [&](const fs::path& m) { shared.push_back(m); });
    ASSERT_TRUE(opened);
    EditorWindow& window = *opened;
    PlimDocument& document = *window.document();
    TimelineView& timeline = *window.timeline();
    PreviewView& preview = *window.preview();
    EXPECT_FALSE(window.isReadOnly());

    // A plim seen for the first time keeps its automatic edit: a trim and a zoom where it was clicked.
    PlimEdits start = editsOnDisk(movie);
    EXPECT_EQ(start.plan, document.edits().plan);
    ASSERT_EQ(start.plan.zooms.size(), 1u);
    const double trimIn = start.plan.trimIn.value_or(0);
    EXPECT_GT(trimIn, 0.5);
    EXPECT_FALSE(document.canUndo());

    // 1. The left trim end, dragged 50 pixels right.
    const QRect clips = timeline.laneRect(TimelineView::Lane::clips);
    const QPointF trimHandle(timeline.xOf(trimIn) + 2, clips.center().y());
    drag(&timeline, trimHandle, trimHandle + QPointF(50, 0));
    PlimEdits trimmed = savedEdits(window);
    EXPECT_NEAR(trimmed.plan.trimIn.value_or(0), trimIn + 48 * timeline.secondsPerPixel(), 3 * timeline.secondsPerPixel());
    EXPECT_EQ(trimmed.plan.zooms, start.plan.zooms);
    EXPECT_EQ(document.undoStack().size(), 1u) << "a drag is one undo step";

    // 2. The zoom block, dragged by its middle 60 pixels right: it moves whole.
    const ZoomBlock zoom = trimmed.plan.zooms[0];
    const QRect zooms = timeline.laneRect(TimelineView::Lane::zooms);
    const QPointF middle(timeline.xOf((zoom.start + zoom.end) / 2), zooms.center().y());
    drag(&timeline, middle, middle + QPointF(60, 0));
    PlimEdits zoomed = savedEdits(window);
    ASSERT_EQ(zoomed.plan.zooms.size(), 1u);
    EXPECT_GT(zoomed.plan.zooms[0].start, zoom.start + 40 * timeline.secondsPerPixel());
    EXPECT_NEAR(zoomed.plan.zooms[0].end - zoomed.plan.zooms[0].start, zoom.end - zoom.start, 1e-6);
    EXPECT_EQ(zoomed.plan.trimIn, trimmed.plan.trimIn);
    EXPECT_EQ(document.undoStack().size(), 2u);

    // 3. A blur box drawn across the middle of the picture, where the noise is.
    ASSERT_TRUE(waitUntil([&] { return preview.widgetPointOf({0, 0}) && preview.widgetPointOf({480, 300}); }));
    const QPointF topLeft = *preview.widgetPointOf({180, 100});
    const QPointF bottomRight = *preview.widgetPointOf({300, 200});
    const QRectF box(topLeft, bottomRight);
    const QRectF inner = box.adjusted(box.width() * 0.2, box.height() * 0.2, -box.width() * 0.2, -box.height() * 0.2);
    auto boxSpread = [&] { return spread(preview.shownFrame(), inFrame(preview, preview.shownFrame(), inner)); };
    const double noisy = boxSpread();
    EXPECT_GT(noisy, 20) << "the movie's noise shows before the box";
    window.drawBlurBox();
    drag(window.blurOverlay(), topLeft, bottomRight);
    PlimEdits blurred = savedEdits(window);
    ASSERT_EQ(blurred.plan.masks.size(), 1u);
    const MaskRegion& mask = blurred.plan.masks[0];
    EXPECT_NEAR(mask.x, 180.0 / 480, 0.02);
    EXPECT_NEAR(mask.y, 100.0 / 300, 0.02);
    EXPECT_NEAR(mask.w, 120.0 / 480, 0.02);
    EXPECT_NEAR(mask.h, 100.0 / 300, 0.02);
    EXPECT_EQ(document.undoStack().size(), 3u) << "drawing a box is one undo step";
    EXPECT_TRUE(waitUntil([&] { return boxSpread() < noisy / 3; }, 20)) << "the preview blurs where the box lies";
    keepShot(window, "editor");

    // Three undos from the keyboard take the drags back on disk and in the preview.
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(savedEdits(window).plan, zoomed.plan);
    EXPECT_TRUE(waitUntil([&] { return boxSpread() > noisy * 0.7; })) << "the box's blur went with its undo";
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(savedEdits(window).plan, start.plan);
    EXPECT_FALSE(document.canUndo());
    EXPECT_TRUE(document.canRedo());

    window.findChild<QWidget*>("share")->setFocus();
    QTest::mouseClick(window.findChild<QWidget*>("share"), Qt::LeftButton);
    EXPECT_EQ(shared, std::vector<fs::path>{movie});
}

TEST_F(Editor, ShowsTheStagedLookAndCaptionLinesAndTheInspectorReachesTheEditsFileAndThePreview)
{
    const TestMovie source{.width = 480, .height = 270, .duration = 3}; // 16:9, which the 16:10 layout reshapes
    const fs::path movie = trackedPlim(folder / "Look.mov", source);
    // The stage look beside the movie, which the plim's edits wear no look over yet: a slate
    // backdrop, a card in pixels, a stronger shadow, spotlight clicks in amber and a pointer at 150 %.
    const StageSpec stage{.backdrop = StageSpec::Backdrop::named(StageSpec::Backdrop::Named::slate),
        .paddingPX = 120,
        .cornersPX = 30,
        .shadowPercent = 60,
        .cursorSize = 150,
        .clickStyle = ClickStyle::spotlight,
        .clickTint = ClickTint::amber};
    ASSERT_TRUE(StageSpecFile::write(sidecarPath(movie, PlimFiles::stage), stage));
    const CaptionTrack captions{{{"Open the settings window and then press save", 0.0, 1.6}, {"Done", 2.0, 2.9}}};
    ASSERT_TRUE(writeJsonAtomic(CaptionTrack::fileBeside(movie), captions.toJson()));

    auto opened = openEditor(movie);
    ASSERT_TRUE(opened);
    EditorWindow& window = *opened;
    PreviewView& preview = *window.preview();
    TimelineView& timeline = *window.timeline();
    auto aspect = [&] { return double(preview.shownFrame().width()) / std::max(1, preview.shownFrame().height()); };
    EXPECT_NEAR(aspect(), 16.0 / 9, 0.02);
    auto* scroll = window.findChild<Inspector*>()->findChild<QScrollArea*>();
    auto reach = [&](const char* name) {
        auto* widget = window.findChild<QWidget*>(name);
        EXPECT_TRUE(widget) << name;
        if (widget) {
            scroll->ensureWidgetVisible(widget);
            QTest::qWait(20);
        }
        return widget;
    };
    auto* amber = window.findChild<QAbstractButton*>("tint_amber");
    ASSERT_TRUE(amber);
    EXPECT_TRUE(waitUntil([&] { return amber->isChecked(); }, 5)) << "the inspector shows the staged tint, not white";
    EXPECT_EQ(window.findChild<QSlider*>("pointerSize")->value(), 15);
    EXPECT_TRUE(window.findChild<QAbstractButton*>("click_spotlight")->isChecked());
    EXPECT_TRUE(window.findChild<QAbstractButton*>("backdrop_stage")->isChecked());
    EXPECT_EQ(window.findChild<QSlider*>("shadow")->value(), 6);
    if (const char* shots = std::getenv("PLIM_UI_SHOTS")) {
        reach("click_spotlight");
        window.findChild<Inspector*>()->grab().save(QString::fromStdString((fs::path(shots) / "inspector-spotlight.png").string()));
    }

    // The first look change wears the stage look with that one change: the card keeps its
    // place, corners and shadow on the slate backdrop, and the picture does not move.
    const QImage staged = frameAt(preview, 0);
    const int64_t drawn = preview.framesShown();
    if (QWidget* dot = reach("click_highlight"))
        QTest::mouseClick(dot, Qt::LeftButton);
    const auto seeded = savedEdits(window).look;
    ASSERT_TRUE(seeded);
    EXPECT_EQ(seeded->clickStyle, PlimLook::ClickStyle::highlight);
    EXPECT_EQ(seeded->backdrop, PlimLook::Backdrop::stage);
    // 120 and 30 px of a 1280-wide canvas on the 1920 x 1080 one: 180 px of its height around
    // a card 1280 px wide, rounded 45 px.
    EXPECT_NEAR(seeded->padding, 180.0 / 1080, 1e-9);
    EXPECT_NEAR(seeded->corners, 45.0 / 1280, 1e-9);
    EXPECT_NEAR(seeded->shadow, 0.6, 1e-9);
    EXPECT_TRUE(waitUntil([&] { return preview.framesShown() > drawn; }, 5)) << "the preview was drawn again";
    EXPECT_EQ(changedPixels(staged, frameAt(preview, 0)), 0);

    if (QWidget* wide = reach("shape_16:10"))
        QTest::mouseClick(wide, Qt::LeftButton);
    EXPECT_TRUE(waitUntil([&] { return std::abs(aspect() - 1.6) < 0.02; }, 10)) << "the preview shows 16:10: " << aspect();
    // The caption lines lie on the timeline at their times; switched on, the preview shows them.
    EXPECT_TRUE(captionBlockAt(timeline, 0.8));
    EXPECT_FALSE(captionBlockAt(timeline, 1.8));
    EXPECT_TRUE(captionBlockAt(timeline, 2.5));
    const QImage uncaptioned = frameAt(preview, timeline.remap().output(0.8));
    if (QWidget* on = reach("captions"))
        QTest::mouseClick(on, Qt::LeftButton, {}, QPoint(8, on->height() / 2));
    EXPECT_TRUE(waitUntil([&] { return changedPixels(uncaptioned, preview.shownFrame()) > 300; }, 10))
        << "the preview shows the caption line";

    if (QWidget* size = reach("pointerSize")) {
        size->setFocus();
        QTest::keyClick(size, Qt::Key_PageUp); // a page is 100 %, from the staged 150 %
    }
    const PlimEdits saved = savedEdits(window);
    ASSERT_TRUE(saved.look);
    EXPECT_TRUE(saved.look->captions);
    EXPECT_EQ(saved.look->shape, PlimLook::Shape::wide);
    EXPECT_TRUE(saved.look->clickRings);
    EXPECT_EQ(saved.look->clickStyle, PlimLook::ClickStyle::highlight);
    EXPECT_EQ(saved.look->pointerSize, 250);
    EXPECT_FALSE(saved.look->clickTint) << "a value shown from the stage look is not chosen by showing it";
    EXPECT_EQ(window.document()->undoStack().size(), 4u);
    keepShot(window, "editor-look");
}

TEST_F(Editor, SaysEditsAndCaptionFilesThatCannotBeReadAndLeavesThemAsTheyWere)
{
    const fs::path movie = trackedPlim(folder / "Broken.mov", TestMovie{});
    const fs::path editsFile = sidecarPath(movie, PlimFiles::edits);
    const std::string broken = "{\"version\": 2, \"trimIn\": 1.0, \"zooms\": [";
    writeText(editsFile, broken);
    const fs::path captionsFile = CaptionTrack::fileBeside(movie);
    const std::string brokenCaptions = "{\"lines\": [{\"text\": \"Hello\"";
    writeText(captionsFile, brokenCaptions);

    {
        auto window = openEditor(movie);
        ASSERT_TRUE(window);
        EXPECT_TRUE(window->isReadOnly());
        EXPECT_NE(window->notice().toStdString().find("Broken.edits.json"), std::string::npos) << window->notice().toStdString();
        EXPECT_NE(window->status().toStdString().find("Broken.captions.json"), std::string::npos)
            << window->status().toStdString();
        // Dragging the trim end edits nothing.
        TimelineView& timeline = *window->timeline();
        const QRect clips = timeline.laneRect(TimelineView::Lane::clips);
        const auto firstClip = window->document()->clips().front();
        drag(&timeline, {timeline.xOf(firstClip.start) + 2, double(clips.center().y())},
            {timeline.xOf(firstClip.start) + 80, double(clips.center().y())});
        QTest::keyClick(window.get(), Qt::Key_Z, Qt::ControlModifier);
        EXPECT_FALSE(window->document()->canUndo());
        EXPECT_FALSE(window->findChild<QPushButton*>("recordVoiceover")->isEnabled());
        window->close();
    }
    EXPECT_EQ(readText(editsFile), broken);
    EXPECT_EQ(readText(captionsFile), brokenCaptions);
}

TEST_F(Editor, GeneratesCaptionsOffTheInterfaceThreadAndShowsThem)
{
    auto speech = fliteSpeech({"Open the settings window."}, 0.5, folder.path());
    ASSERT_FALSE(speech.spans.empty()) << "flite did not speak";
    const fs::path movie = folder / "Spoken.mov";
    ASSERT_TRUE(writeSpeechPlim(movie, speech.stereo, speech.duration()));

    auto opened = openEditor(movie);
    ASSERT_TRUE(opened);
    EditorWindow& window = *opened;
    auto* generate = window.findChild<QPushButton*>("generateCaptions");
    ASSERT_NE(generate, nullptr);
    QTest::mouseClick(generate, Qt::LeftButton);
    // The interface keeps running while the pass works, the button off until it ends.
    EXPECT_FALSE(generate->isEnabled());
    ASSERT_TRUE(waitUntil([&] { return generate->isEnabled(); }, 100)) << window.status().toStdString();
    EXPECT_TRUE(window.status().startsWith("Captions ready: 1 line.")) << window.status().toStdString();
    auto track = CaptionTrack::read(CaptionTrack::fileBeside(movie));
    ASSERT_TRUE(track) << track.error().sentence;
    ASSERT_EQ(track->value.lines.size(), 1u);
    // What was heard is the built-in recogniser's business (its own test measures it); here
    // the line must lie on the sentence.
    EXPECT_FALSE(track->value.lines[0].text.empty());
    EXPECT_NEAR(track->value.lines[0].start, speech.spans[0].start, 0.3);
    EXPECT_NEAR(track->value.lines[0].end, speech.spans[0].end, 0.3);
    // The line lies on the timeline, and the preview shows it.
    const double spoken = (track->value.lines[0].start + track->value.lines[0].end) / 2;
    EXPECT_TRUE(captionBlockAt(*window.timeline(), spoken));
    PreviewView& preview = *window.preview();
    const QImage captioned = frameAt(preview, window.timeline()->remap().output(spoken));
    EXPECT_GT(changedPixels(captioned, frameAt(preview, 0)), 300) << "the preview shows the new line where it is spoken";
    // The edits name the file and show captions, on disk once saved.
    const PlimEdits saved = savedEdits(window);
    EXPECT_EQ(saved.captionsFile, "Spoken.captions.json");
    ASSERT_TRUE(saved.look);
    EXPECT_TRUE(saved.look->captions);
    window.close();
}

// The Voiceover control records the microphone (a tone played into the sound server's null
// sink, whose monitor is the default source) from the playhead while the plim plays, picture
// only with headphones off; the take shows on the timeline, joins the saved edits at the
// playhead's source time, and is removed like any edit. Esc drops a take.
TEST_F(Editor, RecordsAVoiceoverAtThePlayheadAndEscDropsATake)
{
    PulseServer pulse;
    if (!pulse.isUp())
        GTEST_SKIP() << "pulseaudio could not start here";
    ScopedEnv server("PULSE_SERVER", "unix:" + (pulse.runtimeDir() / "native").string());
    const fs::path tone = folder / "narration.wav";
    ASSERT_EQ(runCommand({"sox", "-n", "-r", "48000", "-c", "2", tone.string(), "synth", "30", "sine", "440"}).status, 0);
    ChildProcess narrator({"paplay", "--latency-msec=20", "-d", "plimsink", tone.string()}, pulse.environment());
    const fs::path movie = folder / "Narrated.mov";
    // The plim's own sound: a steady 1 kHz tone.
    ASSERT_TRUE(writeTestMovie(movie, TestMovie{.duration = 5, .tones = {0}, .toneLength = 5}));
    ASSERT_TRUE(PlimEdits{.plan = {.trimIn = 1.0}}.write(movie, "test"));
    const fs::path library = folder / "Library";
    auto takesLeft = [&] {
        std::error_code none;
        return std::distance(fs::directory_iterator(voiceoversFolder(library), none), fs::directory_iterator());
    };

    auto opened = openEditor(movie);
    ASSERT_TRUE(opened);
    EditorWindow& window = *opened;
    window.setLibraryFolder(library);
    PreviewView& preview = *window.preview();
    auto* record = window.findChild<QPushButton*>("recordVoiceover");
    auto* headphones = window.findChild<QCheckBox*>("voiceoverHeadphones");
    ASSERT_TRUE(record && headphones && record->isEnabled());
    preview.seek(1.5);
    ASSERT_TRUE(waitUntil([&] { return std::abs(preview.position() - 1.5) < 0.02; }));

    QTest::mouseClick(headphones, Qt::LeftButton);
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(window.isRecordingVoiceover()) << window.status().toStdString();
    ASSERT_TRUE(waitUntil([&] { return preview.isPlaying(); }));
    EXPECT_TRUE(preview.isMuted());
    // Long enough that the sound server's buffering (up to 1.35 s seen) still leaves sound in it.
    QTest::qWait(2200);
    EXPECT_EQ(takesLeft(), 2); // the take and its note
    QTest::mouseClick(record, Qt::LeftButton);
    EXPECT_FALSE(window.isRecordingVoiceover());
    EXPECT_FALSE(preview.isMuted());

    // Second 1.5 of the edit is second 2.5 of the recording, 1 s being trimmed off its start.
    const PlimEdits saved = editsOnDisk(movie);
    ASSERT_EQ(saved.voiceovers.size(), 1u) << window.status().toStdString();
    const auto voice = saved.voiceovers[0];
    EXPECT_NEAR(voice.start, 2.5, 0.02);
    EXPECT_NEAR(voice.duration, 2.2, 0.4);
    EXPECT_TRUE(fs::exists(folder / voice.file));
    EXPECT_EQ(window.document()->edits().voiceovers, saved.voiceovers);
    EXPECT_EQ(window.timeline()->selection(), (TimelineView::Selection{TimelineView::ItemKind::voiceover, voice.id}));
    EXPECT_EQ(takesLeft(), 0);
    // The microphone did not hear the plim, which played picture only. What a take holds of
    // the narration is the voiceover recorder's to check.
    EXPECT_LT(toneLevel(allSound(folder / voice.file), 1000, 0.2, voice.duration - 0.1), 0.01);

    // Esc drops a take: nothing joins, nothing is left behind.
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(window.isRecordingVoiceover());
    QTest::qWait(300);
    QTest::keyClick(&window, Qt::Key_Escape);
    EXPECT_FALSE(window.isRecordingVoiceover());
    EXPECT_EQ(window.document()->edits().voiceovers.size(), 1u);
    EXPECT_EQ(takesLeft(), 0) << window.status().toStdString();

    // The take selected on the timeline is removed with Delete, and saved so.
    QTest::keyClick(window.timeline(), Qt::Key_Delete);
    EXPECT_TRUE(savedEdits(window).voiceovers.empty());
}
