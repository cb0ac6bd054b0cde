#pragma once
// How a pointer track's text is read. The reader (on simdjson's On-Demand front end) only
// reports what it found at the keys Plim knows (TrackValue); the rules below and the track's
// own finishing step decide what that is worth. An hour of recording holds some 216,000
// samples, so the text is read in one pass without building a tree or a tape.

#include "capture/cursor_track.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

// What a reader saw at one key. JSON null counts as absent.
struct TrackValue {
    enum class Kind { absent, boolean, signedInteger, unsignedInteger, real, string, array, object, other };
    Kind kind = Kind::absent;
    bool boolean = false;
    int64_t signedInteger = 0;
    uint64_t unsignedInteger = 0;
    double real = 0;

    bool operator==(const TrackValue&) const = default;
};

// Any finite number.
std::optional<double> trackNumber(const TrackValue& value);
// A finite number at most track_limits::farthestPoint from 0: a position or a size.
std::optional<double> trackPoint(const TrackValue& value);
// An integer, or a number with no fractional part that fits 64 bits.
std::optional<int64_t> trackInteger(const TrackValue& value);
// A whole number of milliseconds at most longestRecordingMS from 0.
std::optional<int64_t> trackTime(const TrackValue& value);
// 1 for true or any non-zero number, else 0.
int trackTypingFlag(const TrackValue& value);

// How the entries of one array are read: the keys looked at, and what an entry with those
// values makes. `whole` is the entry itself; `at` holds the keys' values, all absent when
// the entry is not an object.
template<typename T>
struct TrackEntry;

template<>
struct TrackEntry<CursorSample> {
    static constexpr std::array<std::string_view, 4> keys{"t", "x", "y", "k"};
    static std::optional<CursorSample> make(const TrackValue& whole, const std::array<TrackValue, 4>& at);
};

template<>
struct TrackEntry<ClickEvent> {
    static constexpr std::array<std::string_view, 3> keys{"t", "x", "y"};
    static std::optional<ClickEvent> make(const TrackValue& whole, const std::array<TrackValue, 3>& at);
};

template<>
struct TrackEntry<Mark> {
    static constexpr std::array<std::string_view, 1> keys{"t"};
    static std::optional<Mark> make(const TrackValue& whole, const std::array<TrackValue, 1>& at);
};

template<>
struct TrackEntry<CursorTrack::FrameKey> {
    static constexpr std::array<std::string_view, 5> keys{"t", "x", "y", "w", "h"};
    static std::optional<CursorTrack::FrameKey> make(const TrackValue& whole, const std::array<TrackValue, 5>& at);
};

// One of the four arrays as found: the usable entries in file order and how many were not.
template<typename T>
struct TrackList {
    enum class State { absent, notAList, list };
    State state = State::absent;
    std::vector<T> items;
    size_t dropped = 0;
};

inline constexpr std::array<std::string_view, 5> trackGeometryKeys{
    "displayX", "displayY", "displayWidth", "displayHeight", "scale"};

// Everything a reader found in a track's top-level object, before the lenient rules run.
struct CursorTrackFields {
    std::array<TrackValue, 5> geometry; // in trackGeometryKeys order
    TrackValue videoStartOffsetMS;
    TrackValue subjectKind;
    std::string subjectKindText; // when subjectKind is a string
    TrackValue cameraOffsetMS;
    TrackList<CursorSample> samples;
    TrackList<ClickEvent> clicks;
    TrackList<Mark> marks;
    TrackList<CursorTrack::FrameKey> frames;
};

enum class TrackTextFailure { notJson, notAnObject };

// Reads JSON text. A leading UTF-8 byte order mark is allowed, a NUL byte ends the text,
// nesting is unlimited; valid JSON whose top value is not an object is `notAnObject`.
// Where a key repeats, the last one counts. `readablePastEnd` says how many bytes after the
// text may be read (not changed): with 64 or more the text is parsed where it lies, without
// a padded copy.
std::expected<CursorTrackFields, TrackTextFailure> readTrackFields(std::string_view text, size_t readablePastEnd = 0);

} // namespace plim
