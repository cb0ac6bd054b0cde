// The windows the shell opens, driven in process with real input on the test's X server:
// the area picker by the pointer and keys (xdotool), the home grid by the library folder
// changing under it, the share sheet by its buttons.

#include "app/voiceover_take.h"
#include "base/dates.h"
#include "base/settings.h"
#include "capture/recording_marker.h"
#include "library/look_store.h"
#include "share/plim_thumbs.h"
#include "testing/scripted_camera.h"
#include "testkit/servers.h"
#include "testkit/test_movies.h"
#include "ui/area_picker.h"
#include "ui/home_window.h"
#include "ui/plim_files.h"
#include "ui/record_panel.h"
#include "ui/settings_window.h"
#include "ui/share_sheet.h"
#include "wait_until.h"

#include <QAbstractItemModel>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDBusConnection>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <QThread>
#include <QUrl>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using ::testing::HasSubstr;

namespace {

// The desktop's file manager as the session bus offers it, answering on a thread of its own.
class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    CallLog shown;
public slots:
    void ShowItems(const QStringList& uris, const QString&) { shown.note(uris.join(' ')); }
};

} // namespace

TEST(AreaPicker, GivesExactlyTheDraggedAndAdjustedAreaAndNothingOnEsc)
{
    std::optional<std::optional<Rect>> picked;
    {
        AreaPicker picker;
        picker.onPicked = [&](std::optional<Rect> area) { picked = area; };
        picker.show();
        ASSERT_EQ(picker.overlays().size(), 1u);
        QWidget* overlay = picker.overlays().front();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(overlay));
        EXPECT_EQ(overlay->geometry(), QRect(0, 0, 1280, 720));

        xdotool({"mousemove", "100", "80", "mousedown", "1", "mousemove", "250", "190", "mousemove", "400", "300", "mouseup", "1"});
        ASSERT_TRUE(waitUntil([&] { return picker.selection() == QRect(100, 80, 300, 220); }))
            << picker.selection().x() << "," << picker.selection().y() << " " << picker.selection().width() << "x"
            << picker.selection().height();
        // The bottom-right handle makes it larger; a drag inside moves it.
        xdotool({"mousemove", "400", "300", "mousedown", "1", "mousemove", "410", "315", "mousemove", "420", "330", "mouseup", "1"});
        ASSERT_TRUE(waitUntil([&] { return picker.selection() == QRect(100, 80, 320, 250); }));
        xdotool({"mousemove", "200", "200", "mousedown", "1", "mousemove", "220", "210", "mousemove", "250", "230", "mouseup", "1"});
        ASSERT_TRUE(waitUntil([&] { return picker.selection() == QRect(150, 110, 320, 250); }));
        // Shift and an arrow nudge it by ten pixels.
        xdotool({"key", "shift+Right"});
        ASSERT_TRUE(waitUntil([&] { return picker.selection() == QRect(160, 110, 320, 250); }));
        keepShot(*overlay, "area-picker");
        xdotool({"key", "Return"});
        ASSERT_TRUE(waitUntil([&] { return picked.has_value(); }));
    }
    ASSERT_TRUE(picked->has_value());
    EXPECT_EQ(**picked, (Rect{160, 110, 320, 250}));

    // The next pick opens on the last area; Esc ends it with nothing.
    picked.reset();
    AreaPicker again(Rect{160, 110, 320, 250});
    EXPECT_EQ(again.selection(), QRect(160, 110, 320, 250));
    again.onPicked = [&](std::optional<Rect> area) { picked = area; };
    again.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(again.overlays().front()));
    xdotool({"key", "Escape"});
    ASSERT_TRUE(waitUntil([&] { return picked.has_value(); }));
    EXPECT_FALSE(picked->has_value());
    EXPECT_TRUE(again.overlays().empty());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

