#pragma once
// The moments of a live run: what a recorded plim's moment source gives the stage
// renderer, made from the live pointer and clicks instead of recorded tracks. The pointer
// glides on the same spring as a recorded one and fades when it rests; clicks ripple for
// the click style's life; a click zooms in on its place (when zoom on clicks is on) and the
// view eases back out once the clicks stop.
//
// Threads: moment() is called by the render thread only, once per frame in time order.
// The input bus and switches it reads are shared with the event threads (each has its lock).

#include "live/live_rules.h"
#include "stage/cursor_spring.h"
#include "stage/stage_moment.h"
#include "stage/stage_spec.h"

#include <memory>
#include <optional>
#include <vector>

namespace plim {

class LiveMomentSource final : public StageMomentSource {
public:
    struct Options {
        bool clickRings = true;      // the look draws click effects
        double clickLife = 0.6;      // seconds a click effect lives
        bool hidesIdleCursor = true; // a resting pointer fades out
        bool glide = true;           // the pointer glides on the spring
        double zoomScale = 1.8;      // how far a click zooms in
        double zoomHold = 2.5;       // seconds the zoom stays after the last click
    };

    // The options a stage look gives: its click style's life and its idle pointer switch.
    static Options optionsFor(const StageSpec& look, bool glide);

    LiveMomentSource(Options options, std::shared_ptr<LiveSwitches> switches, std::shared_ptr<LiveInputBus> inputs);

    // `rawTime` is seconds since the run started; `dt` the time since the previous frame.
    StageMoment moment(double rawTime, double dt) override;

    const Options& options() const { return m_options; }

private:
    struct TimedClick {
        double t = 0;
        double x = 0;
        double y = 0;
    };
    // Critically damped, in the spring's fixed ticks.
    struct Framing {
        double scale = 1, centerX = 0.5, centerY = 0.5;
        double vScale = 0, vX = 0, vY = 0;
        double carry = 0;
        void advance(double toScale, double toX, double toY, double dt);
    };

    ZoomState framingTarget(double t) const;

    Options m_options;
    std::shared_ptr<LiveSwitches> m_switches;
    std::shared_ptr<LiveInputBus> m_inputs;
    CursorSpring m_spring;
    IdleFade m_idle;
    Framing m_framing;
    double m_pointerX = 0.5;
    double m_pointerY = 0.5;
    bool m_hasPointer = false;
    bool m_springPlaced = false;
    std::vector<TimedClick> m_clicks; // alive ones, oldest first
    std::optional<TimedClick> m_lastZoomClick;
    Point m_previousPoint{0.5, 0.5};
    ZoomState m_previousZoom;
    bool m_zoomWasOn = false;
};

} // namespace plim
