#pragma once
// A plim's caption track: timed lines of text on the recording's timeline, kept in
// B.captions.json beside the movie ({"lines": [{"text", "start", "end"}]}). Reading is
// lenient and never changes the file; writing is atomic, so a pass that fails before it
// writes leaves the previous file byte for byte.

#include "base/decoded.h"
#include "base/error.h"
#include "base/json.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct PlimEdits;

struct CaptionLine {
    std::string text;
    double start = 0; // seconds on the recording's timeline
    double end = 0;
    bool operator==(const CaptionLine&) const = default;
};

struct CaptionTrack {
    std::vector<CaptionLine> lines; // in time order

    bool operator==(const CaptionTrack&) const = default;

    // The first line with start <= t < end, or nothing.
    const CaptionLine* line(double t) const;

    Json toJson() const;
    // Lines that are not objects, lack a key, hold blank text or times that are not finite
    // or run backwards are dropped (one notice says how many); the rest are put in time
    // order. Fails `corrupt` when there is no "lines" array. `fileName` names the notices.
    static Result<Decoded<CaptionTrack>> fromJson(const Json& value, std::string_view fileName);

    // B.captions.json beside B.mov.
    static std::filesystem::path fileBeside(const std::filesystem::path& movie);
    // Reads a captions file; errors as readJsonFile's with a sentence naming the file.
    static Result<Decoded<CaptionTrack>> read(const std::filesystem::path& file);

    // Writes B.captions.json beside the movie atomically. When the plim has edits that
    // read whole, they are pointed at the file (their captions file); edits that could not
    // be read whole are left as they are, with a notice saying so.
    Result<std::vector<std::string>> writeBeside(const std::filesystem::path& movie) const;
};

// The caption track a render of the plim shows: the file its edits name, else
// B.captions.json. Nothing when there is none; a file that cannot be read gives nothing and
// a notice (the render goes on without captions, the file left as it is).
Decoded<std::optional<CaptionTrack>> readPlimCaptions(const std::filesystem::path& movie, const PlimEdits* edits);

} // namespace plim
