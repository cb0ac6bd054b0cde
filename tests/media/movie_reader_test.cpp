#include "media/movie_reader.h"
#include "media_fixtures.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <tuple>

using namespace plim;
using namespace plim::mediatest;
using plim::testkit::TempDir;

namespace {

// The frame number a counting picture shows, read from its centre's grey level.
int levelAt(const Image& image)
{
    const uint8_t* p = image.row(image.height / 2) + 4 * (image.width / 2);
    return p[1];
}

class MovieReaderTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        MovieSpec spec; // 320 × 240, 30 fps, 2 s
        writeMovie(movie(), spec);
    }
    static fs::path movie() { return s_dir / "count.mp4"; }
    static inline TempDir s_dir;
};

} // namespace

TEST_F(MovieReaderTest, FramesInOrderWithTheirTimesAndPictures)
{
    auto reader = MovieReader::create(movie());
    ASSERT_TRUE(reader) << reader.error().sentence;
    const MovieInfo& info = (*reader)->info();
    EXPECT_EQ(info.width, 320);
    EXPECT_EQ(info.height, 240);
    EXPECT_NEAR(info.frameRate, 30, 1e-9);
    EXPECT_NEAR(info.duration, 2, 0.05);
    EXPECT_FALSE(info.hasSound);
    EXPECT_EQ(info.codec, "h264");
    int n = 0;
    for (;;) {
        auto frame = (*reader)->next();
        ASSERT_TRUE(frame) << frame.error().sentence;
        if (!*frame)
            break;
        ASSERT_NEAR((*frame)->time, n / 30.0, 1e-6);
        ASSERT_EQ((*frame)->image.width, 320);
        ASSERT_NEAR(levelAt((*frame)->image), countingLevel(n), 3) << "frame " << n;
        ++n;
    }
    EXPECT_EQ(n, 60);
    EXPECT_FALSE((*reader)->wasCutShort());
}

TEST_F(MovieReaderTest, SeeksToThePictureShowingAtATime)
{
    auto reader = MovieReader::create(movie());
    ASSERT_TRUE(reader);
    // Backwards and forwards, between frames, before the start.
    for (auto [at, frameAt] : std::vector<std::pair<double, int>>{
             {1.0, 30}, {1.01, 30}, {0.51, 15}, {1.99, 59}, {0.2, 6}, {-1, 0}, {1.5, 45}}) {
        ASSERT_TRUE((*reader)->seek(at));
        auto frame = (*reader)->next();
        ASSERT_TRUE(frame && *frame) << at;
        EXPECT_NEAR((*frame)->time, frameAt / 30.0, 1e-6) << at;
        EXPECT_NEAR(levelAt((*frame)->image), countingLevel(frameAt), 3) << at;
        auto after = (*reader)->next();
        if (frameAt < 59) {
            ASSERT_TRUE(after && *after);
            EXPECT_NEAR((*after)->time, (frameAt + 1) / 30.0, 1e-6) << "the frame after " << at;
        }
    }
}

// Raw pictures keep their own pixels while the decoder goes on (it must not hand their
// buffers out again), outlive the reader, convert on another thread, and come out as
// `next()` gives them, at the reader's size.
TEST_F(MovieReaderTest, RawPicturesKeepTheirPixelsUntilConverted)
{
    // Options (a scaled size and decoder threads), and the size that comes out.
    for (auto [options, width, height] : std::vector<std::tuple<MovieReader::Options, int, int>>{
             {{0, 0, 1}, 320, 240}, {{160, 120, 2}, 160, 120}, {{0, 0, 4}, 320, 240}}) {
        SCOPED_TRACE(testing::Message() << width << " x " << height << ", " << options.threads << " threads");
        std::vector<RawVideoFrame> held;
        std::vector<Image> direct;
        {
            auto raw = MovieReader::create(movie(), options);
            auto plain = MovieReader::create(movie(), options);
            ASSERT_TRUE(raw && plain);
            for (;;) {
                auto frame = (*raw)->nextRaw();
                ASSERT_TRUE(frame) << frame.error().sentence;
                if (!*frame)
                    break;
                EXPECT_NEAR((*frame)->time, static_cast<double>(held.size()) / 30.0, 1e-6);
                EXPECT_EQ((*frame)->width, 320);
                held.push_back(std::move(**frame));
                auto same = (*plain)->next();
                ASSERT_TRUE(same && *same);
                direct.push_back((*same)->image.clone());
            }
            ASSERT_EQ(held.size(), 60u);
            auto converted = std::async(std::launch::async, [&, converter = (*raw)->converter()]() mutable {
                std::vector<Image> out;
                for (const auto& frame : held)
                    if (auto image = converter.convert(frame))
                        out.push_back(image->clone());
                return out;
            }).get();
            ASSERT_EQ(converted.size(), held.size());
            for (size_t n = 0; n < held.size(); ++n) {
                ASSERT_EQ(converted[n].width, width);
                ASSERT_EQ(converted[n].height, height);
                EXPECT_EQ(std::memcmp(converted[n].row(height / 2), direct[n].row(height / 2), 4 * width), 0)
                    << "frame " << n;
            }
            EXPECT_NEAR(levelAt(direct[30]), countingLevel(30), 3) << "scaled in the same pass";
        }
        // The reader is gone; its pictures are not.
        PictureConverter late("count.mp4");
        for (size_t n : {size_t{0}, size_t{29}, size_t{59}}) {
            auto image = late.convert(held[n]);
            ASSERT_TRUE(image) << image.error().sentence;
            EXPECT_NEAR(levelAt(*image), countingLevel(static_cast<int>(n)), 3) << "frame " << n;
        }
    }
    auto nothing = PictureConverter("count.mp4").convert(RawVideoFrame{});
    ASSERT_FALSE(nothing);
    EXPECT_NE(nothing.error().sentence.find("count.mp4"), std::string::npos) << nothing.error().sentence;
}

