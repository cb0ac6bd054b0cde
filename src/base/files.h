#pragma once
// Plain file helpers: whole-file reads that tell absent from unreadable, atomic writes,
// and the sidecar naming every plim file follows.

#include "base/error.h"

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

// The most a side file (tracks, edits, looks, settings) can honestly hold: a day of
// pointer samples is under a gigabyte.
inline constexpr size_t maxSideFileBytes = size_t(1) << 30;

// Reads a whole ordinary file, never blocking on a pipe or a device. Fails `missing`
// when nothing is there, otherwise `unreadable` (no permission, a folder, a pipe or
// device, more than `limit` bytes). The error's sentence is a short reason that callers
// put in brackets inside their own sentence: "Permission denied", "it is a folder".
Result<std::string> readFileBytes(const fs::path& path, size_t limit = maxSideFileBytes);

// Opens an existing file for reading only when it is an ordinary file, never blocking on a
// pipe or a device: the descriptor (close it), or `missing` when nothing is there and
// `unreadable` with a short reason otherwise ("it is a folder, not a file", "it is not
// an ordinary file" for a pipe or a device, "Permission denied").
Result<int> openOrdinaryFile(const fs::path& path);

// The same check without keeping the file open, for readers that open it themselves.
Status checkOrdinaryFile(const fs::path& path);

// An ordinary file of a size a side file can have (not a folder, pipe, device or giant),
// following links; false when it cannot be looked at.
bool isOrdinaryFile(const fs::path& path, size_t limit = maxSideFileBytes);

// Writes through a temporary file in the same folder, flushed and renamed over `path`.
// On failure nothing at `path` changes and the temporary file is removed.
Status writeFileAtomic(const fs::path& path, std::string_view bytes);

// A name beside `final` for a file in progress: its stem, "." + `tag`, its extension
// ("B.partial-1a2b3c4d.mov"), the stem shortened at a character boundary so the name
// fits the file system's 255 bytes.
fs::path siblingName(const fs::path& final, std::string_view tag);
// siblingName with "partial-" and eight random hex digits: where a render or a write is
// made before it is published.
fs::path partialSibling(const fs::path& final);

// How a finished file takes its name.
enum class Publish {
    replacing,   // over whatever is at the name (the user named it, or it is the render's own)
    asNewFile,   // never over a file: the name, else "B 2.mp4", "B 3.mp4", ...
};
// Gives the finished file at `partial` the name `wished` (in the same folder) and returns
// the name it took. Replacing parks the file it replaces under parkedSibling() until the
// new one is in place, so a file is never without a finished version. A new file is made
// with link(), which fails rather than replace a file that appeared meanwhile, so two
// publishes of one name both keep their files. On failure `partial` is left for the caller.
Result<fs::path> publishFile(const fs::path& partial, const fs::path& wished, Publish how);
// "B.partial-replaced-1a2b3c4d.mov": the one form publishFile parks a replaced file under.
fs::path parkedSibling(const fs::path& final);
bool isParkedName(std::string_view name);

// `name`, a file name some side file holds, as a path inside `folder`: it resolves there
// with every link followed, so no absolute path, "..", or link leading out is taken.
// Fails `refused` when it would leave the folder, `missing` when nothing is there.
Result<fs::path> fileInsideFolder(const fs::path& folder, std::string_view name);

// An ordinary file held open by its descriptor, so that what a library reads later is the
// file that was checked, whatever is put at its name meanwhile. Closed when destroyed.
class HeldFile {
public:
    HeldFile(int fd, fs::path path) : m_fd(fd), m_path(std::move(path)) {}
    HeldFile(HeldFile&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)), m_path(std::move(other.m_path)) {}
    HeldFile& operator=(HeldFile&&) = delete;
    HeldFile(const HeldFile&) = delete;
    ~HeldFile();
    int descriptor() const { return m_fd; }
    // Where it was found, for sentences and comparisons.
    const fs::path& path() const { return m_path; }
    // "/proc/self/fd/N": a name that opens this very file again, for libraries that only take names.
    fs::path reopenPath() const;

private:
    int m_fd = -1;
    fs::path m_path;
};

// Opens `name` inside `folder` like fileInsideFolder, but without a race: every step of the
// walk stays beneath the folder (a link may point within it, never out), and the file that
// opens is the one held. Fails `refused` when it would leave the folder, `missing` when
// nothing is there, `unreadable` with a short reason for a folder, pipe or device.
Result<HeldFile> openInsideFolder(const fs::path& folder, std::string_view name);

// The movie's location with its extension replaced by `suffix` ("cursor.json"):
// /x/B.mov + "cursor.json" -> /x/B.cursor.json.
fs::path sidecarPath(const fs::path& movie, std::string_view suffix);

// Suffixes of the files beside a raw movie B.mov: sidecarPath(movie, PlimFiles::cursor)
// is B.cursor.json.
namespace PlimFiles {
inline constexpr std::string_view camera = "camera.mov";
inline constexpr std::string_view staged = "staged.mov";
inline constexpr std::string_view reframed = "reframe.mp4";
inline constexpr std::string_view cursor = "cursor.json";
inline constexpr std::string_view cursorJournal = "cursor.journal";
inline constexpr std::string_view keys = "keys.json";
inline constexpr std::string_view edits = "edits.json";
inline constexpr std::string_view stage = "stage.json";
inline constexpr std::string_view rendered = "rendered.json";
inline constexpr std::string_view captions = "captions.json";
inline constexpr std::string_view thumbs = "thumbs.heic";
inline constexpr std::string_view identity = "id.json";
inline constexpr std::string_view rolling = "rolling.json";
inline constexpr std::array<std::string_view, 13> all{
    camera, staged, reframed, cursor, cursorJournal, keys, edits, stage, rendered, captions, thumbs, identity, rolling};
} // namespace PlimFiles

// Refuses an output that would land on one of the plim's own files: the movie, every file
// beside it, and `named` (the sound and caption files its edits name), compared with every
// link followed and, where both exist, as the same file. `mayReplace` is the render's own
// output, which rendering again replaces. The sentence says nothing was written.
Status refuseOwnFile(const fs::path& output, const fs::path& movie, const std::vector<fs::path>& named = {},
    const std::optional<fs::path>& mayReplace = std::nullopt);

// The movie's file name without its extension ("B" for B.mov).
std::string baseName(const fs::path& movie);

// The path as text without its last extension (/x/B for /x/B.mov), as sentences name it.
std::string pathWithoutExtension(const fs::path& path);

// errno as the system describes it.
std::string errnoText(int err);

} // namespace plim
