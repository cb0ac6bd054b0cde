#include "capture/keystroke_track.h"

#include "base/json.h"
#include "capture/cursor_track.h"
#include "base/text.h"

#include <algorithm>
#include <utf8proc.h>

namespace plim {

namespace {

// One decoded code point and where its bytes lie. Bytes that are not UTF-8 decode one by
// one as U+FFFD, so any string can be walked.
struct CodePoint {
    char32_t value;
    size_t begin;
    size_t end;
};

std::vector<CodePoint> decodeUtf8(std::string_view text)
{
    std::vector<CodePoint> out;
    for (size_t at = 0; at < text.size();) {
        size_t begin = at;
        auto c = utf8Decode(text, at);
        if (!c)
            ++at;
        out.push_back({c.value_or(0xFFFD), begin, at});
    }
    return out;
}

// White space and line breaks: the Unicode separators, the ASCII controls tab to
// carriage return, and NEL.
bool isWhiteSpaceOrNewline(char32_t c)
{
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680
        || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// Byte offsets at which each user-perceived character (extended grapheme cluster) starts.
std::vector<size_t> characterStarts(const std::vector<CodePoint>& points)
{
    std::vector<size_t> starts;
    utf8proc_int32_t state = 0;
    for (size_t i = 0; i < points.size(); ++i) {
        if (i == 0
            || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(points[i - 1].value),
                static_cast<utf8proc_int32_t>(points[i].value), &state))
            starts.push_back(points[i].begin);
    }
    return starts;
}

struct CleanCaption {
    std::string text;
    bool changed = false;
};

CleanCaption cleanCaption(const std::string& caption)
{
    auto points = decodeUtf8(caption);
    size_t first = 0, last = points.size();
    while (first < last && isWhiteSpaceOrNewline(points[first].value))
        ++first;
    while (last > first && isWhiteSpaceOrNewline(points[last - 1].value))
        --last;
    if (first == last)
        return {"", true};
    std::string trimmed = caption.substr(points[first].begin, points[last - 1].end - points[first].begin);
    auto trimmedPoints = decodeUtf8(trimmed);
    auto starts = characterStarts(trimmedPoints);
    if (starts.size() > KeystrokeTrack::maxCaptionCharacters)
        trimmed.resize(starts[KeystrokeTrack::maxCaptionCharacters]);
    bool changed = trimmed != caption;
    return {std::move(trimmed), changed};
}

std::string plural(int n, std::string_view noun)
{
    std::string out = std::to_string(n) + std::string(noun);
    if (n != 1)
        out += "s";
    return out;
}

} // namespace

fs::path KeystrokeTrack::fileBeside(const fs::path& movie) { return sidecarPath(movie, PlimFiles::keys); }

Json KeystrokeTrack::toJson() const
{
    Json list = Json::array();
    for (const auto& event : events)
        list.push_back({{"t", event.t}, {"caption", event.caption}});
    return Json{{"events", std::move(list)}};
}

std::optional<KeystrokeTrack> KeystrokeTrack::fromJson(const Json& json)
{
    const Json* list = jsonField(json, "events");
    if (!list || !list->is_array())
        return std::nullopt;
    KeystrokeTrack track;
    track.events.reserve(list->size());
    for (const Json& entry : *list) {
        auto t = jsonInteger(entry, "t");
        auto caption = jsonString(entry, "caption");
        if (!t || !caption)
            return std::nullopt;
        track.events.push_back({*t, std::move(*caption)});
    }
    return track;
}

Status KeystrokeTrack::write(const fs::path& movie) const
{
    return writeFileAtomic(fileBeside(movie), toJson().dump(-1, ' ', false, Json::error_handler_t::replace));
}

KeystrokeTrack::Sanitized KeystrokeTrack::sanitized(const std::vector<KeyEvent>& events)
{
    Sanitized out;
    out.events.reserve(events.size());
    for (const auto& event : events) {
        if (event.t < 0 || event.t > longestRecordingMS) {
            ++out.dropped;
            continue;
        }
        CleanCaption clean = cleanCaption(event.caption);
        if (clean.text.empty()) {
            ++out.dropped;
            continue;
        }
        if (clean.changed)
            ++out.shortened;
        out.events.push_back({event.t, std::move(clean.text)});
    }
    std::stable_sort(out.events.begin(), out.events.end(), [](const KeyEvent& a, const KeyEvent& b) { return a.t < b.t; });
    return out;
}

std::string KeystrokeTrack::repairNotice(std::string_view fileName, int dropped, int shortened)
{
    std::vector<std::string> parts;
    if (dropped > 0)
        parts.push_back(plural(dropped, " unusable event") + " dropped");
    if (shortened > 0)
        parts.push_back(plural(shortened, " caption") + " longer than any real shortcut shortened to "
            + std::to_string(maxCaptionCharacters) + " characters");
    if (parts.empty())
        parts.push_back("its events put back in time order");
    std::string notice(fileName);
    notice += " is not shaped the way Plim writes it: ";
    for (size_t i = 0; i < parts.size(); ++i)
        notice += (i ? ", " : "") + parts[i];
    notice += ". The keycap row draws what was left; the file itself was not changed.";
    return notice;
}

Result<Decoded<KeystrokeTrack>> KeystrokeTrack::read(const fs::path& movie)
{
    const fs::path path = fileBeside(movie);
    const std::string name = path.filename().string();
    auto json = readJsonFile(path);
    if (!json && json.error().kind == Error::Kind::missing)
        return fail("There is no keystroke track beside " + movie.filename().string() + " (" + name
                + " is missing), so no keycaps can be shown. Nothing was changed.",
            Error::Kind::missing);
    std::optional<KeystrokeTrack> decoded;
    if (json)
        decoded = fromJson(*json);
    if (!decoded)
        return fail(name + " is not a keystroke track Plim can read ("
                + (json ? std::string("its events are not shaped as Plim writes them") : json.error().sentence)
                + "), so no keycaps are shown. The file was left as it is and nothing in it was lost.",
            Error::Kind::unreadable);
    Sanitized clean = sanitized(decoded->events);
    if (clean.events == decoded->events)
        return Decoded<KeystrokeTrack>{std::move(*decoded), {}};
    return Decoded<KeystrokeTrack>{KeystrokeTrack{std::move(clean.events)},
        {repairNotice(name, clean.dropped, clean.shortened)}};
}

std::vector<KeyEvent> KeystrokeTrack::captions(double at, double linger) const
{
    std::vector<KeyEvent> out;
    for (const auto& event : events) {
        double shown = static_cast<double>(event.t) / 1000.0;
        if (shown <= at && at <= shown + linger)
            out.push_back(event);
    }
    return out;
}

} // namespace plim
