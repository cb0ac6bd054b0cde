#pragma once
// The pointer track of one plim: samples at 60 Hz, clicks, marks and the recorded
// window's frame changes, written beside the screen movie as B.cursor.json.
//
// Times are whole milliseconds on the recorder's own clock (0 = recorder start, paused
// time left out). Positions are global display points, origin at the top-left corner of
// the main display, y growing downward (so a display above the main one has negative y).

#include "base/decoded.h"
#include "base/error.h"
#include "base/files.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

// The longest recording Plim makes sense of. Walks over a recording's time (the automatic
// edit's ticks, the pointer's smoothing) are bounded by it, a track's stamps further than
// this from its start are unusable, and longer lengths are refused.
inline constexpr double longestRecordingSeconds = 24 * 3600;
inline constexpr int64_t longestRecordingMS = 24 * 3600 * 1000;

// The ranges a track's numbers are read in. Positions and window frames lie within a
// million points of the origin (X11 screens end at 32767 pixels); the display is at least
// a point across and its scale that of a real screen. An entry outside is dropped and a
// geometry value brought to the nearer end, each with a notice.
namespace track_limits {
inline constexpr double farthestPoint = 1'000'000;
inline constexpr double smallestDisplay = 1;
inline constexpr double smallestScale = 0.25;
inline constexpr double largestScale = 8;
} // namespace track_limits

struct CursorSample {
    int64_t t = 0;
    double x = 0; // rounded to one decimal
    double y = 0; // rounded to one decimal
    int k = 0;    // 1 when a key went down less than 1/30 s before the sample
    bool operator==(const CursorSample&) const = default;
};

// A left or right button press; not rounded.
struct ClickEvent {
    int64_t t = 0;
    double x = 0;
    double y = 0;
    bool operator==(const ClickEvent&) const = default;
};

// An instant the user marked while recording.
struct Mark {
    int64_t t = 0;
    bool operator==(const Mark&) const = default;
};

struct CursorJournalFold;

struct CursorTrack {
    // From `t` on, the recorded window occupies this rectangle.
    struct FrameKey {
        int64_t t = 0;
        double x = 0;
        double y = 0;
        double w = 0;
        double h = 0;
        bool operator==(const FrameKey&) const = default;
    };

    double displayX = 0;
    double displayY = 0;
    double displayWidth = 0;
    double displayHeight = 0;
    double scale = 1.0;
    int64_t videoStartOffsetMS = 0;
    std::optional<std::string> subjectKind;
    std::optional<int64_t> cameraOffsetMS;
    std::vector<CursorSample> samples;
    std::vector<ClickEvent> clicks;
    std::vector<Mark> marks;
    std::vector<FrameKey> frames;

    bool operator==(const CursorTrack&) const = default;

    // The track of a connected-device recording, which has no pointer.
    static CursorTrack deviceTrack(double pixelWidth, double pixelHeight);

    // B.mov -> B.cursor.json
    static fs::path fileBeside(const fs::path& movie);

    // B.mov -> B.cursor.journal: what a recording in progress has kept so far, one track
    // per line (encodedLine), each with the geometry and the entries added since the line
    // before. The final write folds it in and removes it.
    static fs::path journalBeside(const fs::path& movie);

    // Lenient: missing optional keys take their defaults, unusable entries (a time further
    // than longestRecordingMS from 0 is unusable too) are dropped
    // and the rest sorted into time order, with a notice naming `fileName` for what was
    // repaired. Fails with a whole sentence (kind unreadable) when the text is not a JSON
    // object or a geometry key (displayX, displayY, displayWidth, displayHeight, scale) is
    // missing or not a number.
    static Result<Decoded<CursorTrack>> fromText(std::string_view text, std::string_view fileName);

    // The file's bytes: keys sorted, two-space indents, all four arrays always present and
    // the optional keys left out when absent. Numbers that are not finite are null.
    std::string encoded() const;

    // The same text on one line, without indents, ending in a line break: a journal line.
    std::string encodedLine() const;

    // Writes encoded() atomically to fileBeside(movie), then removes the journal beside
    // the movie: this track is the whole recording, so the journal is folded in.
    Status write(const fs::path& movie) const;

    // Appends encodedLine() to the journal beside the movie and waits until it is on the
    // disk. A failed append leaves the journal as it was before.
    Status appendToJournal(const fs::path& movie) const;

    // Reads fileBeside(movie) through fromText; the file is left exactly as it is
    // whatever happens. When it is missing but a journal is there (the recording was cut
    // off), the track is rebuilt from the journal's lines, with a notice saying so; a
    // damaged line is skipped. Fails with kind `missing` when neither is there.
    static Result<Decoded<CursorTrack>> read(const fs::path& movie);

    // The track rebuilt from the journal beside the movie alone, as read() does, with the
    // count of damaged lines it left out. Fails with a whole sentence: `missing` when there
    // is no journal, `unreadable` when it or every line of it cannot be read.
    static Result<CursorJournalFold> readJournal(const fs::path& movie);
};

// A track rebuilt from its journal, and the damaged lines it left out.
struct CursorJournalFold {
    Decoded<CursorTrack> track;
    size_t damagedLines = 0;
};

// Rounds to one decimal: the value times 10 rounded half away from zero, divided by 10.
double roundToTenth(double value);

} // namespace plim
