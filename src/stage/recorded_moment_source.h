#pragma once
// The moments of a recorded plim: for any source instant, the zoom, the smoothed pointer
// and how visible it is, the clicks rippling, the touch of a phone recording, the masks,
// keycaps, caption line and running transition. Built once per render; every lookup is a
// binary search or a constant-time read, so moments can be asked for in any order.

#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "plan/edit_plan.h"
#include "plan/zoom_curve.h"
#include "plan/zoom_state.h"
#include "stage/cursor_smoother.h"
#include "stage/stage_moment.h"
#include "stage/stage_spec.h"

#include <string>
#include <vector>

namespace plim {

struct CursorTrack;

// Choices of the overlay settings that the stage look does not hold.
struct RecordedMomentOptions {
    bool motionBlur = true; // report previous pointer positions and zoom speed
    bool keycaps = true;    // show the keystroke track's keycaps
    bool glide = true;      // the pointer glides on a spring; otherwise drawn where recorded
    bool operator==(const RecordedMomentOptions&) const = default;
};

class RecordedMomentSource final : public StageMomentSource {
public:
    // A click or tap, in source seconds and fractions of the recorded picture.
    struct ClickBeat {
        double t = 0;
        double x = 0.5;
        double y = 0.5;
        bool operator==(const ClickBeat&) const = default;
    };

    // One caption line on the recording's timeline: shown while start <= t < end.
    struct CaptionCue {
        std::string text;
        double start = 0;
        double end = 0;
        bool operator==(const CaptionCue&) const = default;
    };

    struct Switches {
        bool emitsClicks = true;     // the click style draws clicks
        bool reportsMotion = true;   // motion blur wants previous positions and zoom speed
        bool hasCursor = true;       // the recording has a pointer
        bool reportsPointer = true;  // the pointer is drawn (otherwise alpha 0)
        bool hidesIdleCursor = true; // a resting pointer fades out
        bool showsTouches = false;   // a phone recording: the latest tap is shown as a touch
        bool operator==(const Switches&) const = default;
    };

    // Everything a source is made of; fixed once built.
    struct Parts {
        ZoomCurve curve;
        CursorSmoother smoother;
        EditPlan plan;
        KeystrokeTrack keystrokes; // stamps in movie milliseconds
        std::vector<CaptionCue> captions;
        std::vector<ClickBeat> clickBeats;
        double clickLife = 0.6; // seconds a click stays visible
        Switches switches;
        double rawDuration = 0;
        double keyLinger = defaultKeyLinger; // seconds a keycap stays after its key
    };

    using Options = RecordedMomentOptions;

    static constexpr double defaultKeyLinger = 1.5;
    static constexpr double pressSpan = 0.16;  // a click draws the pointer pressed this long
    static constexpr double touchSpan = 0.4;   // a tap is shown this long
    static constexpr double zoomVelocitySpan = 0.05;
    // Resting pointer: looked back in steps of restProbe over at most restFadeEnd seconds;
    // moves under restTolerance (picture fractions) count as resting.
    static constexpr double restProbe = 0.1;
    static constexpr double restTolerance = 0.005;
    static constexpr double restFadeStart = 1.6;
    static constexpr double restFadeEnd = 2.3;

    // Unusable beats, captions and taps (non-finite values) are left out, the rest put in
    // time order; a non-finite or negative click life or linger reads as 0.
    explicit RecordedMomentSource(Parts parts);

    // The source for a recorded plim dressed in `look`: zoom blocks in the look's zoom
    // style, the pointer smoothed over the recording, clicks from the cursor track (and, for
    // a phone recording, the plan's taps), click life from the click style. Every track stamp
    // (samples, clicks, keycaps) goes through TrackPlacement into movie time.
    static RecordedMomentSource forPlim(const CursorTrack& cursor, const KeystrokeTrack& keystrokes,
        const EditPlan& plan, const StageSpec& look, double rawDuration, std::vector<CaptionCue> captions = {},
        Options options = {});

    // How long each click style keeps a click on screen (0 for none).
    static double clickLifeFor(ClickStyle style);

    StageMoment moment(double rawTime, double dt) override;

    // Opacity of the pointer at t: 1 while it moves or has rested at most restFadeStart
    // seconds, fading to 0 by restFadeEnd.
    double restingAlpha(double t) const;
    // Seconds the smoothed pointer has stayed within restTolerance of where it is at t,
    // looked back in restProbe steps, at most restFadeEnd and never before source time 0.
    double idleTime(double t) const;

    const ZoomCurve& curve() const { return m_parts.curve; }
    const CursorSmoother& smoother() const { return m_parts.smoother; }
    const EditPlan& plan() const { return m_parts.plan; }
    const std::vector<ClickBeat>& clickBeats() const { return m_parts.clickBeats; }
    const Switches& switches() const { return m_parts.switches; }
    double clickLife() const { return m_parts.clickLife; }
    double keyLinger() const { return m_parts.keyLinger; }
    double rawDuration() const { return m_parts.rawDuration; }

private:
    double zoomVelocity(double t, const ZoomState& now) const;
    std::optional<StageMoment::Cursor> cursorAt(double t, double dt) const;
    std::optional<StageMoment::Touch> touchAt(double t) const;
    std::vector<StageMoment::Click> clicksAt(double t) const;
    std::vector<KeyEvent> keycapsAt(double t) const;
    std::optional<std::string> captionAt(double t) const;

    Parts m_parts;
    std::vector<TapMark> m_taps;           // time order, usable ones
    std::vector<double> m_captionReach;    // latest caption end up to each cue
};

} // namespace plim
