#include "media/colour_convert.h"
#include "media/movie_reader.h"
#include "media/movie_writer.h"
#include "media_fixtures.h"

#include <gtest/gtest.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <tuple>
#include <sstream>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace plim;
using namespace plim::mediatest;
using plim::testkit::TempDir;

TEST(BitRates, ExportAndRecordingRules)
{
    // 9.5 Mbit/s at 1080p, scaled by the pixel count to the power 0.82; no size counts as one pixel.
    for (auto [w, h, bps] : std::vector<std::tuple<int, int, int64_t>>{
             {1920, 1080, 9500000}, {1280, 720, 4885780}, {3840, 2160, 29608254}, {0, 0, 62}, {-5, 7, 62}})
        EXPECT_EQ(exportBitsPerSecond(w, h), bps) << w << "x" << h;

    for (auto [w, h, scale, bps] : std::vector<std::tuple<int, int, double, int64_t>>{
             {1280, 720, 1, 8000000}, // 3,686,400 is below the floor
             {1280, 720, 0.1, 2000000}, // the scale is held at 0.25
             {3840, 2160, 1, 33177600},
             {3840, 2160, 0.5, 16588800},
             {1920, 1080, NAN, 8294400}, // an unusable scale counts as 1
             {2560, 1440, 1.5, 22118400},
         })
        EXPECT_EQ(recordingBitsPerSecond(w, h, scale), bps) << w << "x" << h << " @" << scale;
}

TEST(MovieWriter, ExportIsFaststartMp4WithItsSettings)
{
    TempDir dir;
    for (auto [w, h, matrix] :
        std::vector<std::tuple<int, int, std::string>>{{320, 240, "smpte170m"}, {1280, 720, "bt709"}}) {
        fs::path path = dir / ("export" + std::to_string(h) + ".mp4");
        const double seconds = h > 500 ? 0.5 : 2;
        writeMovie(path,
            {.width = w,
                .height = h,
                .seconds = seconds,
                .sound = {MovieWriter::exportTrack()},
                .soundSamples = {toneBurst(static_cast<int64_t>(seconds * 48000), 2, 440, 0, 1 << 30)}});

        EXPECT_EQ(probe(path, "v:0", "stream=codec_name,width,height,r_frame_rate,pix_fmt"),
            "h264," + std::to_string(w) + "," + std::to_string(h) + ",yuv420p,30/1");
        EXPECT_EQ(probe(path, "v:0", "stream=color_range,color_space,color_transfer,color_primaries"),
            "tv," + matrix + "," + matrix + "," + matrix);
        EXPECT_EQ(probe(path, "a:0", "stream=codec_name,sample_rate,channels"), "aac,48000,2");
        EXPECT_NEAR(std::stod(probe(path, "v:0", "stream=duration")), seconds, 0.05);

        // The index comes before the media data.
        auto atoms = topAtoms(path);
        auto moov = std::ranges::find(atoms, "moov"), mdat = std::ranges::find(atoms, "mdat");
        ASSERT_TRUE(moov != atoms.end() && mdat != atoms.end()) << testing::PrintToString(atoms);
        EXPECT_LT(moov, mdat);
    }
}

// The stored Y of a red picture tells the matrix and range: BT.709 limited gives 63, BT.601 82.
// The reader turns red, green and blue back through the same matrix.
TEST(MovieWriter, WritesTheMatrixItTagsAndTheReaderReadsItBack)
{
    TempDir dir;
    const uint8_t colours[3][3] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}}; // red, green, blue (BGR)
    // Pictures twice the movie's size are scaled to it with the same matrix.
    for (auto [h, expectY, from] : std::vector<std::tuple<int, int, int>>{{720, 63, 1}, {240, 82, 1}, {720, 63, 2}, {240, 82, 2}}) {
        int w = h * 4 / 3;
        fs::path path = dir / ("rgb" + std::to_string(h) + "from" + std::to_string(from) + ".mp4");
        std::vector<Image> pictures;
        for (const auto& c : colours)
            pictures.push_back(solid(w * from, h * from, c[0], c[1], c[2]));
        writeSolids(path, w, h, pictures, from != 1);
        auto y = testkit::runCommand({"ffmpeg", "-v", "error", "-i", path.string(), "-frames:v", "1", "-f", "rawvideo",
            "-pix_fmt", "yuv420p", "-"});
        ASSERT_EQ(y.status, 0) << y.err;
        int centre = static_cast<unsigned char>(y.out[static_cast<size_t>(h / 2 * w + w / 2)]);
        EXPECT_NEAR(centre, expectY, 2) << h << " from " << from;
        if (from != 1)
            continue;
        auto reader = MovieReader::create(path);
        ASSERT_TRUE(reader);
        for (int n = 0; n < 3; ++n) {
            auto frame = (*reader)->next();
            ASSERT_TRUE(frame && *frame);
            const uint8_t* p = (*frame)->image.row(h / 2) + 4 * (w / 2);
            for (int c = 0; c < 3; ++c)
                EXPECT_NEAR(p[c], colours[n][c], 6) << h << "p colour " << n << " channel " << c;
            EXPECT_EQ(p[3], 255);
        }
    }
}

