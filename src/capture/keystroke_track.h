#pragma once
// The keystroke track of one plim: shortcuts and special keys as short captions (⌘S, ⇧⇥,
// ⏎), written beside the screen movie as B.keys.json. Plain typing is never in it.

#include "base/decoded.h"
#include "base/error.h"
#include "base/files.h"
#include "base/json_fwd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct KeyEvent {
    int64_t t = 0;       // ms since the recorder started, paused time left out
    std::string caption; // e.g. "⌃⌥⌘K" or "←"
    bool operator==(const KeyEvent&) const = default;
};

struct KeystrokeTrack {
    std::vector<KeyEvent> events; // in time order

    bool operator==(const KeystrokeTrack&) const = default;

    // What sanitizing kept, and how much it had to repair.
    struct Sanitized {
        std::vector<KeyEvent> events;
        int dropped = 0;   // times before 0 or past a day, captions that are only white space
        int shortened = 0; // captions trimmed or cut to 5 characters
        bool operator==(const Sanitized&) const = default;
    };

    // Longest caption a real shortcut makes: four modifiers and one key.
    static constexpr size_t maxCaptionCharacters = 5;

    // B.mov -> B.keys.json
    static fs::path fileBeside(const fs::path& movie);

    // {"events":[{"caption":..,"t":..},..]}, compact.
    Json toJson() const;

    // Strict decode: nothing when `events` or any event's `t` or `caption` is missing or
    // of the wrong type.
    static std::optional<KeystrokeTrack> fromJson(const Json& json);

    // Writes atomically to fileBeside(movie).
    Status write(const fs::path& movie) const;

    // Reads fileBeside(movie): fails with kind `missing` when there is none, `unreadable`
    // when it cannot be read or decoded; a decodable but malformed file is repaired in
    // memory, with the repair as a notice. Never writes the file.
    static Result<Decoded<KeystrokeTrack>> read(const fs::path& movie);

    // Drops times before 0 or past longestRecordingMS and blank captions, trims captions, cuts long ones, and sorts
    // stably by time.
    static Sanitized sanitized(const std::vector<KeyEvent>& events);

    // The sentence logged for a repaired file named `fileName`.
    static std::string repairNotice(std::string_view fileName, int dropped, int shortened);

    // The events on screen at `at` seconds: those with t/1000 <= at <= t/1000 + linger,
    // in track order.
    std::vector<KeyEvent> captions(double at, double linger) const;
};

} // namespace plim
