#include "app/recording_recovery.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "capture/capture_session.h"
#include "capture/cursor_track.h"
#include "capture/recording_marker.h"
#include "library/plim_identity.h"
#include "media/movie_fragments.h"
#include "media/movie_reader.h"

#include <unistd.h>

#include <algorithm>

namespace plim {

namespace {

// What the movie writer had not yet closed when the process died: the fragment in progress
// (a fragment holds 2 s), the pointer journal's last second and the keys' last flush (4 s).
constexpr const char* lostPicture = "up to 2 seconds of picture and sound";
constexpr const char* lostPointer = "up to 1 second of the pointer";
constexpr const char* lostKeys = "up to 4 seconds of the keys pressed";


// A movie of a few bytes holds no more than its header: the first fragment never came.
constexpr uintmax_t headerOnlyBytes = 1024;

// Recovers one recording whose process is gone; the sentence says how it went.
std::string recover(const fs::path& movie, const RecordingMarker& written)
{
    const std::string name = baseName(movie);
    const std::string folder = movie.parent_path().string();
    std::error_code ec;
    if (!fs::exists(movie, ec)) {
        RecordingMarker::remove(movie);
        return "The recording " + quoted(name) + " was cut off before its movie was made, or the movie has been "
            "moved away since; there was nothing to recover.";
    }
    auto reader = MovieReader::create(movie);
    std::optional<std::string> unreadable;
    if (!reader) {
        unreadable = reader.error().sentence;
    } else if (auto first = (*reader)->next(); !first || !*first) {
        unreadable = first ? std::string("It holds no picture.") : first.error().sentence;
    }
    if (unreadable) {
        auto size = fs::file_size(movie, ec);
        if (!ec && size < headerOnlyBytes)
            return "Plim was closed while recording " + quoted(name) + " before its first 2 seconds were saved, so "
                "nothing of it could be kept; its files were left as they are in " + folder
                + ": delete them with the file manager.";
        return "Plim was closed while recording " + quoted(name) + ", and it could not be recovered: " + *unreadable
            + " Its files were left as they are in " + folder
            + ": move them out of the library folder to keep them, or delete them.";
    }
    reader->reset();
    std::vector<std::string> notes;
    // A fragment cut off while it was being written leaves the movie ending inside a box,
    // which readers report as damage; the movie then ends with the fragment before it.
    if (auto unfinished = unfinishedFragmentStart(movie); unfinished && *unfinished) {
        if (::truncate(movie.c_str(), static_cast<off_t>(**unfinished)) == 0)
            notes.push_back("Its last fragment, cut off while it was being written, was taken off the movie.");
        else
            notes.push_back("Its last fragment, cut off while it was being written, could not be taken off the movie ("
                + errnoText(errno) + "), so some of Plim's views may stop at its end.");
    }
    double seconds = 0;
    if (auto reopened = MovieReader::create(movie))
        seconds = (*reopened)->info().duration;

    std::vector<std::string> lost{lostPicture};
    if (!fs::exists(CursorTrack::fileBeside(movie), ec)) {
        const std::string journalName = CursorTrack::journalBeside(movie).filename().string();
        auto folded = CursorTrack::readJournal(movie);
        if (!folded) {
            notes.push_back(folded.error().kind == Error::Kind::missing
                    ? std::string("Its pointer, clicks and marks had not been saved yet, so it has none.")
                    : "Its pointer, clicks and marks could not be recovered: " + folded.error().sentence);
        } else {
            lost.push_back(lostPointer);
            if (!fs::exists(sidecarPath(movie, PlimFiles::camera), ec))
                folded->track.value.cameraOffsetMS.reset();
            Status saved = folded->damagedLines == 0
                ? folded->track.value.write(movie)
                : writeFileAtomic(CursorTrack::fileBeside(movie), folded->track.value.encoded());
            if (!saved)
                notes.push_back("Its pointer track could not be written (" + saved.error().sentence + "), so "
                    + journalName + " was kept; Plim reads the pointer from it.");
            else if (folded->damagedLines > 0)
                notes.push_back(std::to_string(folded->damagedLines)
                    + (folded->damagedLines == 1 ? " damaged line of " : " damaged lines of ") + journalName
                    + (folded->damagedLines == 1 ? " was" : " were")
                    + " left out of its pointer track, and the journal was kept as it is.");
        }
    }
    if (written.keys)
        lost.push_back(lostKeys);
    if (auto identity = PlimIdentity::ensure(movie); !identity)
        notes.push_back(identity.error().sentence);
    const fs::path camera = sidecarPath(movie, PlimFiles::camera);
    if (fs::exists(camera, ec)) {
        if (auto opened = MovieReader::create(camera); !opened)
            notes.push_back("Its camera movie " + camera.filename().string() + " could not be read and was left as "
                "it is: " + opened.error().sentence);
    }
    RecordingMarker::remove(movie);

    std::string sentence = "Plim was closed while recording " + quoted(name) + "; the "
        + CaptureSession::lengthText(seconds) + " recorded up to then were saved. Lost with the closing were ";
    for (size_t i = 0; i < lost.size(); ++i)
        sentence += (i == 0 ? "" : i + 1 == lost.size() ? " and " : ", ") + lost[i];
    sentence += ".";
    for (const auto& note : notes)
        sentence += " " + note;
    return sentence;
}

} // namespace

std::vector<std::string> recoverAbandonedRecordings(const fs::path& libraryFolder)
{
    std::vector<fs::path> markers;
    std::error_code ec;
    for (fs::directory_iterator it(libraryFolder, ec), end; !ec && it != end; it.increment(ec))
        if (RecordingMarker::movieOf(it->path()) && it->is_regular_file(ec))
            markers.push_back(it->path());
    std::sort(markers.begin(), markers.end());

    std::vector<std::string> sentences;
    for (const fs::path& marker : markers) {
        const fs::path movie = *RecordingMarker::movieOf(marker);
        auto written = RecordingMarker::read(marker);
        std::string sentence;
        if (!written) {
            if (written.error().kind == Error::Kind::missing)
                continue; // finished meanwhile
            sentence = "Plim could not tell whether " + quoted(baseName(movie)) + " is still being recorded, because "
                + marker.filename().string() + " could not be read (" + written.error().sentence + "); it was left as it is"
                + (fs::exists(movie, ec) ? ", and the movie plays up to where it was cut off." : ".");
        } else if (written->processIsAlive()) {
            continue;
        } else {
            sentence = recover(movie, *written);
        }
        logLine(LogArea::main, sentence);
        sentences.push_back(std::move(sentence));
    }
    return sentences;
}

} // namespace plim
