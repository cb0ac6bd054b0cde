#pragma once
// A voiceover take on disk. While it is recorded a take lives in the "Voiceovers" folder of
// the library folder, as <id>.wav (16-bit mono WAV whose header is brought up to date every
// second, so a take cut off by a crash plays up to its last second) beside <id>.json, the
// note that says which plim it belongs to, where in it, and which process records it. Once
// finished, the take is copied into the plim's folder as a side file (B.voiceover.wav, or
// "B.voiceover 2.wav" and so on: never over a file), joins the edits as a voiceover whose id
// is the take's, and leaves the Voiceovers folder.

#include "base/error.h"
#include "capture/recording_marker.h"
#include "library/plim_edits.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace plim {

namespace fs = std::filesystem;

class PlimDocument;

inline constexpr const char* voiceoversFolderName = "Voiceovers";
// libraryFolder/Voiceovers.
fs::path voiceoversFolder(const fs::path& libraryFolder);

struct VoiceoverNote {
    std::string id;                    // UUID: the take's file stem and the voiceover's id
    fs::path movie;                    // the plim's movie, absolute
    std::optional<std::string> plimID; // its identity, to find it again after a rename
    double start = 0;                  // source seconds
    RecordingMarker process;           // who records it

    // folder/<id>.wav and folder/<id>.json.
    static fs::path takeIn(const fs::path& folder, const std::string& id);
    static fs::path noteIn(const fs::path& folder, const std::string& id);
    // The id of a note's file name ("<UUID>.json"); nothing for any other name.
    static std::optional<std::string> idOfNote(const fs::path& note);

    Status write(const fs::path& folder) const;
    // Fails `missing`, `unreadable` or `corrupt` with a short reason for brackets.
    static Result<VoiceoverNote> read(const fs::path& note);
};

// Appends mono sound to a new take file. One thread calls it.
class TakeWriter {
public:
    static constexpr int64_t headerBytes = 44;

    // Creates the file; fails when anything is already at `path` (it is never replaced).
    static Result<std::unique_ptr<TakeWriter>> create(const fs::path& path, int sampleRate);
    ~TakeWriter();
    TakeWriter(const TakeWriter&) = delete;
    TakeWriter& operator=(const TakeWriter&) = delete;

    // Samples from -1 to 1; louder ones are clipped.
    Status append(const float* samples, int64_t frames);
    // Brings the header up to date and puts the file on the disk.
    Status sync();
    int64_t frames() const { return m_frames; }
    int sampleRate() const { return m_rate; }
    const fs::path& path() const { return m_path; }
    // Closes and removes the file.
    void discard();

private:
    TakeWriter(int fd, fs::path path, int sampleRate) : m_fd(fd), m_path(std::move(path)), m_rate(sampleRate) {}
    int m_fd = -1;
    fs::path m_path;
    int m_rate = 48000;
    int64_t m_frames = 0;
};

// What a take file holds, read from its header and its size, so a header that a crash left
// behind its sound still gives the whole take.
struct TakeInfo {
    int sampleRate = 0;
    int64_t frames = 0;
    bool headerUpToDate = true;
    double seconds() const { return sampleRate > 0 ? double(frames) / sampleRate : 0; }
};
// Fails `missing`, `unreadable`, or `corrupt` ("it is not a voiceover take Plim wrote") with
// a short reason.
Result<TakeInfo> inspectTake(const fs::path& take);

// Copies the take into the plim's folder as a new side file with its header made whole,
// adds it to the document at the note's start (the recording's sound ducked to
// Voiceover::micUnder's default under it) and saves the edits; then the take and its note
// leave the Voiceovers folder. On failure the side file is taken back and the take stays
// where it is. The document must be the plim's and may be saved (not a refused file's).
Result<PlimEdits::Voiceover> joinTake(const fs::path& take, const VoiceoverNote& note, PlimDocument& document);

// The plim's edits, to add a voiceover to: its edits file as read, or its automatic edit when
// it has none yet. Fails with the reader's sentence for a movie that cannot be read, and
// with the edits file's own (kind `refused` or `unreadable`) when that file cannot be used;
// it is then left as it is.
Result<std::unique_ptr<PlimDocument>> openPlimForVoiceover(const fs::path& movie);

// The source second shown at output second `outputTime` of the plim's edit, as a share plays
// it (dead air sped up or not, as its look says): where a take started there begins.
double voiceoverSourceTime(const PlimEdits& edits, double rawDuration, double outputTime);

// Removes a take and its note from the Voiceovers folder.
void removeTake(const fs::path& folder, const std::string& id);

} // namespace plim