// The writer's own colour loop against the reference values and against swscale.
TEST(ColourConvert, KnownColoursAndSwscaleAgree)
{
    // Pure colours, BT.709 and BT.601 limited range: {B, G, R} -> {Y, Cb, Cr}.
    struct Known {
        YuvMatrix matrix;
        uint8_t b, g, r;
        int y, cb, cr;
    };
    for (auto k : std::vector<Known>{{YuvMatrix::bt709, 255, 255, 255, 235, 128, 128},
             {YuvMatrix::bt709, 0, 0, 0, 16, 128, 128}, {YuvMatrix::bt709, 0, 0, 255, 63, 102, 240},
             {YuvMatrix::bt709, 255, 0, 0, 32, 240, 118}, {YuvMatrix::bt601, 0, 0, 255, 81, 90, 240},
             {YuvMatrix::bt601, 0, 255, 0, 145, 54, 34}}) {
        Image image = solid(2, 2, k.b, k.g, k.r);
        uint8_t y[4], cb, cr;
        uint8_t* planes[3] = {y, &cb, &cr};
        const int lines[3] = {2, 1, 1};
        bgraToYuv420(image.pixels.get(), image.stride, 2, 2, planes, lines, k.matrix);
        EXPECT_EQ((std::vector<int>{y[0], y[3], cb, cr}), (std::vector<int>{k.y, k.y, k.cb, k.cr}))
            << int(k.r) << "," << int(k.g) << "," << int(k.b);
    }

    // Smooth gradients and flat blocks, on an odd stride: luma within a step of swscale,
    // chroma within two (swscale filters chroma a little differently).
    const int w = 258, h = 98;
    Image picture = Image::allocate(w + 7, h);
    picture.width = w;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* p = picture.row(y) + 4 * x;
            bool block = x > 200 && y > 50;
            p[0] = block ? 40 : uint8_t(x);
            p[1] = block ? 200 : uint8_t(2 * y);
            p[2] = block ? 90 : uint8_t((x + 2 * y) / 3);
            p[3] = 255;
        }
    for (auto matrix : {YuvMatrix::bt709, YuvMatrix::bt601}) {
        std::vector<uint8_t> ours(w * h * 3 / 2), theirs(w * h * 3 / 2);
        uint8_t* a[3] = {ours.data(), ours.data() + w * h, ours.data() + w * h * 5 / 4};
        uint8_t* b[3] = {theirs.data(), theirs.data() + w * h, theirs.data() + w * h * 5 / 4};
        const int lines[3] = {w, w / 2, w / 2};
        bgraToYuv420(picture.pixels.get(), picture.stride, w, h, a, lines, matrix);
        SwsContext* sws = sws_getContext(w, h, AV_PIX_FMT_BGRA, w, h, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
            nullptr, nullptr);
        const int* m = sws_getCoefficients(matrix == YuvMatrix::bt709 ? SWS_CS_ITU709 : SWS_CS_ITU601);
        sws_setColorspaceDetails(sws, m, 1, m, 0, 0, 1 << 16, 1 << 16);
        const uint8_t* src[1] = {picture.pixels.get()};
        const int srcStride[1] = {int(picture.stride)};
        sws_scale(sws, src, srcStride, 0, h, b, lines);
        sws_freeContext(sws);
        int lumaWorst = 0, chromaWorst = 0;
        for (size_t i = 0; i < ours.size(); ++i) {
            int& worst = i < size_t(w * h) ? lumaWorst : chromaWorst;
            worst = std::max(worst, std::abs(int(ours[i]) - int(theirs[i])));
        }
        EXPECT_LE(lumaWorst, 1);
        EXPECT_LE(chromaWorst, 2);
    }
}

