// The plan's JSON form, its sidecar files, the tolerant decoder and its notices.

#include "base/text.h"
#include "plan/edit_plan.h"

#include "base/log.h"
#include "plan/edit_plan_fields.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

constexpr std::string_view defaultSource = "a plan sidecar";

std::string withFullStop(std::string_view text)
{
    std::string out = trimmed(text);
    if (out.empty() || out.back() != '.')
        out += '.';
    return out;
}

std::string joined(const std::vector<std::string>& items, std::string_view separator, std::size_t count)
{
    std::string out;
    for (std::size_t i = 0; i < items.size() && i < count; ++i) {
        if (i > 0)
            out += separator;
        out += items[i];
    }
    return out;
}

// The first five labels, and how many more there are.
std::string fewOf(const std::vector<std::string>& labels)
{
    std::string list = joined(labels, ", ", 5);
    if (labels.size() > 5)
        list += " and " + std::to_string(labels.size() - 5) + " more";
    return list;
}

template<typename T>
Json arrayOf(const std::vector<T>& items)
{
    Json out = Json::array();
    for (const auto& item : items)
        out.push_back(item.toJson());
    return out;
}

// Brings each number of the plan that has a sensible range into it, naming each one
// changed ("zoom 2's scale 1e+09 as 4").
std::vector<std::string> boundNumbers(EditPlan& plan)
{
    std::vector<std::string> changed;
    auto bound = [&](double& value, double lo, double hi, const std::string& what) {
        if (value >= lo && value <= hi)
            return;
        const double was = value;
        value = std::isfinite(value) ? std::clamp(value, lo, hi) : lo;
        changed.push_back(what + " " + numberText(was, 2) + " as " + numberText(value, 2));
    };
    auto boundOptional = [&](std::optional<double>& value, double lo, double hi, const std::string& what) {
        if (value)
            bound(*value, lo, hi, what);
    };
    for (std::size_t i = 0; i < plan.zooms.size(); ++i) {
        const std::string zoom = "zoom " + std::to_string(i + 1) + "'s ";
        bound(plan.zooms[i].scale, plan_limits::minZoomScale, plan_limits::maxZoomScale, zoom + "scale");
        bound(plan.zooms[i].centerX, 0, 1, zoom + "centerX");
        bound(plan.zooms[i].centerY, 0, 1, zoom + "centerY");
    }
    for (std::size_t i = 0; i < plan.skips.size(); ++i)
        bound(plan.skips[i].rate, plan_limits::minSkipRate, plan_limits::maxSkipRate,
            "skip " + std::to_string(i + 1) + "'s rate");
    boundOptional(plan.cameraScale, plan_limits::minCameraScale, plan_limits::maxCameraScale, "cameraScale");
    boundOptional(plan.cameraX, 0, 1, "cameraX");
    boundOptional(plan.cameraY, 0, 1, "cameraY");
    return changed;
}

// Refuses a plan too large to work out: a list past plan_limits::mostEntries, or clips that
// add up to more than a day.
Status checkSize(const Json& value)
{
    for (const char* key : {"zooms", "skips", "masks", "cuts", "taps", "splits", "clips"}) {
        const Json* field = jsonField(value, key);
        if (field && field->is_array() && field->size() > plan_limits::mostEntries)
            return fail("It holds " + std::to_string(field->size()) + " " + key + ", more than the "
                + std::to_string(plan_limits::mostEntries) + " a plan may hold.");
    }
    double clipsLength = 0;
    if (const Json* clips = jsonField(value, "clips"); clips && clips->is_array())
        for (const Json& clip : *clips) {
            auto start = jsonNumber(clip, "start");
            auto end = jsonNumber(clip, "end");
            if (start && end && *end > *start)
                clipsLength += *end - *start;
        }
    if (clipsLength > plan_limits::longestClipsSeconds)
        return fail("Its clips add up to " + numberText(clipsLength / 3600, 1) + " hours, more than the "
            + numberText(plan_limits::longestClipsSeconds / 3600, 0) + " hours a plim may last.");
    return {};
}

} // namespace

// --- Nested values ---

Json SkipDecision::toJson() const
{
    return Json{{"span", Json{{"start", span.start}, {"end", span.end}}}, {"keep", keep}, {"rate", rate}};
}

std::optional<SkipDecision> SkipDecision::fromJson(const Json& value)
{
    if (!value.is_object())
        return std::nullopt;
    const Json* span = jsonField(value, "span");
    if (!span)
        return std::nullopt;
    auto start = jsonNumber(*span, "start");
    auto end = jsonNumber(*span, "end");
    auto keep = plan_fields::optionalBool(value, "keep");
    auto rate = plan_fields::optionalNumber(value, "rate");
    if (!start || !end || !keep.ok || !rate.ok)
        return std::nullopt;
    return SkipDecision{{*start, *end}, keep.value.value_or(false), rate.value.value_or(4.0)};
}

