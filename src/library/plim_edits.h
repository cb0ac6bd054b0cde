#pragma once
// Every user edit of one plim, as stored in its edits sidecar (B.edits.json): the edit
// plan's keys plus the keys of the second format version (voiceovers, captions file,
// look, hand-aimed zooms). Versions 1 and 2 are read; a newer file is refused and never
// rewritten by reading; a damaged field costs that field only.

#include "base/decoded.h"
#include "base/error.h"
#include "base/json.h"
#include "library/plim_look.h"
#include "plan/edit_plan.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

// This application's version, as written into "writtenBy" and named in refusals.
inline constexpr std::string_view plimVersion = "0.1.0";
// "Plim 0.1.0".
std::string plimNameAndVersion();

struct PlimEdits {
    static constexpr int64_t currentVersion = 2;

    // Narration recorded against the plim; times in source seconds.
    struct Voiceover {
        std::string id;       // UUID text
        double start = 0;
        double duration = 0;
        std::string file;     // sound file name in the plim's folder
        double micUnder = 0.25; // gain of the recorded sound while the voice plays

        bool operator==(const Voiceover&) const = default;
        Json toJson() const;
        // Nothing when a key is missing or mistyped, or a time is negative.
        static std::optional<Voiceover> fromJson(const Json& value);
    };

    EditPlan plan;
    int64_t version = currentVersion;       // as read; always written as currentVersion
    std::optional<std::string> writtenBy;   // as read
    std::vector<Voiceover> voiceovers;
    std::optional<std::string> captionsFile;
    std::optional<PlimLook> look;
    std::vector<std::string> aimedZooms;    // ids of zoom blocks aimed by hand
    // Top-level keys this version does not know, written back unchanged.
    Json unknownKeys = Json::object();
    // The stage look of an older B.stage.json beside the movie, as raw JSON for
    // the stage to decode; it applies while the plim has no look. Never written here.
    std::optional<Json> plim3Stage;

    bool operator==(const PlimEdits&) const = default;

    // Reads B.edits.json beside the movie, and an older B.stage.json into the edits it
    // decodes. Never writes. Nothing when there is no edits file. Fails with Error::Kind::refused for a newer
    // format, unreadable when the file cannot be read, corrupt when what it holds is not
    // edits. The failure's sentence and the notices are logged; they name the file.
    static Result<Decoded<std::optional<PlimEdits>>> read(const fs::path& besideMovie);

    // Decodes an edits object: Error::Kind::refused for a newer version, corrupt for any
    // other failure (the sentences name `sourceName`). `droppedKeys` collects the version-2
    // keys that could not be kept (the plan's own keys are in the plan's report).
    static Result<Decoded<PlimEdits>> decode(const Json& value, std::string_view sourceName,
        std::optional<Json> plim3Stage = std::nullopt, std::vector<std::string>* droppedKeys = nullptr);

    // The stage look of an older B.stage.json beside the movie, for a plim that starts
    // without usable edits. Nothing when it is missing; nothing, logged, when it cannot be
    // read or holds no object.
    static std::optional<Json> readPlim3Stage(const fs::path& besideMovie);

    // The whole object with "version" = currentVersion and "writtenBy".
    Json toJson(std::string_view writtenBy) const;
    // Writes B.edits.json atomically; fails without touching the file when a number is
    // not finite or the write fails.
    Status write(const fs::path& besideMovie, std::string_view writtenBy) const;

    // A file name the edits hold (a voiceover's, the captions file), opened inside the
    // plim's folder and held open, so a link put at its name later is not followed. Fails
    // `refused` with "<label> names a file outside the plim's folder, so it was left out.
    // Nothing else changed.", `missing` when nothing is there, `unreadable` for a folder,
    // pipe or device. The edits file is not touched.
    static Result<HeldFile> sideFile(const fs::path& besideMovie, std::string_view name, std::string_view label);
    // The captions file in use, opened the same way; nothing when none is named.
    std::optional<Result<HeldFile>> captionsFileOpened(const fs::path& besideMovie) const;

    // Zoom ids aimed by hand that still name a zoom block.
    bool isAimed(std::string_view zoomID) const;
};

// The refusal sentence for an edits file of a newer format.
std::string refusedEditsSentence(std::string_view sourceName, std::optional<std::string> writtenBy, uint64_t version);
// The sentence for an edits file that could not be decoded.
std::string unreadableEditsSentence(std::string_view sourceName, std::string_view description);

} // namespace plim
