#include "base/text.h"
#include "library/plim_edits.h"

#include "base/dates.h"
#include "base/files.h"
#include "base/log.h"
#include "library/plim_record.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>

namespace plim {

namespace {

constexpr std::array<std::string_view, 18> planKeys{"zooms", "skips", "cameraCorner", "cameraX", "cameraY",
    "masks", "cameraScale", "cameraShape", "trimIn", "trimOut", "cuts", "cameraMirror", "cameraBorder", "splits",
    "fadeIn", "fadeOut", "taps", "clips"};
constexpr std::array<std::string_view, 6> editsKeys{
    "version", "writtenBy", "voiceovers", "captionsFile", "look", "aimedZooms"};

bool isKnownKey(std::string_view key)
{
    return std::find(planKeys.begin(), planKeys.end(), key) != planKeys.end() ||
        std::find(editsKeys.begin(), editsKeys.end(), key) != editsKeys.end();
}

std::string kindOfJson(const Json& value)
{
    if (value.is_array())
        return "a list";
    if (value.is_string())
        return "a piece of text";
    if (value.is_number())
        return "a number";
    if (value.is_boolean())
        return "a true-or-false value";
    return "nothing";
}


} // namespace

std::string plimNameAndVersion() { return "Plim " + std::string(plimVersion); }

std::string refusedEditsSentence(std::string_view sourceName, std::optional<std::string> writtenBy, uint64_t version)
{
    std::string writer = writtenBy ? trimmed(*writtenBy) : std::string();
    if (writer.empty())
        writer = "a newer Plim (edit format " + std::to_string(version) + ")";
    return std::string(sourceName) + " was saved by " + writer + ", which is newer than this " +
        plimNameAndVersion() + ". " + "To open its edits here, update Plim through your package manager. " +
        "Nothing in the file was changed.";
}

std::string unreadableEditsSentence(std::string_view sourceName, std::string_view description)
{
    return std::string(sourceName) + " could not be read at all, so this plim falls back to " +
        "its automatic edit. The file was left as it is. The file says: " + std::string(description);
}

Json PlimEdits::Voiceover::toJson() const
{
    return Json{{"id", id}, {"start", start}, {"duration", duration}, {"file", file}, {"micUnder", micUnder}};
}

std::optional<PlimEdits::Voiceover> PlimEdits::Voiceover::fromJson(const Json& value)
{
    if (!value.is_object())
        return std::nullopt;
    const Json* idJson = jsonField(value, "id");
    auto id = idJson ? jsonUuid(*idJson) : std::nullopt;
    auto start = jsonNumber(value, "start");
    auto duration = jsonNumber(value, "duration");
    auto file = jsonString(value, "file");
    if (!id || !start || !duration || !file || *start < 0 || *duration < 0 || file->empty())
        return std::nullopt;
    Voiceover out{*id, *start, *duration, *file};
    if (jsonField(value, "micUnder")) {
        auto gain = jsonNumber(value, "micUnder");
        if (!gain)
            return std::nullopt;
        out.micUnder = std::clamp(*gain, 0.0, 1.0);
    }
    return out;
}

std::optional<Json> PlimEdits::readPlim3Stage(const fs::path& movie)
{
    fs::path path = sidecarPath(movie, PlimFiles::stage);
    auto json = readJsonFile(path);
    if (!json) {
        if (json.error().kind != Error::Kind::missing)
            logLine(LogArea::main, path.filename().string() + " could not be read (" + json.error().sentence +
                    "), so this plim wears the usual look. The file was left as it is.");
        return std::nullopt;
    }
    if (!json->is_object()) {
        logLine(LogArea::main, path.filename().string() +
                " does not hold a stage look, so this plim wears the usual look. The file was left as it is.");
        return std::nullopt;
    }
    return *json;
}

Result<HeldFile> PlimEdits::sideFile(const fs::path& besideMovie, std::string_view name, std::string_view label)
{
    auto file = openInsideFolder(besideMovie.parent_path(), name);
    if (!file && file.error().kind == Error::Kind::refused)
        return fail(std::string(label) + " names a file outside the plim's folder, so it was left out. Nothing else "
                                         "changed.",
            Error::Kind::refused);
    return file;
}

std::optional<Result<HeldFile>> PlimEdits::captionsFileOpened(const fs::path& besideMovie) const
{
    if (!captionsFile)
        return std::nullopt;
    return sideFile(besideMovie, *captionsFile, "The captions file");
}

bool PlimEdits::isAimed(std::string_view zoomID) const
{
    if (std::find(aimedZooms.begin(), aimedZooms.end(), zoomID) == aimedZooms.end())
        return false;
    return std::any_of(plan.zooms.begin(), plan.zooms.end(), [&](const ZoomBlock& z) { return z.id == zoomID; });
}

Result<Decoded<PlimEdits>> PlimEdits::decode(const Json& value, std::string_view sourceName,
    std::optional<Json> plim3Stage, std::vector<std::string>* droppedKeys)
{
    auto unreadable = [&](std::string_view description) {
        return fail(unreadableEditsSentence(sourceName, description), Error::Kind::corrupt);
    };
    auto refused = [&](const std::optional<std::string>& writtenBy, uint64_t version) {
        return fail(refusedEditsSentence(sourceName, writtenBy, version), Error::Kind::refused);
    };
    if (!value.is_object())
        return unreadable("It holds " + kindOfJson(value) + " where the edits belong.");

    std::optional<std::string> writtenBy = jsonString(value, "writtenBy");
    int64_t version = 1;
    if (const Json* v = jsonField(value, "version")) {
        // Too large for a signed number, yet still a whole one: a format from far in the future.
        if (v->is_number_unsigned() && v->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))
            return refused(writtenBy, v->get<uint64_t>());
        auto whole = jsonAsInteger(*v);
        if (!whole)
            return unreadable("The version field is not a whole number.");
        version = *whole;
    }
    if (version >= 3)
        return refused(writtenBy, static_cast<uint64_t>(version));
    if (version < 1)
        return unreadable("The version field says " + std::to_string(version) + ", and edit formats start at 1.");

