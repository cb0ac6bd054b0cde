#include "app/voiceover_salvage.h"

#include "app/voiceover_take.h"
#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "base/text.h"
#include "library/plim_document.h"
#include "library/plim_identity.h"

#include <algorithm>
#include <cstdio>

namespace plim {

namespace {


std::string secondsText(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

// The plim the note names: at its path, or, moved or renamed inside the library since,
// found by its identity.
std::optional<fs::path> findPlim(const VoiceoverNote& note, const fs::path& libraryFolder)
{
    std::error_code ec;
    if (fs::is_regular_file(note.movie, ec))
        return note.movie;
    if (!note.plimID)
        return std::nullopt;
    for (fs::directory_iterator it(libraryFolder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        const std::string suffix = "." + std::string(PlimIdentity::suffix);
        if (!name.ends_with(suffix))
            continue;
        const std::string base = name.substr(0, name.size() - suffix.size());
        auto identity = PlimIdentity::read(base, libraryFolder);
        if (!identity || identity->uuid != *note.plimID)
            continue;
        for (const char* extension : {".mov", ".mp4", ".m4v"})
            if (fs::path movie = libraryFolder / (base + extension); fs::is_regular_file(movie, ec))
                return movie;
    }
    return std::nullopt;
}

// Joins one take whose process is gone; the sentence says how it went.
std::string salvage(const fs::path& folder, const VoiceoverNote& note, const fs::path& libraryFolder)
{
    const fs::path take = VoiceoverNote::takeIn(folder, note.id);
    const std::string plim = quoted(baseName(note.movie));
    const std::string leftAsItIs = " It was left as it is in " + folder.string() + " as " + take.filename().string();
    auto info = inspectTake(take);
    if (!info && info.error().kind == Error::Kind::missing) {
        removeTake(folder, note.id);
        return "Plim was closed just as a voiceover for " + plim + " began; nothing of it had been recorded, so there "
            "was nothing to keep.";
    }
    if (!info)
        return "Plim was closed while recording a voiceover for " + plim + ", and the take could not be read ("
            + info.error().sentence + ")." + leftAsItIs + ": play it with another program, or delete it.";
    if (info->frames == 0) {
        removeTake(folder, note.id);
        return "Plim was closed just as a voiceover for " + plim + " began; nothing of it had been recorded, so there "
            "was nothing to keep.";
    }
    const std::string kept = "the " + secondsText(info->seconds()) + " recorded up to then";
    auto movie = findPlim(note, libraryFolder);
    if (!movie)
        return "Plim was closed while recording a voiceover for " + plim + ", and that plim is no longer at "
            + note.movie.string() + ", so " + kept + " could not join it." + leftAsItIs
            + ": put the plim back and start Plim again to add it, or delete the take.";
    VoiceoverNote placed = note;
    placed.movie = *movie;
    auto document = openPlimForVoiceover(*movie);
    if (!document)
        return "Plim was closed while recording a voiceover for " + plim + ", and " + kept
            + " could not join it because its edits could not be used: " + document.error().sentence + leftAsItIs
            + "; Plim adds it at a start once the edits can be read.";
    for (const auto& voice : (*document)->edits().voiceovers)
        if (voice.id == note.id) {
            // It had joined; only the copy in the Voiceovers folder was left.
            removeTake(folder, note.id);
            logLine(LogArea::main, "the voiceover take " + take.string() + " had already joined " + movie->string()
                    + "; the copy left behind was removed");
            return {};
        }
    auto joined = joinTake(take, placed, **document);
    if (!joined)
        return "Plim was closed while recording a voiceover for " + plim + ". " + joined.error().sentence;
    return "Plim was closed while recording a voiceover for " + quoted(baseName(*movie)) + "; " + kept
        + " were kept and added to its edits at " + secondsText(joined->start) + " of the recording, as "
        + joined->file + ". Up to a second of narration before the closing was lost.";
}

} // namespace

std::vector<std::string> salvageVoiceoverTakes(const fs::path& libraryFolder)
{
    const fs::path folder = voiceoversFolder(libraryFolder);
    std::vector<fs::path> notes;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        if (VoiceoverNote::idOfNote(it->path()))
            notes.push_back(it->path());
    std::sort(notes.begin(), notes.end());

    std::vector<std::string> sentences;
    for (const fs::path& path : notes) {
        auto note = VoiceoverNote::read(path);
        std::string sentence;
        if (!note) {
            if (note.error().kind == Error::Kind::missing)
                continue; // finished meanwhile
            const fs::path take = VoiceoverNote::takeIn(folder, *VoiceoverNote::idOfNote(path));
            sentence = "A voiceover take left in " + folder.string() + " could not be added to its plim, because its note "
                + path.filename().string() + " could not be read (" + note.error().sentence + "). It was left as it is"
                + (fs::exists(take, ec) ? ", with the take " + take.filename().string() + ": play it with another "
                                          "program, or delete both."
                                        : ": delete it.");
        } else if (note->process.processIsAlive()) {
            continue;
        } else {
            sentence = salvage(folder, *note, libraryFolder);
        }
        if (sentence.empty())
            continue;
        logLine(LogArea::main, sentence);
        sentences.push_back(std::move(sentence));
    }
    return sentences;
}

} // namespace plim
