#pragma once
// The edit plan: which stretches of a recording play, at what speed, with which cuts,
// fades, blur boxes and zoom spans. All times are source seconds; the recording's
// length (rawDuration) is passed to every query that needs it.

#include "base/decoded.h"
#include "base/error.h"
#include "base/files.h"
#include "base/geometry.h"
#include "base/json_fwd.h"
#include "plan/plim_clip.h"
#include "plan/remap_step.h"
#include "plan/zoom_block.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

// The ranges that make sense for the plan's numbers, shared by the editor and the readers:
// a file's value outside its range is read as the nearer end, and the time remap plays
// no stretch faster or slower than the speed range, so an output never lasts longer than
// the recording.
namespace plan_limits {
inline constexpr double minZoomScale = 1.0;
inline constexpr double maxZoomScale = 4.0;
inline constexpr double minSkipRate = 1.0;
inline constexpr double maxSkipRate = 16.0;
inline constexpr double minCameraScale = 0.4;
inline constexpr double maxCameraScale = 2.5;
// The most entries one of the plan's lists (zooms, skips, masks, cuts, taps, splits, clips)
// holds: far past what anyone edits by hand, and few enough that the plan is worked out at
// once. A file holding more is refused as a whole.
inline constexpr std::size_t mostEntries = 10'000;
// The longest the clips may add up to: a day, as long as a recording may last.
inline constexpr double longestClipsSeconds = 24 * 3600;
// The largest edits file read: ten thousand entries in every list fit several times over.
inline constexpr std::size_t largestFileBytes = std::size_t(16) << 20;
} // namespace plan_limits

// An idle stretch found by the automatic edit and what to do with it.
struct SkipDecision {
    IdleSpan span;
    bool keep = false;  // true: the user chose to play it at normal speed
    double rate = 4.0;  // playback speed when not kept

    bool operator==(const SkipDecision&) const = default;

    // "skip-" followed by the start in whole milliseconds, truncated toward zero.
    std::string identity() const;

    // {"span": {"start", "end"}, "keep", "rate"}.
    Json toJson() const;
    // span is required; keep absent reads false, rate absent 4.0.
    static std::optional<SkipDecision> fromJson(const Json& value);
};

struct TransitionSpec {
    enum class Kind { dipToBlack, dipToBackdrop, blur, punch };

    Kind kind = Kind::dipToBlack;
    double duration = 0.35; // seconds

    bool operator==(const TransitionSpec&) const = default;

    static std::string_view rawValue(Kind kind);
    static std::optional<Kind> kindFromRaw(std::string_view raw);

    Json toJson() const;
    static std::optional<TransitionSpec> fromJson(const Json& value);
};

// A removed stretch of source time.
struct CutRange {
    std::string id; // UUID text
    double start = 0;
    double end = 0;
    std::optional<TransitionSpec> transition;

    bool operator==(const CutRange&) const = default;

    Json toJson() const;
    // Nothing when any key is missing or malformed (the plan's decoder tells a cut that
    // lacks a time from other damage).
    static std::optional<CutRange> fromJson(const Json& value);
};

// A blur or pixelate box, in fractions of the recorded picture.
struct MaskRegion {
    enum class Style { blur, pixelate };

    std::string id; // UUID text
    double x = 0;
    double y = 0;
    double w = 0;
    double h = 0;
    double start = 0; // source seconds
    double end = 0;
    Style style = Style::blur;

    bool operator==(const MaskRegion&) const = default;

    // The box clipped to the unit square (empty at the origin when a value is not finite).
    Rect rect() const;

    static std::string_view rawValue(Style style);
    static std::optional<Style> styleFromRaw(std::string_view raw);

    Json toJson() const;
    static std::optional<MaskRegion> fromJson(const Json& value);
};

// A touch mark of a device recording.
struct TapMark {
    std::string id; // UUID text
    double t = 0;   // source seconds
    double x = 0;
    double y = 0;

    bool operator==(const TapMark&) const = default;

    Json toJson() const;
    static std::optional<TapMark> fromJson(const Json& value);
};

struct EditPlan {
    using IdleSpan = plim::IdleSpan;
    using SkipDecision = plim::SkipDecision;
    using CutRange = plim::CutRange;
    using TransitionSpec = plim::TransitionSpec;
    using MaskRegion = plim::MaskRegion;
    using TapMark = plim::TapMark;
    using Step = RemapStep;

    // One kept stretch of source time.
    struct Segment {
        double start = 0;
        double end = 0;
        bool operator==(const Segment&) const = default;
        // "segment-<start ms>-<end ms>", from whole milliseconds.
        std::string identity() const;
    };

    struct TransitionPhase {
        TransitionSpec::Kind kind = TransitionSpec::Kind::dipToBlack;
        double phase = 0; // 0 to 1; 1 = the transition's fullest point
        bool operator==(const TransitionPhase&) const = default;
    };

    // An active skip with its rate.
    struct RateSegment {
        IdleSpan span;
        double rate = 4.0;
        bool operator==(const RateSegment&) const = default;
    };

