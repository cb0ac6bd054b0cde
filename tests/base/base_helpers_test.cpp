#include "base/clock.h"
#include "base/dates.h"
#include "base/error.h"
#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "base/places.h"
#include "base/settings.h"
#include "base/text.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <cmath>
#include <fstream>
#include <sys/stat.h>

using namespace plim;
using namespace plim::testkit;

TEST(Files, ReadsWholeOrdinaryFilesAndTellsAbsentFromUnreadable)
{
    TempDir dir;
    std::string big(200001, 'x');
    for (size_t i = 0; i < big.size(); i += 97)
        big[i] = static_cast<char>('a' + i % 26);
    writeText(dir / "big", big);
    EXPECT_EQ(readFileBytes(dir / "big").value(), big);
    writeText(dir / "empty", "");
    EXPECT_EQ(readFileBytes(dir / "empty").value(), "");
    // Files whose reported size is 0 but that hold text.
    EXPECT_NE(readFileBytes("/proc/self/status").value_or("").find("Name:"), std::string::npos);

    auto absent = readFileBytes(dir / "nothing");
    ASSERT_FALSE(absent);
    EXPECT_EQ(absent.error().kind, Error::Kind::missing);

    // Nothing that is not an ordinary file of honest size is read, and nothing blocks.
    fs::create_directory(dir / "folder");
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
    fs::create_symlink("/dev/zero", dir / "zero");
    {
        std::ofstream sparse(dir / "sparse");
    }
    fs::resize_file(dir / "sparse", uint64_t(64) << 30);
    for (auto [name, reason] : std::vector<std::pair<std::string, std::string>>{
             {"folder", "it is a folder, not a file"}, {"pipe", "it is not an ordinary file"},
             {"zero", "it is not an ordinary file"}, {"sparse", "it holds 64.0 GB, far more than such a file can"}}) {
        auto read = readFileBytes(dir / name);
        ASSERT_FALSE(read) << name;
        EXPECT_EQ(read.error(), (Error{reason, Error::Kind::unreadable})) << name;
    }
    writeText(dir / "small", std::string(100, 'x'));
    EXPECT_EQ(readFileBytes(dir / "small", 99).error().sentence, "it holds 0.0 MB, far more than such a file can");
    EXPECT_EQ(readFileBytes(dir / "small", 100)->size(), 100u);
}