TEST(MovieWriter, RecordingIsFragmentedWithKeyFramesEveryTwoSeconds)
{
    TempDir dir;
    fs::path path = dir / "rec.mov";
    writeMovie(path,
        {.container = MovieWriter::Container::fragmentedMov,
            .seconds = 5,
            .sound = {MovieWriter::microphoneTrack(), MovieWriter::systemSoundTrack()},
            .soundSamples = {toneBurst(5 * 48000, 1, 440, 0, 1 << 30), toneBurst(5 * 48000, 2, 880, 0, 1 << 30)}});

    auto atoms = topAtoms(path);
    EXPECT_GE(std::count(atoms.begin(), atoms.end(), "moof"), 3);
    EXPECT_EQ(probe(path, "a:0", "stream=channels,sample_rate"), "48000,1");
    EXPECT_EQ(probe(path, "a:1", "stream=channels,sample_rate"), "48000,2");
    const std::string keys = probe(path, "v:0", "frame=pts_time", {"-skip_frame", "nokey"});
    std::vector<double> times;
    std::istringstream in(keys);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            times.push_back(std::stod(line));
    ASSERT_GE(times.size(), 3u) << keys;
    // A key frame opens each 2 s (the encoder may add others where the picture jumps).
    for (double want : {0.0, 2.0, 4.0})
        EXPECT_TRUE(std::any_of(times.begin(), times.end(), [&](double t) { return std::abs(t - want) < 1e-3; }))
            << want << " in " << keys;
}