    // A skip that plays in the output and the output time at which it starts playing.
    struct PlayedSkip {
        SkipDecision skip;
        double outputStart = 0;
        bool operator==(const PlayedSkip&) const = default;
    };

    // What a decode could not keep, for the notices.
    struct DecodeReport {
        std::vector<std::string> droppedKeys; // in field order
        std::vector<std::string> droppedCuts; // labels: "cut 3"
        std::vector<std::string> clampedValues; // "zoom 2's scale 1e+09 as 4"
        bool operator==(const DecodeReport&) const = default;
    };

    std::vector<ZoomBlock> zooms;
    std::vector<SkipDecision> skips;
    std::optional<std::string> cameraCorner;
    std::optional<double> cameraX;
    std::optional<double> cameraY;
    std::vector<MaskRegion> masks;
    std::optional<double> cameraScale;
    std::optional<std::string> cameraShape; // "circle" or "card"
    std::optional<double> trimIn;
    std::optional<double> trimOut;
    std::vector<CutRange> cuts;
    std::optional<bool> cameraMirror;
    std::optional<bool> cameraBorder;
    std::vector<double> splits;
    std::optional<TransitionSpec> fadeIn;
    std::optional<TransitionSpec> fadeOut;
    std::vector<TapMark> taps;
    std::optional<std::vector<PlimClip>> clips; // when present, replaces the trims

    bool operator==(const EditPlan&) const = default;

    // --- Queries (pure) ---

    // The plan as time-remap steps, sorted by span start.
    std::vector<RemapStep> steps(double rawDuration) const;
    // The core: removed spans from cuts and trims, merged into cut steps, and the active
    // skips cut apart by them into rate steps, each positive rate within the speed range (a
    // rate of 0 stays, and the time remap plays it at 1).
    static std::vector<RemapStep> steps(const std::vector<SkipDecision>& skips,
        const std::vector<IdleSpan>& cuts, std::optional<double> trimIn, std::optional<double> trimOut,
        double rawDuration);

    // Spans of the skips that are not kept, in stored order.
    std::vector<IdleSpan> activeSkips() const;
    // The same skips with the rate they play at: a rate the time remap cannot play (0,
    // negative, not finite) is left alone by it, so that stretch is reported at 1; others
    // are brought within the speed range.
    std::vector<RateSegment> activeSegments() const;
    // The complement of the removed spans in [0, rawDuration], each longer than 1e-6 s.
    std::vector<Segment> segments(double rawDuration) const;
    std::vector<IdleSpan> removedSpans(double rawDuration) const;
    std::vector<IdleSpan> droppedAudioSpans(double rawDuration) const;
    // Skips (kept or not, in stored order) that are not wholly inside a removed span.
    std::vector<PlayedSkip> playedSkips(double rawDuration) const;
    // Masks with start <= t < end, in stored order.
    std::vector<MaskRegion> masksAt(double t) const;
    std::optional<TransitionPhase> transition(double atRaw, double rawDuration) const;
    // A copy without the zoom block of that id.
    EditPlan suspending(std::string_view zoomID) const;
    // The plan as it plays: with dead air not sped up, every skip plays at normal speed
    // (the skips themselves, and what the user chose for each, stay as they are).
    EditPlan playing(bool deadAirSpedUp) const;
    // The clips (or, without clips, the kept segments) laid out with the skip rates.
    ClipTimeline clipTimeline(double rawDuration) const;

    // --- Files ---

    Json toJson() const;
    // Sorted keys, pretty printed, atomic; fails without touching the file when a number
    // is not finite or the write fails.
    Status write(const fs::path& movie) const;         // B.edits.json
    Status writeRendered(const fs::path& movie) const; // B.rendered.json
    Status writeTo(const fs::path& path) const;

    // Tolerant field-by-field decode of a JSON object; fails only when `value` is not an
    // object. Dropped fields and cuts come back as notices naming `sourceName` ("a plan
    // sidecar" when absent); nothing is logged.
    static Result<Decoded<EditPlan>> fromJson(const Json& value, std::optional<std::string> sourceName = std::nullopt,
        DecodeReport* report = nullptr);

    // Reads the edits sidecar at `path`: no plan and no notice when no file is there; no
    // plan and a notice when it cannot be read or is not a plan. Never writes the file.
    static Decoded<std::optional<EditPlan>> decode(const fs::path& path);
    // The same for B.edits.json beside a movie.
    static Decoded<std::optional<EditPlan>> decodeBesideMovie(const fs::path& movie);
};

// The sentences a decode logs. `ordinaryFile` says the file is an ordinary file, which
// a pending download or changed permissions could explain (a folder could not).
namespace plan_notices {
std::string unreadable(std::string_view source, std::string_view systemError, bool ordinaryFile = true);
std::string undecodable(std::string_view source, std::string_view fileError);
std::string droppedFields(std::string_view source, const std::vector<std::string>& keys);
std::string droppedCuts(std::string_view source, const std::vector<std::string>& labels);
std::string clampedValues(std::string_view source, const std::vector<std::string>& labels);
} // namespace plan_notices

} // namespace plim
