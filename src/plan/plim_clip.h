#pragma once
// Timeline clips: stretches of the raw movie that play, in the order the user arranged
// them, and the timeline they make with the playback rates of sped-up stretches.

#include "base/json_fwd.h"
#include "plan/remap_step.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct PlimClip {
    std::string id; // UUID text
    double start = 0; // seconds in the raw movie
    double end = 0;

    bool operator==(const PlimClip&) const = default;

    // "7A4E0C11-0000-4000-8000-" followed by the number as twelve decimal digits
    // (clamped to 0 ... 999999999999).
    static std::string idForNumber(long long number);

    // The clip with both ends clamped to [0, rawDuration]; nothing when a bound or the
    // duration is not finite or the result is no longer than 1e-6 s (a clip whose end lies
    // before its start is empty). The id is kept.
    std::optional<PlimClip> sanitized(double rawDuration) const;

    // {"id", "start", "end"}.
    Json toJson() const;
    // Nothing when any of the three keys is missing or mistyped.
    static std::optional<PlimClip> fromJson(const Json& value);
};

// Each clip sanitised; clips that sanitise to nothing are dropped, the order is kept.
std::vector<PlimClip> sanitizeClips(const std::vector<PlimClip>& clips, double rawDuration);

// Where each kept stretch of the raw movie sits in the output.
struct ClipTimeline {
    struct Piece {
        std::string id;
        double rawStart = 0;
        double rawEnd = 0;
        double outStart = 0;
        double outEnd = 0;
        bool operator==(const Piece&) const = default;
    };

    // A run of pieces that are contiguous in raw time and so play without a seek.
    struct Pass {
        double rawStart = 0;
        double rawEnd = 0;
        std::vector<std::size_t> pieces; // indexes into `pieces`
        bool operator==(const Pass&) const = default;
    };

    std::vector<Piece> pieces;      // in playing order
    double rawDuration = 0;
    std::vector<RemapStep> rates;   // rate steps (sorted, not overlapping) applied inside pieces

    bool operator==(const ClipTimeline&) const = default;

    // Pieces from the given stretches in order (sanitised like clips), output positions
    // accumulated with the rates. Rate steps with a rate that is not finite or not above 0
    // play at speed 1 here.
    static ClipTimeline make(const std::vector<PlimClip>& stretches, const std::vector<RemapStep>& steps,
        double rawDuration);

    double outputDuration() const;
    std::vector<Pass> passes() const;

    // Output time of a raw time in the first piece that holds it; nothing when no piece does.
    std::optional<double> outputTime(double raw) const;
    // Output time of a raw time clamped into one piece; nothing for an index out of range.
    std::optional<double> outputTimeIn(std::size_t piece, double raw) const;
    // Raw time shown at an output time; a time at or past the end maps to the last piece's end.
    std::optional<double> rawTime(double output) const;
    // The piece playing at an output time.
    std::optional<std::size_t> pieceAt(double output) const;
};

} // namespace plim