TEST(HomeWindow, ShowsAPlimCopiedInRenamesItByKeysAndDropsItWhenRemoved)
{
    XdgSandbox sandbox;
    TempDir source, library;
    ASSERT_TRUE(writeTestMovie(source / "Clip.mov", TestMovie{.duration = 2}));
    ASSERT_TRUE(writeTestMovie(source / "Intro.mov", TestMovie{.duration = 1, .colors = {{0, 0xe0a020}}}));

    HomeWindow home(library.path());
    home.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&home));
    auto* grid = child<QListView>(home, "plimGrid");
    auto* empty = child<QWidget>(home, "emptyLibrary");
    EXPECT_TRUE(empty->isVisible());
    EXPECT_FALSE(grid->isVisible());
    keepShot(home, "home-empty");

    fs::copy_file(source / "Clip.mov", library / "Clip.mov");
    ASSERT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 1; })) << "the copied plim never appeared";
    EXPECT_TRUE(grid->isVisible());
    EXPECT_EQ(grid->model()->index(0, 0).data().toString(), QStringLiteral("Clip"));
    EXPECT_EQ(child<QLabel>(home, "plimCount")->text(), QStringLiteral("1 plim"));
    // The poster is drawn beside the movie on the worker, and the card gets its length.
    ASSERT_TRUE(waitUntil([&] { return fs::exists(PlimThumbs::pathFor(library / "Clip.mov")); }, 60));
    ASSERT_TRUE(waitUntil([&] { return grid->model()->index(0, 0).data(Qt::UserRole + 1).toString().startsWith("0:02"); }));
    // A newer plim comes first.
    QTest::qWait(1100);
    fs::copy_file(source / "Intro.mov", library / "Intro.mov");
    ASSERT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 2; }));
    EXPECT_EQ(grid->model()->index(0, 0).data().toString(), QStringLiteral("Intro"));
    EXPECT_EQ(grid->model()->index(1, 0).data().toString(), QStringLiteral("Clip"));
    // A card dragged out is its movie, as a file manager or a chat takes it.
    std::unique_ptr<QMimeData> dragged(grid->model()->mimeData({grid->model()->index(1, 0)}));
    EXPECT_EQ(dragged->urls(), QList<QUrl>{QUrl::fromLocalFile(QString::fromStdString((library / "Clip.mov").string()))});
    ASSERT_TRUE(waitUntil([&] { return fs::exists(PlimThumbs::pathFor(library / "Intro.mov")); }, 60));
    QTest::qWait(100);
    keepShot(home, "home");
    {
        // Show in File Manager asks the desktop's file manager to select the movie.
        QThread thread;
        thread.start();
        FakeFileManager fileManager;
        fileManager.moveToThread(&thread);
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("file-manager"));
        ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &fileManager, QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(bus.registerService(QStringLiteral("org.freedesktop.FileManager1")));
        home.showPlimInFileManager(home.plims().at(1));
        EXPECT_EQ(fileManager.shown.calls(),
            QStringList{QUrl::fromLocalFile(QString::fromStdString((library / "Clip.mov").string())).toString()});
        EXPECT_FALSE(child<QLabel>(home, "message")->text().contains(QStringLiteral("could not be shown")));
        bus.unregisterService(QStringLiteral("org.freedesktop.FileManager1"));
        bus.unregisterObject(QStringLiteral("/org/freedesktop/FileManager1"));
        QDBusConnection::disconnectFromBus(QStringLiteral("file-manager"));
        thread.quit();
        thread.wait();
    }
    fs::remove(library / "Intro.mov");
    ASSERT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 1; })) << "the removed plim stayed in the grid";

    // F2 on the selected card, a new name and Enter rename every file of the plim.
    home.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&home));
    const QRect card = grid->visualRect(grid->model()->index(0, 0));
    QTest::mouseClick(grid->viewport(), Qt::LeftButton, {}, card.center());
    QTest::keyClick(grid, Qt::Key_F2);
    QLineEdit* editor = nullptr;
    ASSERT_TRUE(waitUntil([&] { return (editor = grid->findChild<QLineEdit*>()) && editor->isVisible(); }));
    QTest::keyClick(editor, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(editor, "Launch demo");
    QTest::keyClick(editor, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return grid->model()->index(0, 0).data().toString() == QStringLiteral("Launch demo"); }))
        << child<QLabel>(home, "message")->text().toStdString();
    EXPECT_TRUE(fs::exists(library / "Launch demo.mov"));

    // Delete moves the last one to the Trash, side files and all.
    QTest::keyClick(grid, Qt::Key_Delete);
    ASSERT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 0; }));
    EXPECT_TRUE(empty->isVisible());
    EXPECT_TRUE(fs::exists(sandbox.home() / ".local/share/Trash/files/Launch demo.mov"));

    // A movie still being recorded by a running process is listed once it is finished.
    ASSERT_TRUE(RecordingMarker::ofThisProcess(false).write(library / "Rolling.mov"));
    fs::copy_file(source / "Intro.mov", library / "Rolling.mov");
    fs::copy_file(source / "Clip.mov", library / "Other.mov");
    ASSERT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 1; }));
    EXPECT_EQ(grid->model()->index(0, 0).data().toString(), QStringLiteral("Other"));
    RecordingMarker::remove(library / "Rolling.mov");
    EXPECT_TRUE(waitUntil([&] { return grid->model()->rowCount() == 2; })) << "the finished recording never appeared";
}

