#include "base/json.h"
#include "base/log.h"
#include "capture/cursor_track.h"
#include "testkit/testkit.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>

using namespace plim;
using namespace plim::testkit;

namespace {

using Outcome = Result<Decoded<CursorTrack>>;

const std::string fileName = "B.cursor.json";

// The reader agrees with nlohmann's parser on what is JSON, and reads the text exactly as it
// reads nlohmann's own compact rewrite of it (escapes resolved, numbers normalised, repeated
// keys collapsed to the last), notices included. Text nlohmann refuses is corrupt.
void expectAgree(const std::string& text, const std::string& what)
{
    SCOPED_TRACE(what + ": " + text.substr(0, 300));
    LogCapture log;
    Outcome read = CursorTrack::fromText(text, fileName);
    EXPECT_TRUE(log.lines().empty());
    // Past the depth of a list entry's values only a value's kind matters to the reader, so
    // deeper levels are left out of the rewrite (which keeps it shallow enough to print).
    Json tree = Json::parse(
        text, [](int depth, Json::parse_event_t event, Json&) {
            return depth <= 6 || event == Json::parse_event_t::object_end || event == Json::parse_event_t::array_end;
        },
        false);
    if (!tree.is_discarded()) {
        Outcome canonical = CursorTrack::fromText(tree.dump(), fileName);
        ASSERT_EQ(read.has_value(), canonical.has_value());
        if (read) {
            EXPECT_TRUE(read->value == canonical->value) << read->value.encoded() << "\n-----\n" << canonical->value.encoded();
            EXPECT_EQ(read->notices, canonical->notices);
        } else {
            EXPECT_EQ(read.error(), canonical.error());
        }
        return;
    }
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().kind, Error::Kind::unreadable);
    const char* reason = text.empty() ? "(the file is empty)" : "(it is not valid JSON)";
    EXPECT_NE(read.error().sentence.find(reason), std::string::npos) << read.error().sentence;
}

// Doubles of every kind a track may hold: tenths, long fractions, huge, tiny, subnormal,
// negative zero and whole numbers.
double anyDouble(std::mt19937_64& random)
{
    std::uniform_int_distribution<int> pick(0, 6);
    std::uniform_real_distribution<double> span(-4000, 4000);
    switch (pick(random)) {
    case 0: return roundToTenth(span(random));
    case 1: return span(random);
    case 2: return std::ldexp(span(random), static_cast<int>(random() % 2000) - 1000);
    case 3: return std::numeric_limits<double>::denorm_min() * static_cast<double>(random() % 1000);
    case 4: return -0.0;
    case 5: return std::round(span(random)) * 1e10;
    default: return roundToTenth(span(random) * 1e10);
    }
}

CursorTrack anyTrack(std::mt19937_64& random, size_t entries)
{
    auto t = [&] { return static_cast<int64_t>(random() % 100000) - 1000; };
    // Braced initializers run in order, so a seed always makes the same track.
    CursorTrack track{anyDouble(random), anyDouble(random), anyDouble(random), anyDouble(random), anyDouble(random),
        static_cast<int64_t>(random()) >> (random() % 64)};
    if (random() % 2)
        track.subjectKind = random() % 2 ? "device" : "é \"q\" \\ \t\x01 \xf0\x9f\x98\x80";
    if (random() % 2)
        track.cameraOffsetMS = t();
    for (size_t i = 0; i < entries; ++i) {
        track.samples.push_back({t(), anyDouble(random), anyDouble(random), static_cast<int>(random() % 2)});
        if (i % 3 == 0)
            track.clicks.push_back({t(), anyDouble(random), anyDouble(random)});
        if (i % 4 == 0)
            track.marks.push_back({t()});
        if (i % 5 == 0)
            track.frames.push_back({t(), anyDouble(random), anyDouble(random), anyDouble(random), anyDouble(random)});
    }
    return track;
}

