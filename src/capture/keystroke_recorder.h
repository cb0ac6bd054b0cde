#pragma once
// Watches key presses while a plim records and keeps shortcuts and special keys as
// captions. A letter, digit or punctuation key is kept only while Control, Option or
// Command is held, so plain typing never reaches the track.
//
// Threads: record runs on the key source's thread; pause, resume and stop come from the
// capture session. One mutex guards the events and the pause fields; captions are made
// before it is taken.

#include "base/clock.h"
#include "capture/key_source.h"
#include "capture/keystroke_track.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plim {

class KeystrokeRecorder {
public:
    // The source and the clock must outlive the recorder.
    explicit KeystrokeRecorder(KeySource& keys, const Clock& clock = UptimeClock::shared());
    ~KeystrokeRecorder();
    KeystrokeRecorder(const KeystrokeRecorder&) = delete;
    KeystrokeRecorder& operator=(const KeystrokeRecorder&) = delete;

    // Notes the start instant and installs the key handler. When the source refuses,
    // nothing is recorded and the track stays empty.
    void start();

    // Removes the key handler and returns the events so far.
    KeystrokeTrack stop();

    // The events so far, while recording goes on (for the periodic flush).
    KeystrokeTrack snapshot() const;

    // A second pause while paused changes nothing; so does resuming while not paused.
    void pause();
    void resume();
    void setPaused(bool paused) { paused ? pause() : resume(); }

    // Records one key-down (the handler's work): ignored when it makes no caption or a
    // pause is under way.
    void record(const KeyPress& press);

    bool isMonitoring() const;
    double startUptime() const;

    // The caption a key-down makes: modifier symbols (⌃⌥⇧⌘, in that order) followed by
    // the key's symbol, or nothing for keys that are not recorded.
    static std::optional<std::string> caption(const KeyPress& press);

private:
    KeySource& m_keys;
    const Clock& m_clock;

    mutable std::mutex m_lock; // guards everything below
    std::vector<KeyEvent> m_events;
    std::optional<KeySource::Token> m_monitor;
    double m_startUptime = 0;
    std::optional<double> m_pausedSince;
    double m_pausedAccum = 0;
};

} // namespace plim