TEST(ShareSheet, WritesTheMP4IntoTheChosenFolderAndShowsTheOutcome)
{
    XdgSandbox sandbox;
    TempDir library, out;
    ASSERT_TRUE(writeTestMovie(library / "Clip.mov", TestMovie{.duration = 0.5}));
    MemorySettingsStore settings;

    ShareSheet sheet(library / "Clip.mov", settings);
    sheet.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&sheet));
    QTest::mouseClick(child<QPushButton>(sheet, "kindGif"), Qt::LeftButton);
    EXPECT_EQ(child<QPushButton>(sheet, "quality720")->text(), QStringLiteral("Small"));
    QTest::mouseClick(child<QPushButton>(sheet, "kindVideo"), Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(sheet, "quality720"), Qt::LeftButton);
    EXPECT_EQ(sheet.kind(), ShareKind::video);
    EXPECT_EQ(sheet.quality(), ShareQuality::p720);
    auto* format = child<QLabel>(sheet, "format");
    ASSERT_TRUE(waitUntil([&] { return !format->text().isEmpty(); }));
    EXPECT_EQ(format->text(), QStringLiteral("1152×720 · mp4"));
    EXPECT_THAT(child<QLabel>(sheet, "enlargementNote")->text().toStdString(),
        HasSubstr("recorded at 200p, so 720p is enlarged from it"));
    sheet.setFolder(out.path());
    keepShot(sheet, "share-choices");

    QTest::mouseClick(child<QPushButton>(sheet, "share"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return sheet.outcome().has_value(); }, 100)) << "the share never ended";
    ASSERT_EQ(sheet.outcome()->kind, ShareOutcome::Kind::finished) << sheet.outcome()->sentence;
    EXPECT_EQ(sheet.outcome()->url, out / "Clip.mp4");
    EXPECT_EQ(ffprobe(out / "Clip.mp4").height, 720);
    EXPECT_THAT(child<QLabel>(sheet, "outcome")->text().toStdString(), HasSubstr("Saved Clip.mp4"));
    EXPECT_TRUE(child<QPushButton>(sheet, "openResult")->isVisible());
    EXPECT_TRUE(child<QPushButton>(sheet, "showResult")->isVisible());
    EXPECT_EQ(child<QWidget>(sheet, "stage_write")->findChild<QLabel*>("mark")->text(), QStringLiteral("✓"));
    EXPECT_EQ(settings.string(ShareSheet::folderKey, ""), out.path().string());
    keepShot(sheet, "share-outcome");
}