    auto plan = EditPlan::fromJson(value, std::string(sourceName));
    if (!plan)
        return unreadable(plan.error().sentence);

    PlimEdits edits;
    edits.plan = std::move(plan->value);
    edits.version = version;
    edits.writtenBy = writtenBy;
    edits.plim3Stage = plim3Stage;

    std::vector<std::string> dropped;
    auto drop = [&](std::string key) {
        if (std::find(dropped.begin(), dropped.end(), key) == dropped.end())
            dropped.push_back(std::move(key));
    };

    if (const Json* list = jsonField(value, "aimedZooms")) {
        if (!list->is_array()) {
            drop("aimedZooms");
        } else {
            for (const Json& item : *list) {
                auto id = jsonUuid(item);
                if (!id)
                    drop("aimedZooms");
                else if (std::find(edits.aimedZooms.begin(), edits.aimedZooms.end(), *id) == edits.aimedZooms.end())
                    edits.aimedZooms.push_back(*id);
            }
        }
    }
    if (jsonField(value, "captionsFile")) {
        auto name = jsonString(value, "captionsFile");
        if (name && !trimmed(*name).empty())
            edits.captionsFile = *name;
        else
            drop("captionsFile");
    }
    if (const Json* lookJson = jsonField(value, "look")) {
        auto look = PlimLook::fromJson(*lookJson);
        if (look.notAnObject) {
            drop("look");
        } else {
            edits.look = look.look;
            for (auto& key : look.droppedKeys)
                drop("look." + key);
        }
    }
    if (const Json* list = jsonField(value, "voiceovers")) {
        if (!list->is_array()) {
            drop("voiceovers");
        } else {
            for (const Json& item : *list) {
                if (auto voice = Voiceover::fromJson(item))
                    edits.voiceovers.push_back(*voice);
                else
                    drop("voiceovers");
            }
        }
    }
    // A writer that is not text is only a label: it is rewritten on save without a notice.

