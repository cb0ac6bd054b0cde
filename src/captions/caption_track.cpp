#include "captions/caption_track.h"

#include "base/files.h"
#include "base/text.h"
#include "library/plim_edits.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace fs = std::filesystem;

const CaptionLine* CaptionTrack::line(double t) const
{
    for (const CaptionLine& l : lines)
        if (l.start <= t && t < l.end)
            return &l;
    return nullptr;
}

Json CaptionTrack::toJson() const
{
    Json list = Json::array();
    for (const CaptionLine& l : lines)
        list.push_back({{"text", l.text}, {"start", l.start}, {"end", l.end}});
    return Json{{"lines", std::move(list)}};
}

Result<Decoded<CaptionTrack>> CaptionTrack::fromJson(const Json& value, std::string_view fileName)
{
    const Json* list = jsonField(value, "lines");
    if (!list || !list->is_array())
        return fail(std::string(fileName) + " holds no list of caption lines, so it was not used. The file was left as it is.",
            Error::Kind::corrupt);
    Decoded<CaptionTrack> out;
    int dropped = 0;
    for (const Json& entry : *list) {
        auto text = jsonString(entry, "text");
        auto start = jsonNumber(entry, "start");
        auto end = jsonNumber(entry, "end");
        if (!text || !start || !end || trimmed(*text).empty() || !std::isfinite(*start) || !std::isfinite(*end)
            || *end < *start) {
            ++dropped;
            continue;
        }
        out.value.lines.push_back({std::move(*text), *start, *end});
    }
    std::stable_sort(out.value.lines.begin(), out.value.lines.end(),
        [](const CaptionLine& a, const CaptionLine& b) { return a.start < b.start; });
    if (dropped > 0)
        out.notices.push_back(std::string(fileName) + " has " + std::to_string(dropped) + " unusable caption line"
            + (dropped == 1 ? "" : "s") + ", left out of what is shown. The file was left as it is.");
    return out;
}

fs::path CaptionTrack::fileBeside(const fs::path& movie)
{
    return sidecarPath(movie, PlimFiles::captions);
}

namespace {

// The file at `file`, named `name` in sentences (a file held open is read through its
// descriptor's path).
Result<Decoded<CaptionTrack>> readTrack(const fs::path& file, const std::string& name)
{
    auto json = readJsonFile(file);
    if (!json)
        return fail("The captions file " + name + " could not be read (" + json.error().sentence
                + "), so no captions are shown. The file was left as it is.",
            json.error().kind);
    return CaptionTrack::fromJson(*json, name);
}

} // namespace

Result<Decoded<CaptionTrack>> CaptionTrack::read(const fs::path& file)
{
    return readTrack(file, file.filename().string());
}

Result<std::vector<std::string>> CaptionTrack::writeBeside(const fs::path& movie) const
{
    const fs::path file = fileBeside(movie);
    if (auto written = writeJsonAtomic(file, toJson()); !written)
        return fail("The captions could not be saved to " + file.string() + " (" + written.error().sentence
                + "). The previous captions file, if any, was left as it is; check the folder can be written, then try "
                  "again.",
            written.error().kind);
    std::vector<std::string> notices;
    const std::string name = file.filename().string();
    auto edits = PlimEdits::read(movie);
    if (!edits) {
        notices.push_back("The captions were saved, but the plim's edits file could not be used, so it was not pointed at "
            + name + " and was left as it is.");
        return notices;
    }
    if (!edits->value || edits->value->captionsFile == name)
        return notices;
    if (!edits->notices.empty()) {
        notices.push_back("The captions were saved, but the plim's edits file could not be read whole, so it was not "
            "pointed at " + name + " and was left as it is.");
        return notices;
    }
    PlimEdits changed = *edits->value;
    changed.captionsFile = name;
    if (auto saved = changed.write(movie, plimNameAndVersion()); !saved)
        notices.push_back("The captions were saved, but the plim's edits could not be pointed at " + name + " ("
            + saved.error().sentence + "); they were left as they were.");
    return notices;
}

Decoded<std::optional<CaptionTrack>> readPlimCaptions(const fs::path& movie, const PlimEdits* edits)
{
    Decoded<std::optional<CaptionTrack>> out;
    fs::path file = CaptionTrack::fileBeside(movie);
    std::optional<HeldFile> held;
    if (edits) {
        if (auto opened = edits->captionsFileOpened(movie)) {
            if (!*opened) {
                if (opened->error().kind != Error::Kind::missing)
                    out.notices.push_back(opened->error().sentence);
                else
                    out.notices.push_back("The captions file " + escapedText(*edits->captionsFile)
                        + " that the edits name is missing, so no captions are shown.");
                return out;
            }
            held.emplace(std::move(**opened));
        }
    }
    if (!held) {
        auto opened = openInsideFolder(movie.parent_path().empty() ? fs::path(".") : movie.parent_path(),
            file.filename().string());
        if (!opened) {
            if (opened.error().kind != Error::Kind::missing)
                out.notices.push_back("The captions file " + file.filename().string() + " could not be opened ("
                    + opened.error().sentence + "), so no captions are shown. The file was left as it is.");
            return out;
        }
        held.emplace(std::move(*opened));
    }
    auto track = readTrack(held->reopenPath(), held->path().filename().string());
    if (!track) {
        out.notices.push_back(track.error().sentence);
        return out;
    }
    out.value = std::move(track->value);
    appendNotices(out.notices, std::move(track->notices));
    return out;
}

} // namespace plim