TEST(RecordPanel, RecordsThePickedAreaWithTheInputsChosenAndShowsWhatBlocksARecording)
{
    XdgSandbox sandbox;
    TempDir library;
    PulseServer pulse;
    ASSERT_TRUE(pulse.isUp());
    ScopedEnv server("PULSE_SERVER", "unix:" + (pulse.runtimeDir() / "native").string());
    MemorySettingsStore settings;
    RecordPanel panel(settings, library.path());
    std::optional<std::pair<CaptureSettings, int>> asked;
    panel.onRecord = [&](const CaptureSettings& capture, int countdown) { asked = {capture, countdown}; };
    panel.onPickArea = [&] { panel.setArea(Rect{10, 20, 300, 200}); };
    panel.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&panel));
    EXPECT_FALSE(child<QLabel>(panel, "preflight")->isVisible());

    QTest::mouseClick(child<QPushButton>(panel, "pickArea"), Qt::LeftButton);
    EXPECT_EQ(child<QLabel>(panel, "areaText")->text(), QStringLiteral("300 × 200 at 10, 20"));
    QTest::mouseClick(child<QCheckBox>(panel, "keys"), Qt::LeftButton, {}, QPoint(8, 8));
    // The microphone's meter follows what it hears: here the null output's monitor, fed a tone.
    QTest::mouseClick(child<QCheckBox>(panel, "microphone"), Qt::LeftButton, {}, QPoint(8, 8));
    auto* level = child<QProgressBar>(panel, "level");
    QTest::qWait(300);
    EXPECT_LT(level->value(), 10);
    ASSERT_EQ(runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=frequency=440:duration=3", "-y",
                  (library / "tone.wav").string()}).status, 0);
    ChildProcess tone({"paplay", "--device=plimsink", (library / "tone.wav").string()}, pulse.environment());
    EXPECT_TRUE(waitUntil([&] { return level->value() > 50; }, 5)) << level->value();
    QTest::mouseClick(child<QCheckBox>(panel, "microphone"), Qt::LeftButton, {}, QPoint(8, 8));
    // The camera's preview shows its pictures.
    panel.openCamera = [](const std::optional<std::string>&) -> Result<std::unique_ptr<CameraSource>> {
        return std::make_unique<ScriptedCameraSource>(320, 180, 30);
    };
    const int heightWithoutPreview = panel.height();
    QTest::mouseClick(child<QCheckBox>(panel, "camera"), Qt::LeftButton, {}, QPoint(8, 8));
    auto* preview = child<QLabel>(panel, "cameraPreview");
    ASSERT_TRUE(waitUntil([&] { return !preview->pixmap().isNull(); }, 5));
    EXPECT_EQ(preview->pixmap().size(), QSize(160, 90));
    QTest::mouseClick(child<QCheckBox>(panel, "camera"), Qt::LeftButton, {}, QPoint(8, 8));
    EXPECT_FALSE(preview->isVisible());
    EXPECT_TRUE(waitUntil([&] { return panel.height() <= heightWithoutPreview; })) << "the preview's room stayed";
    // The computer's sound from the server's one output.
    auto* output = child<QComboBox>(panel, "systemSoundDevice");
    ASSERT_EQ(output->count(), 2);
    output->setFocus();
    QTest::keyClick(output, Qt::Key_Down);
    QTest::mouseClick(child<QCheckBox>(panel, "systemSound"), Qt::LeftButton, {}, QPoint(8, 8));
    auto* rate = child<QComboBox>(panel, "frameRate");
    rate->setFocus();
    QTest::keyClick(rate, Qt::Key_Down);
    auto* countdown = child<QSpinBox>(panel, "countdown");
    countdown->setFocus();
    QTest::keyClick(countdown, Qt::Key_Up);
    QTest::keyClick(countdown, Qt::Key_Up);
    keepShot(panel, "record-panel");
    QTest::mouseClick(child<QPushButton>(panel, "record"), Qt::LeftButton);

    ASSERT_TRUE(asked.has_value());
    EXPECT_EQ(asked->first.subject.kind, ScreenSubject::Kind::area);
    EXPECT_EQ(asked->first.subject.area, (Rect{10, 20, 300, 200}));
    EXPECT_FALSE(asked->first.keycaps);
    EXPECT_EQ(asked->first.framesPerSecond, 30);
    EXPECT_TRUE(asked->first.systemSound);
    EXPECT_EQ(asked->first.systemSoundDevice, "plimsink");
    EXPECT_FALSE(asked->first.microphone);
    EXPECT_EQ(asked->second, 5);
    // The next panel opens on this choice.
    EXPECT_EQ(RecordChoice::load(settings), panel.choice());

    writeText(library / "taken", "a file where the library folder should be");
    RecordPanel blocked(settings, library / "taken");
    blocked.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&blocked));
    EXPECT_TRUE(child<QLabel>(blocked, "preflight")->isVisible());
    EXPECT_THAT(child<QLabel>(blocked, "preflight")->text().toStdString(), HasSubstr("cannot be written"));
    EXPECT_FALSE(child<QPushButton>(blocked, "record")->isEnabled());
}

