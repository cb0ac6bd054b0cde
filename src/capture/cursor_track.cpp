#include "capture/cursor_track.h"

#include "base/json.h"
#include "base/text.h"
#include "capture/cursor_track_reader.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plim {

namespace {

std::string joinedWithAnd(const std::vector<std::string>& words)
{
    std::string out;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i > 0)
            out += i + 1 == words.size() ? " and " : ", ";
        out += words[i];
    }
    return out;
}

std::string counted(size_t n, std::string_view noun)
{
    std::string out = std::to_string(n) + " unusable " + std::string(noun);
    if (n != 1)
        out += "s";
    return out;
}

} // namespace

double roundToTenth(double value) { return std::round(value * 10.0) / 10.0; }

CursorTrack CursorTrack::deviceTrack(double pixelWidth, double pixelHeight)
{
    CursorTrack track;
    track.displayWidth = pixelWidth;
    track.displayHeight = pixelHeight;
    track.scale = 1.0;
    track.subjectKind = "device";
    return track;
}

fs::path CursorTrack::fileBeside(const fs::path& movie) { return sidecarPath(movie, PlimFiles::cursor); }

fs::path CursorTrack::journalBeside(const fs::path& movie) { return sidecarPath(movie, PlimFiles::cursorJournal); }

namespace {

template<typename T>
bool sortByTime(std::vector<T>& items)
{
    auto earlier = [](const T& a, const T& b) { return a.t < b.t; };
    if (std::is_sorted(items.begin(), items.end(), earlier))
        return false;
    std::stable_sort(items.begin(), items.end(), earlier);
    return true;
}

std::unexpected<Error> corrupt(const std::string& name, std::string_view reason)
{
    return fail(name + " is not a pointer track Plim can read (" + std::string(reason)
            + "). The file was left as it is and nothing in it was lost. "
              "Restore the file from a backup, or record the plim again to get a new pointer track.",
        Error::Kind::unreadable);
}

// Moves one array's usable entries into the track and notes what was wrong with it.
template<typename T>
void takeList(TrackList<T>& list, std::vector<T>& into, size_t& dropped, std::vector<std::string>& notLists,
    const char* key)
{
    if (list.state == TrackList<T>::State::notAList)
        notLists.push_back(key);
    into = std::move(list.items);
    dropped = list.dropped;
}

// The lenient rules over what the reader found.
Result<Decoded<CursorTrack>> finishTrack(CursorTrackFields& fields, const std::string& name)
{
    std::vector<std::string> missing;
    double geometry[5] = {};
    for (size_t i = 0; i < trackGeometryKeys.size(); ++i) {
        if (auto v = trackNumber(fields.geometry[i]))
            geometry[i] = *v;
        else
            missing.emplace_back(trackGeometryKeys[i]);
    }
    if (!missing.empty())
        return fail(name + " is missing " + joinedWithAnd(missing)
                + ", which Plim needs to place the pointer in the picture, so the pointer track cannot be used. "
                  "The file was left as it is and nothing in it was lost. "
                  "Restore the file from a backup, or record the plim again to get a new pointer track.",
            Error::Kind::unreadable);

    std::vector<std::string> repairs;
    using namespace track_limits;
    const double lowest[5] = {-farthestPoint, -farthestPoint, smallestDisplay, smallestDisplay, smallestScale};
    const double highest[5] = {farthestPoint, farthestPoint, farthestPoint, farthestPoint, largestScale};
    for (size_t i = 0; i < trackGeometryKeys.size(); ++i) {
        const double was = geometry[i];
        geometry[i] = std::clamp(was, lowest[i], highest[i]);
        if (geometry[i] != was)
            repairs.push_back(std::string(trackGeometryKeys[i]) + " " + numberText(was, 2) + " read as "
                + numberText(geometry[i], 2));
    }
    CursorTrack track;
    track.displayX = geometry[0];
    track.displayY = geometry[1];
    track.displayWidth = geometry[2];
    track.displayHeight = geometry[3];
    track.scale = geometry[4];

    if (fields.videoStartOffsetMS.kind != TrackValue::Kind::absent) {
        if (auto v = trackTime(fields.videoStartOffsetMS))
            track.videoStartOffsetMS = *v;
        else
            repairs.push_back("an unusable videoStartOffsetMS read as 0");
    }
    if (fields.subjectKind.kind != TrackValue::Kind::absent) {
        if (fields.subjectKind.kind == TrackValue::Kind::string)
            track.subjectKind = std::move(fields.subjectKindText);
        else
            repairs.push_back("an unusable subjectKind left out");
    }
    if (fields.cameraOffsetMS.kind != TrackValue::Kind::absent) {
        if (auto v = trackTime(fields.cameraOffsetMS))
            track.cameraOffsetMS = *v;
        else
            repairs.push_back("an unusable cameraOffsetMS left out");
    }

    size_t droppedSamples = 0, droppedClicks = 0, droppedMarks = 0, droppedFrames = 0;
    std::vector<std::string> notLists;
    takeList(fields.samples, track.samples, droppedSamples, notLists, "samples");
    takeList(fields.clicks, track.clicks, droppedClicks, notLists, "clicks");
    takeList(fields.marks, track.marks, droppedMarks, notLists, "marks");
    takeList(fields.frames, track.frames, droppedFrames, notLists, "frames");

    std::vector<std::string> dropped;
    if (droppedSamples)
        dropped.push_back(counted(droppedSamples, "sample"));
    if (droppedClicks)
        dropped.push_back(counted(droppedClicks, "click"));
    if (droppedMarks)
        dropped.push_back(counted(droppedMarks, "mark"));
    if (droppedFrames)
        dropped.push_back(counted(droppedFrames, "window frame"));
    if (!dropped.empty())
        repairs.push_back(joinedWithAnd(dropped) + " dropped");
    if (!notLists.empty())
        repairs.push_back(joinedWithAnd(notLists) + (notLists.size() == 1 ? " is not a list and was" : " are not lists and were")
            + " read as empty");

    std::vector<std::string> unsorted;
    if (sortByTime(track.samples))
        unsorted.push_back("samples");
    if (sortByTime(track.clicks))
        unsorted.push_back("clicks");
    if (sortByTime(track.marks))
        unsorted.push_back("marks");
    if (sortByTime(track.frames))
        unsorted.push_back("window frames");
    if (!unsorted.empty())
        repairs.push_back("its " + joinedWithAnd(unsorted) + " put back in time order");

    Decoded<CursorTrack> out{std::move(track), {}};
    if (!repairs.empty()) {
        std::string notice = name + " is not shaped the way Plim writes it: ";
        for (size_t i = 0; i < repairs.size(); ++i)
            notice += (i ? ", " : "") + repairs[i];
        notice += ". The pointer is drawn from what was left; the file itself was not changed.";
        out.notices.push_back(std::move(notice));
    }
    return out;
}

// Builds the track's text: keys sorted, two-space indents, doubles in their shortest
// round-trip form (with ".0" when that form looks like an integer, so they stay doubles).
class TrackText {
public:
    std::string out;
    bool pretty = true; // else one line without indents

