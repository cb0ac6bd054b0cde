#include "capture/cursor_track.h"

#include "base/log.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

const char* const geometryKeys[] = {"displayX", "displayY", "displayWidth", "displayHeight", "scale"};

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

// A value that must be 0 or 1; anything else that is a number counts as 1, and what is
// not a number as 0.
int typingFlag(const Json& entry)
{
    const Json* k = jsonField(entry, "k");
    if (!k)
        return 0;
    if (k->is_boolean())
        return k->get<bool>() ? 1 : 0;
    auto value = jsonNumber(entry, "k");
    return value && *value != 0 ? 1 : 0;
}

template<typename T>
bool sortByTime(std::vector<T>& items)
{
    auto earlier = [](const T& a, const T& b) { return a.t < b.t; };
    if (std::is_sorted(items.begin(), items.end(), earlier))
        return false;
    std::stable_sort(items.begin(), items.end(), earlier);
    return true;
}

// Reads one array key, keeping the entries `parse` accepts; counts the rest.
template<typename T, typename Parse>
std::vector<T> readArray(const Json& json, std::string_view key, Parse parse, size_t& dropped, bool& notAList)
{
    std::vector<T> out;
    const Json* array = jsonField(json, key);
    if (!array)
        return out;
    if (!array->is_array()) {
        notAList = true;
        return out;
    }
    out.reserve(array->size());
    for (const Json& entry : *array) {
        if (auto item = parse(entry))
            out.push_back(*item);
        else
            ++dropped;
    }
    return out;
}

std::optional<CursorSample> parseSample(const Json& entry)
{
    auto t = jsonInteger(entry, "t");
    auto x = jsonNumber(entry, "x");
    auto y = jsonNumber(entry, "y");
    if (!t || !x || !y)
        return std::nullopt;
    return CursorSample{*t, *x, *y, typingFlag(entry)};
}

std::optional<ClickEvent> parseClick(const Json& entry)
{
    auto t = jsonInteger(entry, "t");
    auto x = jsonNumber(entry, "x");
    auto y = jsonNumber(entry, "y");
    if (!t || !x || !y)
        return std::nullopt;
    return ClickEvent{*t, *x, *y};
}

std::optional<Mark> parseMark(const Json& entry)
{
    // A bare number is accepted as the mark's time too.
    if (auto t = jsonAsInteger(entry))
        return Mark{*t};
    auto t = jsonInteger(entry, "t");
    if (!t)
        return std::nullopt;
    return Mark{*t};
}

std::optional<CursorTrack::FrameKey> parseFrame(const Json& entry)
{
    auto t = jsonInteger(entry, "t");
    auto x = jsonNumber(entry, "x");
    auto y = jsonNumber(entry, "y");
    auto w = jsonNumber(entry, "w");
    auto h = jsonNumber(entry, "h");
    if (!t || !x || !y || !w || !h)
        return std::nullopt;
    return CursorTrack::FrameKey{*t, *x, *y, *w, *h};
}