TEST(SettingsWindow, SaysWhereIconsCannotBeHiddenAndCopiesEachVerbsCommand)
{
    XdgSandbox sandbox;
    MemorySettingsStore settings;
    SettingsWindow window(settings, StorageRoot{sandbox.videos()}, sandbox.home() / "looks.json");
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    EXPECT_EQ(child<QLabel>(window, "libraryFolder")->text().toStdString(), (sandbox.videos() / "Plim").string());
    EXPECT_FALSE(child<QCheckBox>(window, "hideIcons")->isEnabled());
    EXPECT_TRUE(child<QLabel>(window, "hideIconsNote")->isVisible());
    QTest::mouseClick(child<QPushButton>(window, "copy_record-area"), Qt::LeftButton);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("plim --record-area"));
    QTest::mouseClick(child<QCheckBox>(window, "captions"), Qt::LeftButton, {}, QPoint(8, 8));
    EXPECT_TRUE(LookStore(sandbox.home() / "looks.json").newPlimLook().value_or(PlimLook{}).captions);
    keepShot(window, "settings");

    // A library still in the older Videos/Plims moves to Videos/Plim at the user's word.
    fs::create_directories(sandbox.videos() / "Plims");
    writeText(sandbox.videos() / "Plims" / "Old.mov", "a recording");
    SettingsWindow legacy(settings, StorageRoot{sandbox.videos(), StorageRoot::legacyName}, sandbox.home() / "looks.json");
    std::optional<fs::path> movedTo;
    legacy.onLibraryMoved = [&](const fs::path& folder) { movedTo = folder; };
    legacy.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&legacy));
    auto* move = child<QPushButton>(legacy, "moveLibrary");
    ASSERT_TRUE(move->isVisible());
    QTest::mouseClick(move, Qt::LeftButton);
    EXPECT_EQ(movedTo, sandbox.videos() / "Plim");
    EXPECT_FALSE(move->isVisible());
    EXPECT_EQ(child<QLabel>(legacy, "libraryFolder")->text().toStdString(), (sandbox.videos() / "Plim").string());
}

