#pragma once
// The automatic edit: from what happened during a recording (pointer motion, clicks, key
// presses, speech) it proposes a trim, sped-up idle stretches and zooms where clicks
// cluster. Its result seeds a new plim's plan.

#include "base/geometry.h"
#include "plan/edit_plan.h"
#include "plan/remap_step.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct CursorTrack;
struct KeystrokeTrack;

namespace AutoEdit {

enum class Subject { screen, window, area, phone };
std::string_view subjectText(Subject subject);
std::optional<Subject> subjectFromText(std::string_view text);

// Positions are points of the recorded picture, from its top-left.
struct PointerSample {
    double t = 0;
    double x = 0;
    double y = 0;
    bool operator==(const PointerSample&) const = default;
};

// A click.
struct ActionPoint {
    double t = 0;
    double x = 0;
    double y = 0;
    bool operator==(const ActionPoint&) const = default;
};

// What happened during a recording, in source seconds.
struct Performance {
    double duration = 0;
    Subject subject = Subject::screen;
    Size recordedSize;                  // points; zero when unknown
    std::vector<PointerSample> pointer;
    std::vector<double> activity;       // times of key presses
    std::vector<ActionPoint> actionPoints;
    std::vector<IdleSpan> speech;       // stretches in which the narrator speaks
    bool operator==(const Performance&) const = default;
};

// Centre x, y are fractions of the recorded picture from its top-left (0.5 when the
// recorded size is unknown); clicks is the size of the cluster it was made from.
struct Zoom {
    double start = 0;
    double end = 0;
    double level = 1;
    double x = 0.5;
    double y = 0.5;
    int clicks = 0;
    bool operator==(const Zoom&) const = default;
};

struct Skip {
    double start = 0;
    double end = 0;
    double speed = 4.0;
    bool operator==(const Skip&) const = default;
};

struct Trim {
    double in = 0;
    double out = 0;
    bool operator==(const Trim&) const = default;
};

struct Proposal {
    Trim trim;
    std::vector<Skip> skips;
    std::vector<Zoom> zooms;
    bool operator==(const Proposal&) const = default;
};

// The whole edit: cleaning, trim, skips, then zooms moved off the skips.
Proposal make(const Performance& performance);

// The steps on their own, for a performance that has been through `cleaned`.
// Drops pointer samples, clicks, key presses and spans with a non-finite value (and spans
// that end before they start), and sorts each list by time. A duration that is not a
// finite number of at least 0 reads as 0; one longer than longestRecordingSeconds reads as
// that, so no walk over the recording's time runs longer than a day's recording.
Performance cleaned(Performance performance);
// Key presses widened to ±0.5 s and speech to ±0.3 s, merged where they overlap.
std::vector<IdleSpan> busySpans(const Performance& cleaned);
Trim makeTrim(const Performance& cleaned, const std::vector<IdleSpan>& busy);
std::vector<Skip> makeSkips(const Performance& cleaned, const std::vector<IdleSpan>& busy, const Trim& trim);
std::vector<Zoom> makeZooms(const Performance& cleaned, const Trim& trim, const std::vector<Skip>& skips);
// How far a cluster's clicks let the picture be magnified; 0 when the size is unknown.
double clusterFit(Size recordedSize, double boxWidth, double boxHeight);
double zoomLevel(Subject subject, double fit);

// Whether the render glides a pointer for this performance: it has one, and it is not a
// phone's (a phone recording shows touches, not a pointer).
bool pointerSmoothed(const Performance& performance);

// One line for the editor, e.g. "2 zooms where you clicked · dead air 4× faster · ends trimmed";
// "cursor smoothed" ends it when a pointer was smoothed; "Nothing needed editing" when none
// of these apply.
std::string summary(const Proposal& result, double duration, bool deadAirSpedUp, bool cursorSmoothed);
// "4×" for a whole speed, else one decimal: "2.5×".
std::string speedLabel(double speed);

// The subject a cursor track tells: "device" tracks are phones, tracks that followed a
// window are windows, the rest screens (an area recording cannot be told from a screen one).
Subject subjectOf(const CursorTrack& track);

// What the tracks saw, in movie seconds (through TrackPlacement, so the movie's start offset
// is honoured) and points of the recorded picture. Key presses come from the keystroke
// track and from the cursor samples taken while typing. A negative or non-finite duration
// reads as 0.
Performance performance(const CursorTrack& cursor, const KeystrokeTrack* keys, std::vector<IdleSpan> speech,
    double duration, std::optional<Subject> subject = std::nullopt);

// The result as a fresh plan: trim -> trimIn/trimOut, skips -> skip decisions that play
// sped up, zooms -> zoom blocks from click clusters (new ids, no style of their own).
EditPlan plan(const Proposal& result);

} // namespace AutoEdit
} // namespace plim