std::string_view TransitionSpec::rawValue(Kind kind)
{
    switch (kind) {
    case Kind::dipToBlack: return "dipToBlack";
    case Kind::dipToBackdrop: return "dipToBackdrop";
    case Kind::blur: return "blur";
    case Kind::punch: return "punch";
    }
    return "dipToBlack";
}

std::optional<TransitionSpec::Kind> TransitionSpec::kindFromRaw(std::string_view raw)
{
    for (Kind kind : {Kind::dipToBlack, Kind::dipToBackdrop, Kind::blur, Kind::punch})
        if (rawValue(kind) == raw)
            return kind;
    return std::nullopt;
}

Json TransitionSpec::toJson() const
{
    return Json{{"kind", rawValue(kind)}, {"duration", duration}};
}

std::optional<TransitionSpec> TransitionSpec::fromJson(const Json& value)
{
    auto kindText = jsonString(value, "kind");
    auto duration = jsonNumber(value, "duration");
    if (!kindText || !duration)
        return std::nullopt;
    auto kind = kindFromRaw(*kindText);
    if (!kind)
        return std::nullopt;
    return TransitionSpec{*kind, *duration};
}

Json CutRange::toJson() const
{
    Json out{{"id", id}, {"start", start}, {"end", end}};
    if (transition)
        out["transition"] = transition->toJson();
    return out;
}

std::optional<CutRange> CutRange::fromJson(const Json& value)
{
    auto id = plan_fields::uuid(value, "id");
    auto start = jsonNumber(value, "start");
    auto end = jsonNumber(value, "end");
    if (!id || !start || !end)
        return std::nullopt;
    CutRange cut{*id, *start, *end, std::nullopt};
    if (const Json* transition = jsonField(value, "transition")) {
        cut.transition = TransitionSpec::fromJson(*transition);
        if (!cut.transition)
            return std::nullopt;
    }
    return cut;
}

std::string_view MaskRegion::rawValue(Style style)
{
    return style == Style::pixelate ? "pixelate" : "blur";
}

std::optional<MaskRegion::Style> MaskRegion::styleFromRaw(std::string_view raw)
{
    if (raw == "blur")
        return Style::blur;
    if (raw == "pixelate")
        return Style::pixelate;
    return std::nullopt;
}

Json MaskRegion::toJson() const
{
    return Json{{"id", id}, {"x", x}, {"y", y}, {"w", w}, {"h", h}, {"start", start}, {"end", end},
        {"style", rawValue(style)}};
}

std::optional<MaskRegion> MaskRegion::fromJson(const Json& value)
{
    auto id = plan_fields::uuid(value, "id");
    auto x = jsonNumber(value, "x");
    auto y = jsonNumber(value, "y");
    auto w = jsonNumber(value, "w");
    auto h = jsonNumber(value, "h");
    auto start = jsonNumber(value, "start");
    auto end = jsonNumber(value, "end");
    auto styleText = jsonString(value, "style");
    if (!id || !x || !y || !w || !h || !start || !end || !styleText)
        return std::nullopt;
    auto style = styleFromRaw(*styleText);
    if (!style)
        return std::nullopt;
    return MaskRegion{*id, *x, *y, *w, *h, *start, *end, *style};
}

Json TapMark::toJson() const
{
    return Json{{"id", id}, {"t", t}, {"x", x}, {"y", y}};
}

std::optional<TapMark> TapMark::fromJson(const Json& value)
{
    auto id = plan_fields::uuid(value, "id");
    auto t = jsonNumber(value, "t");
    auto x = jsonNumber(value, "x");
    auto y = jsonNumber(value, "y");
    if (!id || !t || !x || !y)
        return std::nullopt;
    return TapMark{*id, *t, *x, *y};
}

// --- The plan ---

Json EditPlan::toJson() const
{
    Json out = Json::object();
    out["zooms"] = arrayOf(zooms);
    out["skips"] = arrayOf(skips);
    out["masks"] = arrayOf(masks);
    out["cuts"] = arrayOf(cuts);
    out["taps"] = arrayOf(taps);
    out["splits"] = splits;
    if (cameraCorner) out["cameraCorner"] = *cameraCorner;
    if (cameraX) out["cameraX"] = *cameraX;
    if (cameraY) out["cameraY"] = *cameraY;
    if (cameraScale) out["cameraScale"] = *cameraScale;
    if (cameraShape) out["cameraShape"] = *cameraShape;
    if (trimIn) out["trimIn"] = *trimIn;
    if (trimOut) out["trimOut"] = *trimOut;
    if (cameraMirror) out["cameraMirror"] = *cameraMirror;
    if (cameraBorder) out["cameraBorder"] = *cameraBorder;
    if (fadeIn) out["fadeIn"] = fadeIn->toJson();
    if (fadeOut) out["fadeOut"] = fadeOut->toJson();
    if (clips) out["clips"] = arrayOf(*clips);
    return out;
}

