// The editor's preview widget on a real plim, with a sound server whose one output is a
// null sink: it opens, seeks, maps points between the recording and the widget, and plays
// in real time with its sound reaching the sink.

#include "testkit/servers.h"
#include "testkit/test_movies.h"
#include "ui/preview_view.h"
#include "wait_until.h"

#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

#include <fstream>

using namespace plim;
using namespace plim::testkit;

TEST(PreviewView, OpensSeeksMapsPointsAndPlaysWithSoundOnTheServer)
{
    TempDir dir;
    PulseServer pulse;
    ASSERT_TRUE(pulse.isUp());
    ScopedEnv server("PULSE_SERVER", "unix:" + (pulse.runtimeDir() / "native").string());
    TestMovie source;
    for (double t = 0.1; t < 3; t += 0.2)
        source.tones.push_back(t);
    const fs::path movie = dir / "B.mov";
    ASSERT_TRUE(writeTestMovie(movie, source));

    PreviewView view;
    view.resize(640, 420);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    QSignalSpy opened(&view, &PreviewView::opened);
    QSignalSpy failed(&view, &PreviewView::failed);
    view.open(movie, PlimEdits{});
    ASSERT_TRUE(waitUntil([&] { return !opened.isEmpty() || !failed.isEmpty(); }, 20));
    ASSERT_TRUE(failed.isEmpty()) << failed.front().front().toString().toStdString();
    EXPECT_NEAR(view.duration(), 3.0, 0.05);

    // Half a second in: the recording's red on the card, its middle in the widget's middle.
    view.seek(0.5);
    ASSERT_TRUE(waitUntil([&] { return std::abs(view.position() - 0.5) < 1e-6 && !view.shownFrame().isNull(); }));
    QTest::qWait(200); // the size-fitted frame, once the resize settles
    const QImage shown = view.shownFrame();
    const QColor middle = shown.pixelColor(shown.width() / 2, shown.height() / 2);
    EXPECT_GT(middle.red(), 150);
    EXPECT_LT(middle.green(), 80);
    const auto centre = view.widgetPointOf(QPointF(source.width / 2.0, source.height / 2.0));
    ASSERT_TRUE(centre);
    EXPECT_NEAR(centre->x(), 320, 3);
    EXPECT_NEAR(centre->y(), 210, 3);
    const auto back = view.sourcePointOf(QPointF(330, 200));
    ASSERT_TRUE(back);
    EXPECT_GT(back->x(), 160);
    EXPECT_LT(back->y(), 100);
    const auto there = view.widgetPointOf(*back);
    ASSERT_TRUE(there);
    EXPECT_NEAR(there->x(), 330, 1e-6);
    EXPECT_NEAR(there->y(), 200, 1e-6);
    EXPECT_FALSE(view.sourcePointOf(QPointF(2, 2))); // the backdrop, off the card
    keepShot(view, "preview");

    // Two seconds of play, the sink's monitor recorded meanwhile. A null sink that was idle
    // takes its first stream's sound a second or so ahead and then asks for no more until
    // that time has passed; the picture keeps to the sound meanwhile, so the two seconds
    // count once both run.
    const fs::path heard = dir / "heard.raw";
    ChildProcess recorder({"parec", "--device=plimsink.monitor", "--raw", "--format=s16le", "--channels=1", "--rate=8000",
                              "--latency-msec=20"},
        pulse.environment(), heard);
    view.seek(0);
    ASSERT_TRUE(waitUntil([&] { return view.position() == 0; }));
    QSignalSpy playing(&view, &PreviewView::playingChanged);
    view.play();
    ASSERT_TRUE(waitUntil([&] { return view.position() > 0.3; }, 5)) << "play never began";
    const int64_t before = view.framesShown();
    const double from = view.position();
    QTest::qWait(2000);
    view.pause();
    ASSERT_TRUE(waitUntil([&] { return !view.isPlaying(); }));
    const int64_t frames = view.framesShown() - before;
    RecordProperty("frames_in_two_seconds", static_cast<int>(frames));
    // A stream of frames, not the rate: bench/preview measures that; a sanitized build on a
    // loaded machine shows 30 or so here.
    EXPECT_GE(frames, 20) << "frames shown in 2 s of play";
    EXPECT_LE(frames, 125);
    EXPECT_NEAR(view.position() - from, 2.0, 0.35);
    ASSERT_GE(playing.size(), 2);
    QTest::qWait(300);
    recorder.terminate();
    recorder.wait();
    std::ifstream in(heard, std::ios::binary);
    int peak = 0;
    int16_t s = 0;
    int64_t count = 0;
    while (in.read(reinterpret_cast<char*>(&s), sizeof s)) {
        peak = std::max(peak, std::abs(static_cast<int>(s)));
        ++count;
    }
    EXPECT_GT(count, 4000) << "the monitor recorded under half a second";
    EXPECT_GT(peak, 4000) << "no tone reached the sound server's output";
}