// A recording killed while it is being written stays readable up to its last fragment.
TEST(MovieWriter, RecordingKilledMidWriteStaysReadable)
{
    TempDir dir;
    fs::path path = dir / "killed.mov";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        auto s = MovieWriter::Settings::recording(path, 320, 240, 30);
        s.sound = {MovieWriter::microphoneTrack()};
        auto writer = MovieWriter::create(s);
        if (!writer)
            _exit(2);
        auto tone = toneBurst(48000, 1, 440, 0, 48000);
        for (int n = 0;; ++n) {
            uint8_t level = static_cast<uint8_t>(countingLevel(n));
            if (!(*writer)->appendVideo(solid(320, 240, level, level, level), n / 30.0))
                _exit(3);
            (*writer)->appendAudio(0, tone.data() + (n % 30) * 1600, 1600, n * 1600LL);
            if (n == 160) {
                char c = 1;
                (void)!write(ready[1], &c, 1);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(n > 160 ? 30 : 1));
        }
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    auto reader = MovieReader::create(path);
    ASSERT_TRUE(reader) << reader.error().sentence;
    int frames = 0;
    double last = -1;
    for (;;) {
        auto frame = (*reader)->next();
        if (!frame || !*frame)
            break;
        ASSERT_NEAR((*frame)->time, frames / 30.0, 1e-3);
        last = (*frame)->time;
        ++frames;
    }
    // 160 pictures (5.3 s) were handed over before the kill: at least the first two
    // fragments are whole.
    EXPECT_GE(frames, 120);
    EXPECT_GE(last, 3.9);
    // Seeking works without the index a finished movie would have.
    ASSERT_TRUE((*reader)->seek(2.0));
    auto atTwo = (*reader)->next();
    ASSERT_TRUE(atTwo && *atTwo);
    EXPECT_NEAR((*atTwo)->time, 2.0, 1e-3);
    EXPECT_GE(std::atoi(probe(path, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str()), 120);
}

TEST(MovieWriter, RefusalsLeaveNoFileAndKeepWhatWasThere)
{
    TempDir dir;
    fs::path existing = dir / "keep.mp4";
    testkit::writeText(existing, "not ours");
    for (auto [w, h, fps, fragment] : std::vector<std::tuple<int, int, double, std::string>>{
             {321, 240, 30, "is not an even size"}, {0, 240, 30, "is not an even size"}, {320, 240, 0, "frame rate"}}) {
        auto writer = MovieWriter::create({.path = existing, .width = w, .height = h, .frameRate = fps});
        ASSERT_FALSE(writer);
        EXPECT_NE(writer.error().sentence.find(fragment), std::string::npos) << writer.error().sentence;
        EXPECT_NE(writer.error().sentence.find("Nothing was written."), std::string::npos);
        EXPECT_EQ(testkit::readText(existing), "not ours");
    }

    MovieWriter::Settings s{.path = "/proc/plim-cannot-write-here/x.mp4", .width = 320, .height = 240};
    auto unwritable = MovieWriter::create(s);
    ASSERT_FALSE(unwritable);
    EXPECT_NE(unwritable.error().sentence.find("could not be created"), std::string::npos);

    s.path = dir / "refused.mp4";
    auto writer = MovieWriter::create(s);
    ASSERT_TRUE(writer);
    ASSERT_TRUE((*writer)->appendVideo(solid(320, 240, 1, 2, 3), 0.5));
    auto smaller = (*writer)->appendVideo(solid(160, 120, 1, 2, 3), 0.6);
    ASSERT_FALSE(smaller);
    EXPECT_NE(smaller.error().sentence.find("a frame was refused: it is 160 × 120"), std::string::npos);
    auto earlier = (*writer)->appendVideo(solid(320, 240, 1, 2, 3), 0.5);
    ASSERT_FALSE(earlier);
    EXPECT_NE(earlier.error().sentence.find("does not come after"), std::string::npos);
    EXPECT_FALSE((*writer)->appendAudio(0, nullptr, 10, 0)) << "no sound track was asked for";
    (*writer)->cancel();
    EXPECT_FALSE(fs::exists(s.path));
}

TEST(MovieWriter, FullDiskSaysSoAndLeavesNoPartialFile)
{
    testkit::SmallDisk disk("1m");
    if (!disk.isUp())
        GTEST_SKIP() << "a 1 MB tmpfs could not be mounted here (needs root)";
    const MovieWriter::Settings s{.path = disk / "big.mp4",
        .width = 320,
        .height = 240,
        .frameRate = 30,
        .bitsPerSecond = 20000000,
        .preset = "ultrafast"};
    auto writer = MovieWriter::create(s);
    ASSERT_TRUE(writer) << writer.error().sentence;
    // Noise does not compress: a few seconds of it overflow 1 MB.
    Image noise = Image::allocate(320, 240);
    uint32_t seed = 12345;
    std::optional<Error> error;
    for (int n = 0; n < 300 && !error; ++n) {
        for (int y = 0; y < 240; ++y)
            for (int x = 0; x < 320 * 4; ++x) {
                seed = seed * 1664525u + 1013904223u;
                noise.row(y)[x] = static_cast<uint8_t>(seed >> 24);
            }
        if (auto r = (*writer)->appendVideo(noise, n / 30.0); !r)
            error = r.error();
    }
    if (!error) {
        auto r = (*writer)->finish();
        ASSERT_FALSE(r);
        error = r.error();
    } else {
        (*writer)->cancel();
    }
    EXPECT_EQ(error->kind, Error::Kind::noSpace) << error->sentence;
    EXPECT_NE(error->sentence.find("The disk is full"), std::string::npos) << error->sentence;
    EXPECT_NE(error->sentence.find("the partial file was removed"), std::string::npos) << error->sentence;
    EXPECT_FALSE(fs::exists(s.path));
}

// Without its own lookahead thread x264 holds fewer frames; the coded pictures (all but
// x264's note of its settings) are the same bytes.
TEST(MovieWriter, TheLookaheadThreadLeavesThePicturesAsTheyAre)
{
    TempDir dir;
    std::vector<std::string> coded;
    for (bool thread : {true, false}) {
        const MovieWriter::Settings s{.path = dir / (thread ? "thread.mp4" : "inline.mp4"),
            .width = 640,
            .height = 360,
            .frameRate = 30,
            .constantRate = true,
            .lookaheadThread = thread};
        auto writer = MovieWriter::create(s);
        ASSERT_TRUE(writer) << writer.error().sentence;
        for (int n = 0; n < 45; ++n) {
            // A bar that moves and a level that changes, so motion and rate decisions matter.
            Image picture = solid(s.width, s.height, static_cast<uint8_t>(3 * n), 90, 160);
            for (int y = 0; y < s.height; ++y)
                std::memset(picture.row(y) + 4 * ((10 * n + y / 4) % (s.width - 64)), 255, 4 * 64);
            ASSERT_TRUE((*writer)->appendVideo(picture, n / 30.0));
        }
        ASSERT_TRUE((*writer)->finish());
        auto r = testkit::runCommand({"ffmpeg", "-v", "error", "-i", s.path.string(), "-c:v", "copy", "-bsf:v",
            "h264_mp4toannexb,filter_units=remove_types=6", "-f", "h264", "-"});
        ASSERT_EQ(r.status, 0) << r.err;
        coded.push_back(r.out);
    }
    EXPECT_GT(coded[0].size(), 10000u);
    EXPECT_TRUE(coded[0] == coded[1]) << coded[0].size() << " bytes against " << coded[1].size();
}