Result<Decoded<EditPlan>> EditPlan::fromJson(const Json& value, std::optional<std::string> sourceName, DecodeReport* report)
{
    if (!value.is_object())
        return fail(std::string("It holds a JSON ") + value.type_name() + " where an object of edits belongs.");

    PLIM_TRY(checkSize(value));
    EditPlan plan;
    DecodeReport dropped;

    auto list = [&]<typename T>(const char* key, std::vector<T>& target, auto decodeOne) {
        const Json* field = jsonField(value, key);
        if (!field)
            return;
        if (!field->is_array()) {
            dropped.droppedKeys.push_back(key);
            return;
        }
        std::vector<T> items;
        for (const auto& item : *field) {
            auto decoded = decodeOne(item);
            if (!decoded) {
                dropped.droppedKeys.push_back(key);
                return;
            }
            items.push_back(std::move(*decoded));
        }
        target = std::move(items);
    };
    auto optional = [&]<typename T>(const char* key, std::optional<T>& target, plan_fields::Optional<T> read) {
        if (read.ok)
            target = std::move(read.value);
        else
            dropped.droppedKeys.push_back(key);
    };
    auto transition = [&](const char* key, std::optional<TransitionSpec>& target) {
        const Json* field = jsonField(value, key);
        if (!field)
            return;
        target = TransitionSpec::fromJson(*field);
        if (!target)
            dropped.droppedKeys.push_back(key);
    };

    list("zooms", plan.zooms, [](const Json& j) { return ZoomBlock::fromJson(j); });
    list("skips", plan.skips, [](const Json& j) { return SkipDecision::fromJson(j); });
    optional("cameraCorner", plan.cameraCorner, plan_fields::optionalString(value, "cameraCorner"));
    optional("cameraX", plan.cameraX, plan_fields::optionalNumber(value, "cameraX"));
    optional("cameraY", plan.cameraY, plan_fields::optionalNumber(value, "cameraY"));
    list("masks", plan.masks, [](const Json& j) { return MaskRegion::fromJson(j); });
    optional("cameraScale", plan.cameraScale, plan_fields::optionalNumber(value, "cameraScale"));
    optional("cameraShape", plan.cameraShape, plan_fields::optionalString(value, "cameraShape"));
    optional("trimIn", plan.trimIn, plan_fields::optionalNumber(value, "trimIn"));
    optional("trimOut", plan.trimOut, plan_fields::optionalNumber(value, "trimOut"));

    // Cuts: one lacking a time is left out on its own; any other damage costs the field.
    if (const Json* field = jsonField(value, "cuts")) {
        bool ok = field->is_array();
        std::vector<CutRange> cuts;
        std::vector<std::string> labels;
        for (std::size_t i = 0; ok && i < field->size(); ++i) {
            const Json& item = (*field)[i];
            if (!item.is_object()) {
                ok = false;
                break;
            }
            if (!jsonNumber(item, "start") || !jsonNumber(item, "end")) {
                labels.push_back("cut " + std::to_string(i + 1));
                continue;
            }
            auto cut = CutRange::fromJson(item);
            if (!cut)
                ok = false;
            else
                cuts.push_back(std::move(*cut));
        }
        if (ok) {
            plan.cuts = std::move(cuts);
            dropped.droppedCuts = std::move(labels);
        } else {
            dropped.droppedKeys.push_back("cuts");
        }
    }

    optional("cameraMirror", plan.cameraMirror, plan_fields::optionalBool(value, "cameraMirror"));
    optional("cameraBorder", plan.cameraBorder, plan_fields::optionalBool(value, "cameraBorder"));
    if (const Json* field = jsonField(value, "splits")) {
        bool ok = field->is_array();
        std::vector<double> splits;
        if (ok) {
            for (const auto& item : *field) {
                if (!item.is_number() || !std::isfinite(item.get<double>())) {
                    ok = false;
                    break;
                }
                splits.push_back(item.get<double>());
            }
        }
        if (ok)
            plan.splits = std::move(splits);
        else
            dropped.droppedKeys.push_back("splits");
    }
    transition("fadeIn", plan.fadeIn);
    transition("fadeOut", plan.fadeOut);
    list("taps", plan.taps, [](const Json& j) { return TapMark::fromJson(j); });
    if (jsonField(value, "clips")) {
        std::vector<PlimClip> clips;
        std::size_t before = dropped.droppedKeys.size();
        list("clips", clips, [](const Json& j) { return PlimClip::fromJson(j); });
        if (dropped.droppedKeys.size() == before)
            plan.clips = std::move(clips);
    }

    dropped.clampedValues = boundNumbers(plan);

    std::string source = sourceName ? *sourceName : std::string(defaultSource);
    std::vector<std::string> notices;
    if (!dropped.droppedKeys.empty())
        notices.push_back(plan_notices::droppedFields(source, dropped.droppedKeys));
    if (!dropped.droppedCuts.empty())
        notices.push_back(plan_notices::droppedCuts(source, dropped.droppedCuts));
    if (!dropped.clampedValues.empty())
        notices.push_back(plan_notices::clampedValues(source, dropped.clampedValues));
    if (report)
        *report = std::move(dropped);
    return Decoded<EditPlan>{std::move(plan), std::move(notices)};
}