TEST_F(MovieReaderTest, FailuresAreSentencesAndLeaveFilesAlone)
{
    fs::path text = s_dir / "notes.mp4";
    testkit::writeText(text, "these are notes, not a movie\n");

    fs::path soundOnly = s_dir / "sound.m4a";
    auto made = testkit::runCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
        "sine=frequency=440:duration=1", "-c:a", "aac", soundOnly.string()});
    ASSERT_EQ(made.status, 0) << made.err;

    fs::path unknown = s_dir / "unknown.mp4";
    fs::copy_file(movie(), unknown);
    patchFourcc(unknown, "avc1", "zq9x");

    fs::path cut = s_dir / "cut.mp4";
    fs::copy_file(movie(), cut);
    fs::resize_file(cut, fs::file_size(cut) * 6 / 10);

    // Cut inside its header; a pipe and a folder where the movie belongs.
    fs::path header = s_dir / "header.mp4";
    fs::copy_file(movie(), header);
    fs::resize_file(header, 40);
    fs::path pipe = s_dir / "pipe.mov";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    fs::create_directory(s_dir / "folder.mov");

    // 30 KB that would decode to 16000 × 16000 (one-bit PNG pictures, cheap to make).
    fs::path huge = s_dir / "huge.mov";
    made = testkit::runCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
        "color=c=black:s=16000x16000,format=monob", "-frames:v", "1", "-c:v", "png", huge.string()});
    ASSERT_EQ(made.status, 0) << made.err;

    for (const auto& [path, kind, sentence] : std::vector<std::tuple<fs::path, Error::Kind, std::string>>{
             {s_dir / "absent.mp4", Error::Kind::missing, "There is no movie at "},
             {text, Error::Kind::corrupt, "notes.mp4 is not a movie Plim can read"},
             {soundOnly, Error::Kind::refused, "sound.m4a has no picture track (only sound)"},
             {header, Error::Kind::corrupt, "header.mp4 ends early, inside its header"},
             {pipe, Error::Kind::unreadable, "pipe.mov is not a movie file (it is not an ordinary file)"},
             {s_dir / "folder.mov", Error::Kind::unreadable,
                 "folder.mov is not a movie file (it is a folder, not a file)"},
             {unknown, Error::Kind::unreadable, "which this build of Plim cannot decode"},
             {huge, Error::Kind::refused,
                 "huge.mov holds pictures of 16000 × 16000, more than the 36 million pixels "
                 "Plim decodes (one such picture would take 976 MB). Scale it down"},
         }) {
        std::string before = fs::is_regular_file(path) ? testkit::readText(path) : "";
        auto reader = MovieReader::create(path);
        ASSERT_FALSE(reader) << path;
        EXPECT_EQ(reader.error().kind, kind) << reader.error().sentence;
        EXPECT_NE(reader.error().sentence.find(sentence), std::string::npos) << reader.error().sentence;
        EXPECT_EQ(reader.error().sentence.back(), '.');
        if (fs::is_regular_file(path)) {
            EXPECT_EQ(testkit::readText(path), before);
        }
    }

    // A movie cut short gives its pictures up to the cut, then says so once.
    auto reader = MovieReader::create(cut);
    ASSERT_TRUE(reader) << reader.error().sentence;
    int frames = 0;
    std::optional<Error> error;
    for (;;) {
        auto frame = (*reader)->next();
        if (!frame) {
            error = frame.error();
            continue;
        }
        if (!*frame)
            break;
        ++frames;
    }
    EXPECT_GT(frames, 10);
    EXPECT_LT(frames, 60);
    ASSERT_TRUE(error);
    EXPECT_NE(error->sentence.find("cut.mp4 stops part way"), std::string::npos) << error->sentence;
    EXPECT_EQ(error->kind, Error::Kind::corrupt);
    EXPECT_TRUE((*reader)->wasCutShort());
    EXPECT_LT(std::atoi(probe(cut, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str()), 60)
        << "ffprobe also reads fewer pictures";
}