    void key(int indent, std::string_view name)
    {
        if (pretty)
            out.append(static_cast<size_t>(indent), ' ');
        out += '"';
        out += name;
        out += pretty ? "\": " : "\":";
    }

    // A line break and what follows it, or nothing on one line.
    void text(std::string_view withBreaks)
    {
        if (pretty) {
            out += withBreaks;
            return;
        }
        for (char c : withBreaks)
            if (c != '\n' && c != ' ')
                out += c;
    }

    void number(int64_t value)
    {
        char buffer[24];
        auto r = std::to_chars(buffer, buffer + sizeof buffer, value);
        out.append(buffer, r.ptr);
    }

    void number(double value)
    {
        if (!std::isfinite(value)) {
            out += "null";
            return;
        }
        char buffer[64];
        auto r = std::to_chars(buffer, buffer + sizeof buffer, value);
        out.append(buffer, r.ptr);
        if (std::string_view(buffer, r.ptr).find_first_of(".e") == std::string_view::npos)
            out += ".0";
    }

    // "key": value, at the top level.
    template<typename V>
    void member(std::string_view name, V value)
    {
        key(2, name);
        number(value);
        text(",\n");
    }

    // "key": [ {...}, ... ], at the top level; `fields` writes one entry's members.
    template<typename T, typename Fields>
    void list(std::string_view name, const std::vector<T>& items, Fields fields, bool last = false)
    {
        key(2, name);
        if (items.empty()) {
            out += "[]";
        } else {
            text("[\n");
            for (size_t i = 0; i < items.size(); ++i) {
                text("    {\n");
                fields(items[i]);
                text(i + 1 < items.size() ? "    },\n" : "    }\n");
            }
            text("  ]");
        }
        text(last ? "\n" : ",\n");
    }