// The same document with every object's keys in a random order, some whole numbers written
// as doubles, and unknown keys holding nested values.
nlohmann::ordered_json reshaped(const Json& value, std::mt19937_64& random)
{
    if (value.is_object()) {
        std::vector<std::string> keys;
        for (const auto& [key, _] : value.items())
            keys.push_back(key);
        std::shuffle(keys.begin(), keys.end(), random);
        nlohmann::ordered_json out = nlohmann::ordered_json::object();
        for (const auto& key : keys) {
            if (random() % 4 == 0)
                out["unknown" + key] = nlohmann::ordered_json::parse(R"({"a": [1, {"b": ["\u00e9", null, true]}], "c": -2.5e-3})");
            out[key] = reshaped(value[key], random);
        }
        return out;
    }
    if (value.is_array()) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const auto& item : value)
            out.push_back(reshaped(item, random));
        return out;
    }
    if (value.is_number_integer() && random() % 3 == 0 && std::abs(value.get<double>()) < 1e15)
        return value.get<double>();
    return nlohmann::ordered_json::parse(value.dump());
}

} // namespace

TEST(CursorTrackReader, AgreesWithTheTreeOnValidTracksWrittenAnyWay)
{
    std::mt19937_64 random(11);
    for (int round = 0; round < 60; ++round) {
        CursorTrack track = anyTrack(random, static_cast<size_t>(round % 12));
        Json json = Json::parse(track.encoded());
        expectAgree(track.encoded(), "written");
        expectAgree(encodeJson(json), "pretty");
        ASSERT_TRUE(CursorTrack::fromText(track.encoded(), fileName));
        expectAgree(json.dump(), "compact");
        expectAgree(reshaped(json, random).dump(static_cast<int>(random() % 4) - 1), "reshaped");
    }
}