Decoded<std::optional<EditPlan>> EditPlan::decode(const fs::path& path)
{
    std::string source = path.filename().string();
    auto refused = [](std::string notice) { return Decoded<std::optional<EditPlan>>{std::nullopt, {std::move(notice)}}; };
    auto bytes = readFileBytes(path, plan_limits::largestFileBytes);
    if (!bytes) {
        if (bytes.error().kind == Error::Kind::unreadable)
            return refused(plan_notices::unreadable(source, bytes.error().sentence, isOrdinaryFile(path, plan_limits::largestFileBytes)));
        return {};
    }
    if (trimmed(*bytes).empty())
        return refused(plan_notices::undecodable(source, "The file is empty."));
    auto value = parseJson(*bytes);
    if (!value)
        return refused(plan_notices::undecodable(source, jsonParseProblem(*bytes)));
    auto plan = fromJson(*value, source);
    if (!plan)
        return refused(plan_notices::undecodable(source, plan.error().sentence));
    return {std::move(plan->value), std::move(plan->notices)};
}

Decoded<std::optional<EditPlan>> EditPlan::decodeBesideMovie(const fs::path& movie)
{
    return decode(sidecarPath(movie, PlimFiles::edits));
}

Status EditPlan::writeTo(const fs::path& path) const
{
    Json value = toJson();
    if (!jsonAllFinite(value))
        return fail("Plim could not write " + path.filename().string()
            + " because one of the edit's numbers is not a finite value. Nothing on disk changed; "
              "undo the last change and save again.");
    return writeJsonAtomic(path, value);
}

Status EditPlan::write(const fs::path& movie) const
{
    return writeTo(sidecarPath(movie, PlimFiles::edits));
}

Status EditPlan::writeRendered(const fs::path& movie) const
{
    return writeTo(sidecarPath(movie, PlimFiles::rendered));
}

// --- Notices ---

namespace plan_notices {

std::string unreadable(std::string_view source, std::string_view systemError, bool ordinaryFile)
{
    std::string sentence = std::string(source)
        + " is on disk but could not be read, so this plim falls back to its automatic edit. "
          "Your edits are still in that file, untouched. The system says: "
        + withFullStop(systemError);
    if (ordinaryFile)
        sentence += " A file still waiting to download from a network or cloud folder, or one whose permissions "
                    "changed, reads exactly like this.";
    return sentence;
}

std::string undecodable(std::string_view source, std::string_view fileError)
{
    return std::string(source) + " could not be read at all, so this plim falls back to its automatic edit. "
        + "The file says: " + std::string(fileError);
}

std::string droppedFields(std::string_view source, const std::vector<std::string>& keys)
{
    std::vector<std::string> detected;
    bool authored = false;
    for (const auto& key : keys) {
        if (key == "skips" || key == "zooms")
            detected.push_back(key);
        else
            authored = true;
    }
    std::vector<std::string> advice;
    if (authored)
        advice.push_back("re-apply your edits in the editor to rewrite the file.");
    if (!detected.empty())
        advice.push_back(joined(detected, " and ", detected.size())
            + " are detected by Plim rather than authored, so they are not lost work in themselves; "
              "any tuning you gave them by hand went with them.");
    return std::string(source) + ": " + joined(keys, ", ", keys.size())
        + " could not be read and were left out. The rest of the edit was kept; " + joined(advice, " ", advice.size());
}

std::string droppedCuts(std::string_view source, const std::vector<std::string>& labels)
{
    if (labels.size() == 1)
        return std::string(source) + ": " + labels.front()
            + " is missing one of its times and was left out. Every other edit was kept.";
    std::string list = fewOf(labels);
    return std::string(source) + ": " + std::to_string(labels.size())
        + " cuts are missing one of their times and were left out (" + list + "). Every other edit was kept.";
}

std::string clampedValues(std::string_view source, const std::vector<std::string>& labels)
{
    std::string list = fewOf(labels);
    return std::string(source) + ": " + (labels.size() == 1 ? "a number lies" : "numbers lie")
        + " outside what Plim can show, so this render reads " + list
        + ". The file was left as it is; set those values in the editor to keep them.";
}

} // namespace plan_notices

} // namespace plim