    for (auto it = value.begin(); it != value.end(); ++it)
        if (!isKnownKey(it.key()))
            edits.unknownKeys[it.key()] = it.value();

    std::vector<std::string> notices = std::move(plan->notices);
    if (!dropped.empty())
        notices.push_back(plan_notices::droppedFields(sourceName, dropped));
    if (droppedKeys)
        *droppedKeys = dropped;
    return Decoded<PlimEdits>{std::move(edits), std::move(notices)};
}

Result<Decoded<std::optional<PlimEdits>>> PlimEdits::read(const fs::path& besideMovie)
{
    fs::path path = sidecarPath(besideMovie, PlimFiles::edits);
    std::string name = path.filename().string();
    auto decoded = [&]() -> Result<Decoded<std::optional<PlimEdits>>> {
        auto bytes = readFileBytes(path, plan_limits::largestFileBytes);
        if (!bytes) {
            if (bytes.error().kind == Error::Kind::missing)
                return Decoded<std::optional<PlimEdits>>{};
            return fail(plan_notices::unreadable(name, bytes.error().sentence, isOrdinaryFile(path, plan_limits::largestFileBytes)),
                Error::Kind::unreadable);
        }
        if (bytes->empty())
            return fail(unreadableEditsSentence(name, "The file is empty."), Error::Kind::corrupt);
        auto value = parseJson(*bytes);
        if (!value)
            return fail(unreadableEditsSentence(name, jsonParseProblem(*bytes)), Error::Kind::corrupt);
        auto edits = PLIM_TRY(decode(*value, name, readPlim3Stage(besideMovie)));
        return Decoded<std::optional<PlimEdits>>{std::move(edits.value), std::move(edits.notices)};
    }();
    if (!decoded)
        logLine(LogArea::main, decoded.error().sentence);
    else
        for (const auto& notice : decoded->notices)
            logLine(LogArea::main, notice);
    return decoded;
}

Json PlimEdits::toJson(std::string_view writer) const
{
    Json out = unknownKeys.is_object() ? unknownKeys : Json::object();
    Json planJson = plan.toJson();
    if (planJson.is_object())
        for (auto it = planJson.begin(); it != planJson.end(); ++it)
            out[it.key()] = it.value();
    out["version"] = currentVersion;
    out["writtenBy"] = std::string(writer);
    Json voices = Json::array();
    for (auto& v : voiceovers)
        voices.push_back(v.toJson());
    out["voiceovers"] = voices;
    if (captionsFile)
        out["captionsFile"] = *captionsFile;
    else
        out.erase("captionsFile");
    if (look)
        out["look"] = look->toJson();
    else
        out.erase("look");
    out["aimedZooms"] = aimedZooms;
    return out;
}

Status PlimEdits::write(const fs::path& besideMovie, std::string_view writer) const
{
    fs::path path = sidecarPath(besideMovie, PlimFiles::edits);
    Json json = toJson(writer);
    if (!jsonAllFinite(json))
        return fail("The edits for " + baseName(besideMovie) +
                    " hold a number that is not finite, so they were not written. " + path.filename().string() +
                    " was left as it was.");
    // JSON holds only UTF-8 text: a name with other bytes would be saved as something else
    // and no longer name its file.
    std::vector<std::string_view> names;
    for (const auto& v : voiceovers)
        names.push_back(v.file);
    if (captionsFile)
        names.push_back(*captionsFile);
    for (std::string_view name : names)
        if (!isValidUtf8(name))
            return fail("The edits for " + baseName(besideMovie) + " name the file " + escapedText(name) +
                        ", whose name is not valid UTF-8 text, so they were not written. " +
                        path.filename().string() + " was left as it was; rename that file and add it again.");
    return writeJsonAtomic(path, json);
}

} // namespace plim