TEST(Files, SidecarsReplaceTheExtensionAndAtomicWritesReplaceWholeLeavingNoTemporary)
{
    EXPECT_EQ(sidecarPath("/x/screen.mov", "cursor.json"), fs::path("/x/screen.cursor.json"));
    EXPECT_EQ(sidecarPath("/x/B copy.mov", "id.json"), fs::path("/x/B copy.id.json"));
    EXPECT_EQ(sidecarPath("/x/noext", "keys.json"), fs::path("/x/noext.keys.json"));
    EXPECT_EQ(baseName("/x/B.2.mov"), "B.2");
    EXPECT_EQ(pathWithoutExtension("/x/B.mov"), "/x/B");
    TempDir dir;
    writeText(dir / "a.json", "old");
    ASSERT_TRUE(writeFileAtomic(dir / "a.json", "new contents"));
    EXPECT_EQ(readText(dir / "a.json"), "new contents");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);

    // A folder that does not exist: an error sentence, nothing created.
    auto failed = writeFileAtomic(dir / "missing" / "b.json", "x");
    ASSERT_FALSE(failed);
    EXPECT_NE(failed.error().sentence.find("Could not write"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST(Files, PublishingKeepsEveryFileUnlessAskedToReplaceAndNamesFitTheFileSystem)
{
    TempDir dir;
    // A legal 254-byte name (two-byte letters up to it): its partial and parked names still
    // fit in 255 bytes, cut where a letter starts, and writing it atomically works.
    std::string stem;
    while (stem.size() < 250)
        stem += "\xC3\xA9";
    const fs::path longName = dir / (stem + ".mp4");
    ASSERT_EQ(longName.filename().string().size(), 254u);
    for (const fs::path& sibling : {partialSibling(longName), parkedSibling(longName)}) {
        EXPECT_LE(sibling.filename().string().size(), 255u) << sibling;
        EXPECT_EQ(sibling.extension(), ".mp4");
        EXPECT_TRUE(isValidUtf8(sibling.filename().string()));
    }
    ASSERT_TRUE(writeFileAtomic(longName, "whole")) << "its temporary name must fit too";

    // As a new file: the name when free, else the next free one; a file that took the name
    // meanwhile is kept, and so is the one published.
    auto publish = [&](const std::string& bytes, const fs::path& wished, Publish how) {
        fs::path partial = partialSibling(wished);
        writeText(partial, bytes);
        auto named = publishFile(partial, wished, how);
        EXPECT_FALSE(fs::exists(partial));
        return named;
    };
    writeText(dir / "clip.mp4", "the user's");
    EXPECT_EQ(publish("one", dir / "clip.mp4", Publish::asNewFile), dir / "clip 2.mp4");
    EXPECT_EQ(publish("two", dir / "clip.mp4", Publish::asNewFile), dir / "clip 3.mp4");
    auto longCopy = publish("long", longName, Publish::asNewFile);
    ASSERT_TRUE(longCopy);
    EXPECT_LE(longCopy->filename().string().size(), 255u);
    EXPECT_EQ(readText(*longCopy), "long");
    EXPECT_EQ(readText(dir / "clip.mp4"), "the user's");
    EXPECT_EQ(readText(dir / "clip 2.mp4"), "one");
    EXPECT_EQ(readText(longName), "whole");

    // Replacing: the new file takes the name and nothing is left parked or partial.
    EXPECT_EQ(publish("three", dir / "clip.mp4", Publish::replacing), dir / "clip.mp4");
    EXPECT_EQ(readText(dir / "clip.mp4"), "three");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 5);
    fs::create_directory(dir / "folder.mp4");
    fs::path partial = partialSibling(dir / "folder.mp4");
    writeText(partial, "x");
    EXPECT_FALSE(publishFile(partial, dir / "folder.mp4", Publish::replacing));
    EXPECT_TRUE(fs::is_directory(dir / "folder.mp4"));

}

TEST(Json, WrittenSortedPrettyAndReadLeniently)
{
    TempDir dir;
    Json j = {{"zeta", 1}, {"alpha", 2.5}, {"mid", "x"}};
    ASSERT_TRUE(writeJsonAtomic(dir / "v.json", j));
    std::string text = readText(dir / "v.json");
    EXPECT_LT(text.find("alpha"), text.find("mid"));
    EXPECT_LT(text.find("mid"), text.find("zeta"));
    EXPECT_NE(text.find("\n  \""), std::string::npos);

    auto back = readJsonFile(dir / "v.json");
    ASSERT_TRUE(back);
    EXPECT_EQ(jsonInteger(*back, "zeta"), 1);
    EXPECT_EQ(jsonNumber(*back, "alpha"), 2.5);
    EXPECT_EQ(jsonInteger(*back, "alpha"), std::nullopt);
    EXPECT_EQ(jsonString(*back, "zeta"), std::nullopt);
    EXPECT_EQ(jsonBool(*back, "nothing"), std::nullopt);

    writeText(dir / "bad.json", "{ \"a\": ");
    auto bad = readJsonFile(dir / "bad.json");
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().kind, Error::Kind::corrupt);
    EXPECT_EQ(readText(dir / "bad.json"), "{ \"a\": ");
    writeText(dir / "empty.json", "");
    EXPECT_EQ(readJsonFile(dir / "empty.json").error().kind, Error::Kind::corrupt);
    EXPECT_EQ(readJsonFile(dir / "none.json").error().kind, Error::Kind::missing);

    // Nesting is capped before parsing; brackets inside strings do not count.
    std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(parseJson(deep).error(), (Error{"its values nest more than 128 deep, far deeper than any Plim file",
                                           Error::Kind::corrupt}));
    EXPECT_TRUE(parseJson(std::string(128, '[') + std::string(128, ']')));
    EXPECT_EQ(jsonNestingDepth(R"({"a": "[[[[\"[[", "b": [{}]})"), 3);
}

TEST(Places, FollowTheXdgVariables)
{
    XdgSandbox sandbox;
    EXPECT_EQ(Places::home(), sandbox.home());
    EXPECT_EQ(Places::dataHome(), sandbox.home() / ".local/share");
    EXPECT_EQ(Places::settingsFile(), sandbox.home() / ".config/plim/settings.json");
    EXPECT_EQ(Places::videosDir(), sandbox.videos());

    ScopedEnv noVideos("XDG_VIDEOS_DIR", std::nullopt);
    EXPECT_EQ(Places::videosDir(), std::nullopt);
    fs::create_directories(sandbox.home() / ".config");
    writeText(sandbox.home() / ".config/user-dirs.dirs", "# comment\nXDG_VIDEOS_DIR=\"$HOME/Filme\"\n");
    EXPECT_EQ(Places::videosDir(), sandbox.home() / "Filme");
    writeText(sandbox.home() / ".config/user-dirs.dirs", "XDG_VIDEOS_DIR=\"$HOME/\"\n");
    EXPECT_EQ(Places::videosDir(), std::nullopt);

    ScopedEnv relative("XDG_DATA_HOME", "relative/path");
    EXPECT_EQ(Places::dataHome(), sandbox.home() / ".local/share");
}

TEST(Settings, RoundTripAndRefuseToReplaceADamagedFile)
{
    TempDir dir;
    FileSettingsStore store(dir / "conf" / "settings.json");
    EXPECT_TRUE(store.boolean("captions.enabled", true));
    ASSERT_TRUE(store.setValue("captions.enabled", false));
    ASSERT_TRUE(store.setValue("shareScale", 0.5));
    EXPECT_FALSE(store.boolean("captions.enabled", true));
    EXPECT_EQ(store.number("shareScale", 1), 0.5);
    EXPECT_EQ(store.string("shareScale", "fallback"), "fallback");
    ASSERT_TRUE(store.remove("shareScale"));
    EXPECT_EQ(store.value("shareScale"), std::nullopt);

    writeText(store.path(), "not json");
    EXPECT_TRUE(store.boolean("captions.enabled", true));
    auto refused = store.setValue("captions.enabled", true);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().sentence.find("was left as it is"), std::string::npos);
    EXPECT_EQ(readText(store.path()), "not json");
}

TEST(Dates, Iso8601RoundTripsAndRefusesWhatNoClockHolds)
{
    using namespace std::chrono;
    auto t = parseIso8601("2026-11-22T21:04:05Z");
    ASSERT_TRUE(t);
    EXPECT_EQ(iso8601(*t), "2026-11-22T21:04:05Z");
    EXPECT_EQ(parseIso8601("2026-11-22T23:04:05+02:00"), t);
    EXPECT_EQ(readableDate(*t), "Nov 22, 2026 at 9:04:05 PM");
    const std::string longFraction = "2026-11-22T21:04:05." + std::string(400, '9') + "Z";
    struct Case {
        std::string text;
        std::optional<int64_t> millis; // since the epoch, when the text is an instant
        bool systemClock;              // whether the system clock holds it
    };
    for (const Case& k : std::vector<Case>{
             {"1970-01-01T00:00:01.5Z", 1500, true},
             {"2026-11-22T21:04:05.250Z", 1795381445250, true},
             {"1970-01-01T00:00:00.0001z", 0, true},
             {longFraction, 1795381445999, true},
             {"2024-02-29T12:00:00Z", 1709208000000, true},
             {"1970-01-01T01:00:00+01:00", 0, true},
             {"9999-12-31T23:59:59Z", 253402300799000, false},
             {"0000-01-01T00:00:00Z", -62167219200000, false},
             {"1600-01-01T00:00:00Z", -11676096000000, false},
             {"2016-12-31T23:59:60Z", std::nullopt, false},
             {"2023-02-29T12:00:00Z", std::nullopt, false},
             {"0000-01-01T00:00:00+00:01", std::nullopt, false},
             {"9999-12-31T23:59:59-00:01", std::nullopt, false},
             {"2026-11-22T21:04:05+24:00", std::nullopt, false},
             {"2026-11-22T21:04:05.Z", std::nullopt, false},
             {"+12026-11-22T21:04:05Z", std::nullopt, false},
             {"", std::nullopt, false},
             {"2026-11-22 21:04:05", std::nullopt, false},
             {"2026-13-22T21:04:05Z", std::nullopt, false},
             {"2026-11-22T21:04:05Zjunk", std::nullopt, false},
         }) {
        auto millis = parseIso8601Millis(k.text);
        EXPECT_EQ(millis.transform([](auto t) { return t.time_since_epoch().count(); }), k.millis) << k.text.substr(0, 40);
        auto system = parseIso8601(k.text);
        EXPECT_EQ(system.has_value(), k.systemClock) << k.text.substr(0, 40);
        if (system && millis) {
            EXPECT_EQ(duration_cast<milliseconds>(system->time_since_epoch()).count(), *k.millis);
        }
    }
}

TEST(Dates, UuidsAreWellFormedAndDistinctAndLogLinesCarryTheirPrefix)
{
    std::string a = makeUuid(), b = makeUuid();
    EXPECT_TRUE(isUuid(a));
    EXPECT_NE(a, b);
    EXPECT_EQ(a[14], '4');
    EXPECT_FALSE(isUuid("not-a-uuid"));
    EXPECT_FALSE(isUuid("E621E1F8-C36C-495A-93FC-0C247A3E6E5G"));

    // The log's capture sees each line with its area's prefix.
    LogCapture capture;
    logLine(LogArea::share, "wrote a movie");
    logLine("Plim: plain line");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Plim share: wrote a movie");
    EXPECT_TRUE(capture.contains("plain line"));
}

TEST(Clock, EventStampsAreTakenOnlyWhenTheyCanBeFromThisClock)
{
    // An X server's 32-bit millisecond stamp, read 12 ms later.
    EXPECT_DOUBLE_EQ(uptimeOfMilliseconds32(100'000, 100.0125), 100.0);
    // Across the wrap: 2^32 ms (4294967.296 s) after boot, the server's counter starts again at 0.
    EXPECT_DOUBLE_EQ(uptimeOfMilliseconds32(4294967290u, 4294967.3005), 4294967.290);
    EXPECT_DOUBLE_EQ(uptimeOfMilliseconds32(2, 4294967.3065), 4294967.298);
    // Older than a second, from the future, or before boot: another clock.
    EXPECT_TRUE(std::isnan(uptimeOfMilliseconds32(98'000, 100.0)));
    EXPECT_TRUE(std::isnan(uptimeOfMilliseconds32(100'050, 100.0)));
    EXPECT_TRUE(std::isnan(uptimeOfMilliseconds32(4294967000u, 0.5)));

    EXPECT_EQ(eventInstant(99.5, 100.0), 99.5);
    EXPECT_EQ(eventInstant(100.0, 100.0), 100.0);
    for (double unknown : {-1.0, std::nan(""), 98.9, 100.001})
        EXPECT_EQ(eventInstant(unknown, 100.0), 100.0) << unknown;
}

TEST(Error, TryPassesErrorsUpFromResultsAndStatuses)
{
    auto half = [](int v) -> Result<int> { return v % 2 ? fail("odd") : Result<int>(v / 2); };
    auto quarter = [&](int v) -> Result<int> {
        int h = PLIM_TRY(half(v));
        return PLIM_TRY(half(h));
    };
    auto checkAll = [](std::initializer_list<int> values) -> Status {
        for (int v : values)
            PLIM_TRY(v > 0 ? Status{} : fail("not positive"));
        return {};
    };
    EXPECT_EQ(quarter(8), 2);
    EXPECT_EQ(quarter(6).error().sentence, "odd");
    EXPECT_TRUE(checkAll({1, 2}));
    EXPECT_EQ(checkAll({1, -2, 3}).error().sentence, "not positive");
}

TEST(Text, EncodesAndDecodesCodePoints)
{
    for (auto [c, bytes] : std::vector<std::pair<char32_t, std::string>>{{U'A', "A"}, {U'ß', "\xc3\x9f"},
             {U'€', "\xe2\x82\xac"}, {U'😀', "\xf0\x9f\x98\x80"}, {0xD800, ""}, {0x110000, ""}}) {
        EXPECT_EQ(utf8Encode(c), bytes) << static_cast<uint32_t>(c);
        if (bytes.empty())
            continue;
        size_t at = 0;
        EXPECT_EQ(utf8Decode(bytes, at), c);
        EXPECT_EQ(at, bytes.size());
    }
    for (std::string bad : {"\xff", "\xc3", "\xe2\x82", "\xed\xa0\x80", "\xc0\xaf"}) {
        size_t at = 0;
        EXPECT_FALSE(utf8Decode(bad, at));
        EXPECT_EQ(at, 0u);
        EXPECT_FALSE(isValidUtf8("ok" + bad));
    }
    EXPECT_TRUE(isValidUtf8("Größe €"));
}

TEST(Text, CountsUserPerceivedCharacters)
{
    // "a\377b" holds the byte 0xff, which is no character, between two letters.
    for (auto [text, count] : std::vector<std::pair<std::string, size_t>>{{"", 0}, {"abc", 3}, {"e\xcc\x81", 1},
             {"\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd", 1}, {"\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa", 1}, {"\r\n", 1},
             {"a\377b", 3}, {"\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x92\xbb!", 2}})
        EXPECT_EQ(graphemeCount(text), count) << text;
}

// Escape sequences, C1 controls and bytes that are not UTF-8 are checked where plimctl
// prints moments and plim names.
TEST(Text, CasesEscapesAndPercentEncodingKeepEveryByte)
{
    for (auto [lower, upper] : {std::pair{U'a', U'A'}, {U'ÿ', U'Ÿ'}, {U'ß', U'ẞ'}, {U'1', U'1'}})
        EXPECT_EQ(upperCase(lower), upper);
    EXPECT_EQ(upperCase(U'µ'), U'Μ');
    EXPECT_EQ(lowerCase(U'Ä'), U'ä');
    EXPECT_EQ(upperCase(0x110000), char32_t(0x110000));
    EXPECT_EQ(escapedText("plain Größe, line\nnext\ttab"), "plain Größe, line\\nnext\\ttab");
    // Percent encoding keeps every byte; decoding only takes whole escapes.
    const std::string path = "/home/ana/Vid\xC3\xA9os/a b%#?.mov";
    EXPECT_EQ(percentEncoded(path), "/home/ana/Vid%C3%A9os/a%20b%25%23%3F.mov");
    EXPECT_EQ(percentDecoded(percentEncoded(path)), path);
    EXPECT_EQ(percentDecoded("a%2fb%2Fc"), "a/b/c");
    // Escapes that are cut short or not hex stay as they are.
    EXPECT_EQ(percentDecoded("100%"), "100%");
    EXPECT_EQ(percentDecoded("%4"), "%4");
    EXPECT_EQ(percentDecoded("%zz%4g"), "%zz%4g");
    EXPECT_EQ(percentDecoded("%00").size(), 1u);
}