double clampUnit(double v)
{
    if (!(v > 0)) // also catches NaN
        return 0;
    return v > 1 ? 1 : v;
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

fs::path CursorTrack::fileBeside(const fs::path& movie) { return sidecarPath(movie, "cursor.json"); }

Json CursorTrack::toJson() const
{
    Json json = Json::object();
    json["displayX"] = displayX;
    json["displayY"] = displayY;
    json["displayWidth"] = displayWidth;
    json["displayHeight"] = displayHeight;
    json["scale"] = scale;
    json["videoStartOffsetMS"] = videoStartOffsetMS;
    if (subjectKind)
        json["subjectKind"] = *subjectKind;
    if (cameraOffsetMS)
        json["cameraOffsetMS"] = *cameraOffsetMS;

    Json s = Json::array();
    for (const auto& sample : samples)
        s.push_back({{"t", sample.t}, {"x", sample.x}, {"y", sample.y}, {"k", sample.k}});
    json["samples"] = std::move(s);

    Json c = Json::array();
    for (const auto& click : clicks)
        c.push_back({{"t", click.t}, {"x", click.x}, {"y", click.y}});
    json["clicks"] = std::move(c);

    Json m = Json::array();
    for (const auto& mark : marks)
        m.push_back({{"t", mark.t}});
    json["marks"] = std::move(m);

    Json f = Json::array();
    for (const auto& frame : frames)
        f.push_back({{"t", frame.t}, {"x", frame.x}, {"y", frame.y}, {"w", frame.w}, {"h", frame.h}});
    json["frames"] = std::move(f);
    return json;
}

std::expected<CursorTrack, CursorTrack::ReadError> CursorTrack::fromJson(const Json& json, std::string_view fileName)
{
    const std::string name(fileName);
    if (!json.is_object())
        return std::unexpected(ReadError{ReadError::Kind::corrupt,
            name + " is not a pointer track Plim can read (it does not hold a JSON object). "
                   "The file was left as it is and nothing in it was lost. "
                   "Restore the file from a backup, or record the plim again to get a new pointer track."});

    std::vector<std::string> missing;
    double geometry[5] = {};
    for (int i = 0; i < 5; ++i) {
        if (auto v = jsonNumber(json, geometryKeys[i]))
            geometry[i] = *v;
        else
            missing.push_back(geometryKeys[i]);
    }
    if (!missing.empty())
        return std::unexpected(ReadError{ReadError::Kind::incomplete,
            name + " is missing " + joinedWithAnd(missing) + ", which Plim needs to place the pointer in the picture, so the pointer track cannot be used. "
              "The file was left as it is and nothing in it was lost. "
                  "Restore the file from a backup, or record the plim again to get a new pointer track."});

    CursorTrack track;
    track.displayX = geometry[0];
    track.displayY = geometry[1];
    track.displayWidth = geometry[2];
    track.displayHeight = geometry[3];
    track.scale = geometry[4];

    std::vector<std::string> repairs;
    if (jsonField(json, "videoStartOffsetMS")) {
        if (auto v = jsonInteger(json, "videoStartOffsetMS"))
            track.videoStartOffsetMS = *v;
        else
            repairs.push_back("an unusable videoStartOffsetMS read as 0");
    }
    if (jsonField(json, "subjectKind")) {
        if (auto v = jsonString(json, "subjectKind"))
            track.subjectKind = *v;
        else
            repairs.push_back("an unusable subjectKind left out");
    }
    if (jsonField(json, "cameraOffsetMS")) {
        if (auto v = jsonInteger(json, "cameraOffsetMS"))
            track.cameraOffsetMS = *v;
        else
            repairs.push_back("an unusable cameraOffsetMS left out");
    }

    size_t droppedSamples = 0, droppedClicks = 0, droppedMarks = 0, droppedFrames = 0;
    std::vector<std::string> notLists;
    bool notAList = false;
    track.samples = readArray<CursorSample>(json, "samples", parseSample, droppedSamples, notAList);
    if (std::exchange(notAList, false))
        notLists.push_back("samples");
    track.clicks = readArray<ClickEvent>(json, "clicks", parseClick, droppedClicks, notAList);
    if (std::exchange(notAList, false))
        notLists.push_back("clicks");
    track.marks = readArray<Mark>(json, "marks", parseMark, droppedMarks, notAList);
    if (std::exchange(notAList, false))
        notLists.push_back("marks");
    track.frames = readArray<FrameKey>(json, "frames", parseFrame, droppedFrames, notAList);
    if (std::exchange(notAList, false))
        notLists.push_back("frames");

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

    if (!repairs.empty()) {
        std::string notice = name + " is not shaped the way Plim writes it: ";
        for (size_t i = 0; i < repairs.size(); ++i)
            notice += (i ? ", " : "") + repairs[i];
        notice += ". The pointer is drawn from what was left; the file itself was not changed.";
        logLine(LogArea::main, notice);
    }
    return track;
}

Status CursorTrack::write(const fs::path& movie) const { return writeJsonAtomic(fileBeside(movie), toJson()); }

std::expected<CursorTrack, CursorTrack::ReadError> CursorTrack::read(const fs::path& movie)
{
    const fs::path path = fileBeside(movie);
    const std::string name = path.filename().string();
    auto json = readJsonFile(path);
    if (!json) {
        const auto& failure = json.error();
        switch (failure.kind) {
        case JsonReadFailure::absent:
            return std::unexpected(ReadError{ReadError::Kind::absent,
                "There is no pointer track beside " + movie.filename().string() + " (" + name
                    + " is missing), so the pointer cannot be drawn. Nothing was changed. "
                      "Put the file back beside the movie, or record the plim again."});
        case JsonReadFailure::unreadable:
            return std::unexpected(ReadError{ReadError::Kind::unreadable,
                "Plim could not read " + name + " (" + failure.reason
                    + "). The file was left as it is and nothing in it was lost. "
                      "Check that you may read the file, then try again."});
        case JsonReadFailure::corrupt:
            return std::unexpected(ReadError{ReadError::Kind::corrupt,
                name + " is not a pointer track Plim can read (" + failure.reason
                    + "). The file was left as it is and nothing in it was lost. "
                      "Restore the file from a backup, or record the plim again to get a new pointer track."});
        }
    }
    return fromJson(*json, name);
}

CursorTrack::UnitPoint CursorTrack::normalized(double x, double y, double atMS) const
{
    double rx = displayX, ry = displayY, rw = displayWidth, rh = displayHeight;
    for (const auto& frame : frames) {
        if (static_cast<double>(frame.t) > atMS)
            break;
        rx = frame.x;
        ry = frame.y;
        rw = frame.w;
        rh = frame.h;
    }
    if (!(rw > 0) || !(rh > 0))
        return UnitPoint{0.5, 0.5};
    return UnitPoint{clampUnit((x - rx) / rw), clampUnit((y - ry) / rh)};
}

} // namespace plim