TEST(PlimFiles, RenameAndTrashTakeEverySideFileAlongAndNeverAnotherPlims)
{
    XdgSandbox sandbox;
    TempDir library;
    for (const char* name : {"A.mov", "A.cursor.json", "A.id.json", "A.thumbs.heic", "B.staged.mov",
             "B.keys.json", "B.voiceover 2.wav", "A 2.mov", "E.mov", "A.voiceover.wav", "Old.voiceover.wav",
             "A.voiceover 2.wav", "A.voiceover 3.wav"})
        writeText(library / name, name);
    auto withVoiceovers = [](std::vector<std::string> files) {
        PlimEdits edits;
        for (auto& file : files)
            edits.voiceovers.push_back({makeUuid(), 1, 2, file});
        return edits;
    };
    auto takesNamedBy = [](const fs::path& movie) {
        std::vector<std::string> files;
        auto edits = PlimEdits::read(movie);
        if (edits && edits->value)
            for (const auto& voice : edits->value->voiceovers)
                files.push_back(voice.file);
        return files;
    };
    // A's edits name one take after it and one taken before an earlier rename; "A.voiceover 2"
    // was taken off its timeline; "A.voiceover 3" is named by E's edits.
    ASSERT_TRUE(withVoiceovers({"A.voiceover.wav", "Old.voiceover.wav"}).write(library / "A.mov", "test"));
    ASSERT_TRUE(withVoiceovers({"A.voiceover 3.wav"}).write(library / "E.mov", "test"));
    const PlimRecord a{.id = "A", .rawURL = library / "A.mov"};
    // B's take is in the way of A's, so none of A's files move.
    auto refused = renamePlim(a, "B");
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error().sentence, HasSubstr("\"B.voiceover 2.wav\" is already in the library. Nothing was changed"));
    EXPECT_EQ(readText(library / "B.voiceover 2.wav"), "B.voiceover 2.wav");
    EXPECT_EQ(readText(library / "A.cursor.json"), "A.cursor.json");
    // A name that fits the movie but is too long for a take fails part way: all is put back.
    auto cut = renamePlim(a, std::string(241, 'L'));
    ASSERT_FALSE(cut);
    EXPECT_THAT(cut.error().sentence, HasSubstr("\"A.voiceover 2.wav\" could not be renamed"));
    EXPECT_THAT(cut.error().sentence, HasSubstr("Its files keep their old names; nothing was lost."));
    for (const auto& entry : fs::directory_iterator(library.path()))
        EXPECT_FALSE(entry.path().filename().string().starts_with("LLL")) << entry.path();
    EXPECT_EQ(readText(library / "A.mov"), "A.mov");
    EXPECT_EQ(readText(library / "A.voiceover.wav"), "A.voiceover.wav");
    EXPECT_EQ(takesNamedBy(library / "A.mov"), (std::vector<std::string>{"A.voiceover.wav", "Old.voiceover.wav"}));

    ASSERT_TRUE(renamePlim(a, "C"));
    for (const char* name : {"mov", "cursor.json", "id.json", "thumbs.heic", "voiceover.wav", "voiceover 2.wav"})
        EXPECT_EQ(readText(library / ("C." + std::string(name))), "A." + std::string(name));
    EXPECT_EQ(takesNamedBy(library / "C.mov"), (std::vector<std::string>{"C.voiceover.wav", "Old.voiceover.wav"}));
    // "A 2" shares A's first letters but is another plim, and E's take is E's: they stay.
    EXPECT_EQ(readText(library / "A 2.mov"), "A 2.mov");
    EXPECT_EQ(readText(library / "A.voiceover 3.wav"), "A.voiceover 3.wav");
    EXPECT_EQ(takesNamedBy(library / "E.mov"), (std::vector<std::string>{"A.voiceover 3.wav"}));
    EXPECT_FALSE(renamePlim(a, "../D"));

    // C's voiceovers go to the Trash with it: those its edits name, the one taken off its
    // timeline, and a take cut off before it joined, with its note; E's take stays.
    const PlimRecord c{.id = "C", .rawURL = library / "C.mov"};
    VoiceoverNote cutOff{
        .id = makeUuid(), .movie = library / "C.mov", .process = RecordingMarker::ofThisProcess(false)};
    cutOff.process.pid = 999999999; // a process that is gone
    const fs::path takes = voiceoversFolder(library.path());
    fs::create_directories(takes);
    ASSERT_TRUE(cutOff.write(takes));
    writeText(VoiceoverNote::takeIn(takes, cutOff.id), "cut off");
    ASSERT_TRUE(trashPlim(c));
    const fs::path trash = sandbox.home() / ".local/share/Trash/files";
    for (const std::string& name : std::vector<std::string>{"C.mov", "C.edits.json", "C.thumbs.heic",
             "C.voiceover.wav", "Old.voiceover.wav", "C.voiceover 2.wav", cutOff.id + ".wav", cutOff.id + ".json"})
        EXPECT_TRUE(fs::exists(trash / name)) << name;
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(library.path()))
        left.push_back(entry.path().filename().string());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"A 2.mov", "A.voiceover 3.wav", "B.keys.json", "B.staged.mov",
                        "B.voiceover 2.wav", "E.edits.json", "E.mov", "Voiceovers"}));
    EXPECT_TRUE(fs::is_empty(takes));
}

#include "windows_test.moc"