TEST(CursorTrackReader, AgreesWithTheTreeOnLenientAndOddInputs)
{
    const std::string g = R"("displayX": 0, "displayY": -1.5e1, "displayWidth": 1E3, "displayHeight": 1e+2, "scale": 2.0)";
    const std::vector<std::string> bodies = {
        R"("samples": [{"t": 5, "x": 1, "y": 2, "k": true}, {"t": 1.0, "x": -0.0, "y": 1e-400, "k": 2.5},
            {"t": 1e3, "x": 1, "y": 2, "k": "1"}, {"t": 1.5, "x": 1, "y": 2}, 1, "x", [], null, {},
            {"t": 18446744073709551615, "x": 1, "y": 2}, {"t": 9223372036854775807, "x": 1, "y": 2},
            {"t": -9223372036854775808, "x": 1, "y": 2}, {"t": -9223372036854775809, "x": 1, "y": 2},
            {"t": 3, "x": 18446744073709551616, "y": -1e-310, "k": null}, {"t": 2, "t": null, "x": 1, "y": 2},
            {"t": 2, "x": "1", "x": 4, "y": 2, "k": [1]}])",
        R"("marks": [5, 7.0, "8", {"t": 3}, 2.5, true, {"t": 1, "t": 0}, -0.0, 1e2], "clicks": {"t": 1})",
        R"("frames": [{"t": 9, "x": 0, "y": 0, "w": 1, "h": 2}, {"t": 1, "x": 0, "y": 0, "w": 1}], "frames": [{"t": 2, "x": 0, "y": 0, "w": 1, "h": 2}, {"t": 1, "x": 0, "y": 0, "w": 1, "h": 1e308}])",
        R"("videoStartOffsetMS": 1.0, "cameraOffsetMS": "soon", "subjectKind": 3, "samples": null, "marks": "none")",
        R"("videoStartOffsetMS": 9.3e18, "cameraOffsetMS": -12, "subjectKind": "d\u00e9vice\ud83d\ude00\n\"\/", "subjectKind": "device")",
        R"("scale": null, "displayX": "0", "clicks": [], "clicks": 5)",
        R"("scale": 3, "scale": true, "samples": [[[[{"t": 1}]]]], "\u0073amples": [{"\u0074": 1, "x": 1, "y": 1}])",
        R"("a\u0000": {"x": [1, 2, {"y": "\\"}]}, "": [], "displayX\u0000": "not geometry")",
        R"("\u0073cale": 4, "s\u0061mples": [{"\u0074": 7, "\u0078": 1, "y": 2}], "m\u0061rks": [1], "fr\u0061mes": [])",
    };
    for (const auto& body : bodies) {
        expectAgree("{" + g + ", " + body + "}", "lenient");
        expectAgree("{" + body + ", " + g + "}", "geometry last");
        expectAgree("{" + body + "}", "geometry missing");
    }
    const std::string deep(100000, '[');
    for (const std::string& text : std::vector<std::string>{
             "", " \n", "[1, 2]", "\"x\"", "1", "null", "true", "{}", "\xef\xbb\xbf{" + g + "}", "\xef\xbb{" + g + "}",
             "{" + g + "} x", "{" + g + "}" + std::string("\0 x", 3), std::string("[]\0", 3), std::string("\0{}", 3), "{" + g + "}{}", "{" + g + "},", "{" + g + ",}", "{" + g + "} \t\r\n", "{" + g + " /*c*/}",
             "{" + g + ", \"u\": " + deep + std::string(100000, ']') + "}", "{" + g + ", \"u\": " + deep + "}",
             "{" + g + ", \"samples\": [" + deep + std::string(100000, ']') + "]}",
             "{" + g + ", \"samples\": [{\"t\": 1, \"x\": 1, \"y\": 1, \"k\": {\"q\": " + deep + std::string(100000, ']') + "}}]}",
             "{\"displayX\": 1e400}", "{\"displayX\": -1e999}", "{\"displayX\": " + std::string(400, '7') + "}",
             "{\"displayX\": 1" + std::string(400, '0') + "e-500}", "{\"displayX\": 1" + std::string(200, '0') + "e-1000}",
             "{\"displayX\": -1e-99999999999999999999}", "{\"displayX\": 0." + std::string(400, '0') + "1e400}",
         })
        expectAgree(text, "edge");
    for (const std::string& value : std::vector<std::string>{"tru", "nul", "True", "NaN", "Infinity", "-", "01", "-01", "1.", ".5", "+1", "1e",
             "1e+", "0x10", "1.5.3", "\"\\x\"", "\"\\u12\"", "\"\\ud800\"", "\"\\ud800\\u0041\"", "\"\\udc00\"",
             "\"\\uD83D\\uDE00\"", "\"\xc0\x80\"", "\"\xed\xa0\x80\"", "\"\xf4\x90\x80\x80\"", "\"\xe2\x82\"", "\"\x7f\"",
             "\"\xef\xbf\xbf\"", "\"tab\there\"", std::string("\"nul\0\"", 6), "'x'", "[1,]", "{\"a\" 1}", "{1: 2}"})
        expectAgree("{" + g + ", \"subjectKind\": " + value + "}", "value " + value);
}

TEST(CursorTrackReader, AgreesWithTheTreeOnEveryTruncationAndByteChange)
{
    const std::string text =
        "{\"displayX\": -1, \"displayY\": 2.5, \"displayWidth\": 1e3, \"displayHeight\": 9, \"scale\": 2,\n"
        " \"samples\": [{\"t\": 1, \"x\": 0.5, \"y\": -3, \"k\": 1}, 4], \"marks\": [3, {\"t\": 2}],\n"
        " \"u\": {\"a\": [true, false, null, \"\\u00e9\\n\"]}, \"subjectKind\": \"\xc3\xa9\"}";
    for (size_t length = 0; length < text.size(); ++length)
        expectAgree(text.substr(0, length), "truncated");
    for (size_t at = 0; at < text.size(); ++at)
        for (char c : {'"', '\\', '{', '}', '[', ']', ',', ':', ' ', '0', '-', 'e', 'x', '\0', '\x80', '\xff'}) {
            std::string changed = text;
            changed[at] = c;
            expectAgree(changed, "byte " + std::to_string(at));
        }
}