    // One member of an entry, followed by a comma unless it is the entry's last.
    template<typename V>
    void field(std::string_view name, V value, bool last = false)
    {
        key(6, name);
        number(value);
        text(last ? "\n" : ",\n");
    }
};

} // namespace

namespace {

Result<Decoded<CursorTrack>> decodeTrack(std::string_view text, std::string_view fileName, size_t readablePastEnd)
{
    const std::string name(fileName);
    if (text.empty())
        return corrupt(name, "the file is empty");
    auto fields = readTrackFields(text, readablePastEnd);
    if (!fields)
        return corrupt(name, fields.error() == TrackTextFailure::notAnObject ? "it does not hold a JSON object"
                                                                              : "it is not valid JSON");
    return finishTrack(*fields, name);
}

} // namespace

Result<Decoded<CursorTrack>> CursorTrack::fromText(std::string_view text, std::string_view fileName)
{
    return decodeTrack(text, fileName, 0);
}

namespace {

std::string encodedText(const CursorTrack& track, bool pretty)
{
    const auto& [displayX, displayY, displayWidth, displayHeight, scale, videoStartOffsetMS, subjectKind,
        cameraOffsetMS, samples, clicks, marks, frames] = track;
    TrackText text;
    text.pretty = pretty;
    text.out.reserve(96 * samples.size() + 80 * (clicks.size() + frames.size()) + 32 * marks.size() + 512);
    text.text("{\n");
    if (cameraOffsetMS)
        text.member("cameraOffsetMS", *cameraOffsetMS);
    text.list("clicks", clicks, [&](const ClickEvent& c) {
        text.field("t", c.t);
        text.field("x", c.x);
        text.field("y", c.y, true);
    });
    text.member("displayHeight", displayHeight);
    text.member("displayWidth", displayWidth);
    text.member("displayX", displayX);
    text.member("displayY", displayY);
    text.list("frames", frames, [&](const CursorTrack::FrameKey& f) {
        text.field("h", f.h);
        text.field("t", f.t);
        text.field("w", f.w);
        text.field("x", f.x);
        text.field("y", f.y, true);
    });
    text.list("marks", marks, [&](const Mark& m) { text.field("t", m.t, true); });
    text.list("samples", samples, [&](const CursorSample& s) {
        text.field("k", static_cast<int64_t>(s.k));
        text.field("t", s.t);
        text.field("x", s.x);
        text.field("y", s.y, true);
    });
    text.member("scale", scale);
    if (subjectKind) {
        text.key(2, "subjectKind");
        text.out += Json(*subjectKind).dump(-1, ' ', false, Json::error_handler_t::replace);
        text.text(",\n");
    }
    text.key(2, "videoStartOffsetMS");
    text.number(videoStartOffsetMS);
    text.text("\n}");
    text.out += '\n';
    return std::move(text.out);
}

} // namespace

std::string CursorTrack::encoded() const { return encodedText(*this, true); }

std::string CursorTrack::encodedLine() const { return encodedText(*this, false); }

Status CursorTrack::write(const fs::path& movie) const
{
    PLIM_TRY(writeFileAtomic(fileBeside(movie), encoded()));
    std::error_code ignored; // a journal left behind is only read while the track is missing
    fs::remove(journalBeside(movie), ignored);
    return {};
}

Status CursorTrack::appendToJournal(const fs::path& movie) const
{
    const fs::path path = journalBeside(movie);
    const std::string line = encodedLine();
    auto failed = [&](int err) {
        return fail("Plim could not add to " + path.filename().string() + " (" + errnoText(err)
                + "), so the last moments of the pointer track are kept in memory only until the recording "
                  "stops. Nothing recorded so far was lost. Free some disk space to keep the journal going.",
            err == ENOSPC ? Error::Kind::noSpace : Error::Kind::failed);
    };
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return failed(errno);
    struct stat before {};
    int err = ::fstat(fd, &before) == 0 ? 0 : errno;
    for (size_t done = 0; err == 0 && done < line.size();) {
        ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno != EINTR)
            err = errno;
        else if (n > 0)
            done += static_cast<size_t>(n);
    }
    if (err == 0 && ::fdatasync(fd) != 0)
        err = errno;
    if (err != 0 && before.st_size >= 0)
        (void)::ftruncate(fd, before.st_size); // no torn line for the next append to follow
    ::close(fd);
    if (err != 0)
        return failed(err);
    return {};
}

namespace {

// The track a journal's lines make: the geometry of the last good line and every line's
// entries in order, with a notice saying the track was rebuilt.
Result<CursorJournalFold> foldJournal(std::string_view text, const std::string& journalName,
    const std::string& trackName)
{
    std::optional<CursorTrack> folded;
    size_t damaged = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty())
            continue;
        auto chunk = CursorTrack::fromText(line, journalName);
        if (!chunk) {
            ++damaged;
            continue;
        }
        CursorTrack& part = chunk->value;
        if (!folded) {
            folded = std::move(part);
            continue;
        }
        auto append = [](auto& into, auto& more) { into.insert(into.end(), more.begin(), more.end()); };
        append(folded->samples, part.samples);
        append(folded->clicks, part.clicks);
        append(folded->marks, part.marks);
        append(folded->frames, part.frames);
        folded->displayX = part.displayX;
        folded->displayY = part.displayY;
        folded->displayWidth = part.displayWidth;
        folded->displayHeight = part.displayHeight;
        folded->scale = part.scale;
        folded->videoStartOffsetMS = part.videoStartOffsetMS;
        folded->subjectKind = part.subjectKind;
        folded->cameraOffsetMS = part.cameraOffsetMS;
    }
    if (!folded)
        return fail(trackName + " is missing and " + journalName
                + " holds nothing Plim can read, so the pointer cannot be drawn. Both were left as they are. "
                  "Record the plim again to get a new pointer track.",
            Error::Kind::unreadable);
    std::string notice = trackName + " was never finished (the recording stopped without closing it), so the "
        "pointer track was rebuilt from " + journalName;
    if (damaged)
        notice += ", leaving out " + std::to_string(damaged) + (damaged == 1 ? " damaged line" : " damaged lines");
    notice += ". The last moment or so of pointer movement may be missing; the files were not changed.";
    return CursorJournalFold{{std::move(*folded), {std::move(notice)}}, damaged};
}

} // namespace

Result<CursorJournalFold> CursorTrack::readJournal(const fs::path& movie)
{
    const fs::path journal = journalBeside(movie);
    const std::string name = journal.filename().string();
    auto bytes = readFileBytes(journal);
    if (!bytes)
        return fail(bytes.error().kind == Error::Kind::missing ? name + " is missing."
                                                               : "Plim could not read " + name + " (" + bytes.error().sentence
                    + "); it was left as it is.",
            bytes.error().kind);
    return foldJournal(*bytes, name, fileBeside(movie).filename().string());
}

Result<Decoded<CursorTrack>> CursorTrack::read(const fs::path& movie)
{
    const fs::path path = fileBeside(movie);
    const std::string name = path.filename().string();
    auto bytes = readFileBytes(path);
    if (!bytes) {
        if (bytes.error().kind == Error::Kind::missing) {
            const fs::path journal = journalBeside(movie);
            if (auto journalBytes = readFileBytes(journal)) {
                auto folded = PLIM_TRY(foldJournal(*journalBytes, journal.filename().string(), name));
                return std::move(folded.track);
            }
            return fail("There is no pointer track beside " + movie.filename().string() + " (" + name
                    + " is missing), so the pointer cannot be drawn. Nothing was changed. "
                      "Put the file back beside the movie, or record the plim again.",
                Error::Kind::missing);
        }
        return fail("Plim could not read " + name + " (" + bytes.error().sentence
                + "). The file was left as it is and nothing in it was lost. "
                  "Check that you may read the file, then try again.",
            Error::Kind::unreadable);
    }
    return decodeTrack(*bytes, name, bytes->capacity() - bytes->size());
}

} // namespace plim