TEST(CursorTrackReader, WrittenNumbersReadBackExactly)
{
    TempDir dir;
    std::mt19937_64 random(5);
    for (int round = 0; round < 40; ++round) {
        CursorTrack track = anyTrack(random, static_cast<size_t>(round * 7));
        // Brought into the ranges a track is read in, keeping every kind of digits the writer prints.
        auto within = [](double& v, double lo, double hi) { v = std::clamp(std::fmod(v, hi), lo, hi); };
        const double far = track_limits::farthestPoint;
        within(track.displayX, -far, far);
        within(track.displayY, -far, far);
        within(track.displayWidth, track_limits::smallestDisplay, far);
        within(track.displayHeight, track_limits::smallestDisplay, far);
        within(track.scale, track_limits::smallestScale, track_limits::largestScale);
        for (auto& s : track.samples)
            within(s.x, -far, far), within(s.y, -far, far);
        for (auto& c : track.clicks)
            within(c.x, -far, far), within(c.y, -far, far);
        for (auto& f : track.frames)
            within(f.x, -far, far), within(f.y, -far, far), within(f.w, -far, far), within(f.h, -far, far);
        if (round == 2)
            for (double v : {999999.9, 1e5, 1e5 - 0.1, 0.1, -0.1, 0.05, 1e6, 123456.1, 5e-324, 1e-5})
                track.clicks.push_back({0, v, -v});
        track.videoStartOffsetMS %= longestRecordingMS; // further is unusable
        // In time order, as the recorder writes them (the reader sorts what is not).
        std::ranges::stable_sort(track.samples, {}, &CursorSample::t);
        std::ranges::stable_sort(track.clicks, {}, &ClickEvent::t);
        std::ranges::stable_sort(track.marks, {}, &Mark::t);
        std::ranges::stable_sort(track.frames, {}, &CursorTrack::FrameKey::t);
        ASSERT_TRUE(track.write(dir / "B.mov"));
        auto back = CursorTrack::read(dir / "B.mov");
        ASSERT_TRUE(back) << back.error().sentence;
        EXPECT_EQ(back->value, track) << "round " << round;
        // nlohmann reads the same doubles from the text, and every double stays a double.
        Json json = Json::parse(readText(dir / "B.cursor.json"));
        ASSERT_EQ(json["clicks"].size(), track.clicks.size());
        for (size_t i = 0; i < track.clicks.size(); ++i) {
            EXPECT_TRUE(json["clicks"][i]["x"].is_number_float());
            EXPECT_EQ(json["clicks"][i]["x"].get<double>(), track.clicks[i].x);
        }
    }
    // Tenths across a wide span print as their short decimal.
    CursorTrack tenths{.displayWidth = 1, .displayHeight = 1};
    for (int64_t n = -200000; n <= 200000; n += 7)
        tenths.samples.push_back({n, static_cast<double>(n) / 10, static_cast<double>(n * 49) / 10, 0});
    std::string text = tenths.encoded();
    EXPECT_NE(text.find("\"x\": -19999.3,"), std::string::npos);
    EXPECT_EQ(CursorTrack::fromText(text, fileName)->value, tenths);

    // A number that is not finite is written as null, and that sample is dropped on reading.
    CursorTrack odd{.displayWidth = 1, .displayHeight = 1,
        .samples = {{1, std::nan(""), 2, 0}, {2, 3, std::numeric_limits<double>::infinity(), 0}, {3, 4, 5, 1}}};
    auto back = CursorTrack::fromText(odd.encoded(), fileName);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->value.samples, (std::vector<CursorSample>{{3, 4, 5, 1}}));
    EXPECT_EQ(back->notices.size(), 1u);
}
