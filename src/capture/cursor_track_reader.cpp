#include "capture/cursor_track_reader.h"

#include "base/json.h"

#include <cmath>
#include <simdjson.h>

namespace plim {

std::optional<double> trackNumber(const TrackValue& value)
{
    switch (value.kind) {
    case TrackValue::Kind::signedInteger:
        return static_cast<double>(value.signedInteger);
    case TrackValue::Kind::unsignedInteger:
        return static_cast<double>(value.unsignedInteger);
    case TrackValue::Kind::real:
        if (std::isfinite(value.real))
            return value.real;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

std::optional<int64_t> trackInteger(const TrackValue& value)
{
    switch (value.kind) {
    case TrackValue::Kind::signedInteger:
        return value.signedInteger;
    case TrackValue::Kind::unsignedInteger:
        if (value.unsignedInteger > static_cast<uint64_t>(INT64_MAX))
            return std::nullopt;
        return static_cast<int64_t>(value.unsignedInteger);
    case TrackValue::Kind::real: {
        double d = value.real;
        if (std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 9.2e18)
            return static_cast<int64_t>(d);
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

std::optional<int64_t> trackTime(const TrackValue& value)
{
    auto t = trackInteger(value);
    if (!t || *t < -longestRecordingMS || *t > longestRecordingMS)
        return std::nullopt;
    return t;
}

int trackTypingFlag(const TrackValue& value)
{
    if (value.kind == TrackValue::Kind::boolean)
        return value.boolean ? 1 : 0;
    auto number = trackNumber(value);
    return number && *number != 0 ? 1 : 0;
}

std::optional<CursorSample> TrackEntry<CursorSample>::make(const TrackValue&, const std::array<TrackValue, 4>& at)
{
    auto t = trackTime(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    if (!t || !x || !y)
        return std::nullopt;
    return CursorSample{*t, *x, *y, trackTypingFlag(at[3])};
}

std::optional<ClickEvent> TrackEntry<ClickEvent>::make(const TrackValue&, const std::array<TrackValue, 3>& at)
{
    auto t = trackTime(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    if (!t || !x || !y)
        return std::nullopt;
    return ClickEvent{*t, *x, *y};
}

std::optional<Mark> TrackEntry<Mark>::make(const TrackValue& whole, const std::array<TrackValue, 1>& at)
{
    // A bare number is accepted as the mark's time too.
    if (auto t = trackTime(whole))
        return Mark{*t};
    if (auto t = trackTime(at[0]))
        return Mark{*t};
    return std::nullopt;
}

std::optional<CursorTrack::FrameKey> TrackEntry<CursorTrack::FrameKey>::make(
    const TrackValue&, const std::array<TrackValue, 5>& at)
{
    auto t = trackTime(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    auto w = trackNumber(at[3]);
    auto h = trackNumber(at[4]);
    if (!t || !x || !y || !w || !h)
        return std::nullopt;
    return CursorTrack::FrameKey{*t, *x, *y, *w, *h};
}

namespace {

TrackValue valueOf(simdjson::dom::element element)
{
    using Type = simdjson::dom::element_type;
    TrackValue out;
    switch (element.type()) {
    case Type::NULL_VALUE:
        break;
    case Type::BOOL:
        out.kind = TrackValue::Kind::boolean;
        out.boolean = element.get_bool().value_unsafe();
        break;
    case Type::INT64:
        out.kind = TrackValue::Kind::signedInteger;
        out.signedInteger = element.get_int64().value_unsafe();
        break;
    case Type::UINT64:
        out.kind = TrackValue::Kind::unsignedInteger;
        out.unsignedInteger = element.get_uint64().value_unsafe();
        break;
    case Type::DOUBLE:
        out.kind = TrackValue::Kind::real;
        out.real = element.get_double().value_unsafe();
        break;
    case Type::STRING:
        out.kind = TrackValue::Kind::string;
        break;
    case Type::ARRAY:
        out.kind = TrackValue::Kind::array;
        break;
    case Type::OBJECT:
        out.kind = TrackValue::Kind::object;
        break;
    }
    return out;
}

// The index of `key` in `keys`, or keys.size().
template<size_t N>
size_t indexOf(const std::array<std::string_view, N>& keys, std::string_view key)
{
    size_t i = 0;
    while (i < N && keys[i] != key)
        ++i;
    return i;
}

template<typename T>
TrackList<T> listOf(simdjson::dom::element value)
{
    TrackList<T> out;
    if (value.is_null())
        return out;
    simdjson::dom::array array;
    if (value.get_array().get(array)) {
        out.state = TrackList<T>::State::notAList;
        return out;
    }
    out.state = TrackList<T>::State::list;
    out.items.reserve(array.size());
    constexpr auto& keys = TrackEntry<T>::keys;
    for (simdjson::dom::element entry : array) {
        std::array<TrackValue, keys.size()> at{};
        simdjson::dom::object object;
        if (!entry.get_object().get(object))
            for (auto field : object)
                if (size_t i = indexOf(keys, field.key); i < keys.size())
                    at[i] = valueOf(field.value);
        if (auto item = TrackEntry<T>::make(valueOf(entry), at))
            out.items.push_back(*item);
        else
            ++out.dropped;
    }
    return out;
}

CursorTrackFields fieldsOf(simdjson::dom::object object)
{
    CursorTrackFields fields;
    for (auto field : object) {
        std::string_view key = field.key;
        if (key == "samples")
            fields.samples = listOf<CursorSample>(field.value);
        else if (key == "clicks")
            fields.clicks = listOf<ClickEvent>(field.value);
        else if (key == "marks")
            fields.marks = listOf<Mark>(field.value);
        else if (key == "frames")
            fields.frames = listOf<CursorTrack::FrameKey>(field.value);
        else if (key == "videoStartOffsetMS")
            fields.videoStartOffsetMS = valueOf(field.value);
        else if (key == "cameraOffsetMS")
            fields.cameraOffsetMS = valueOf(field.value);
        else if (key == "subjectKind") {
            fields.subjectKind = valueOf(field.value);
            std::string_view text;
            fields.subjectKindText = field.value.get_string().get(text) ? std::string() : std::string(text);
        } else if (size_t i = indexOf(trackGeometryKeys, key); i < trackGeometryKeys.size())
            fields.geometry[i] = valueOf(field.value);
    }
    return fields;
}

} // namespace

std::expected<CursorTrackFields, TrackTextFailure> readTrackFields(std::string_view text, size_t readablePastEnd)
{
    const char* const end = text.data() + text.size();
    // A byte order mark is skipped; a NUL byte ends the text, as it ends a C string.
    if (!text.empty() && static_cast<unsigned char>(text[0]) == 0xEF) {
        if (!text.starts_with("\xEF\xBB\xBF"))
            return std::unexpected(TrackTextFailure::notJson);
        text.remove_prefix(3);
    }
    if (size_t nul = text.find('\0'); nul != std::string_view::npos)
        text = text.substr(0, nul);

    // Most tracks nest three deep; a deeper one is parsed again with room for any depth a
    // valid text of its length can have (every level costs two bytes).
    // Cutting at a BOM or a NUL only adds to what lies readable past the end.
    const bool inPlace = readablePastEnd + static_cast<size_t>(end - (text.data() + text.size())) >= simdjson::SIMDJSON_PADDING;
    simdjson::dom::parser parser;
    simdjson::dom::element root;
    auto error = parser.parse(text.data(), text.size(), !inPlace).get(root);
    if (error == simdjson::DEPTH_ERROR) {
        if (parser.allocate(text.size(), text.size() / 2 + 1))
            return std::unexpected(TrackTextFailure::notJson);
        error = parser.parse(text.data(), text.size(), !inPlace).get(root);
    }
    if (error == simdjson::NUMBER_ERROR) {
        // simdjson holds integers of at most 64 bits; JSON allows larger ones, which nlohmann
        // reads as doubles. Such a text is read through nlohmann and written back compactly,
        // keeping only the depths the reader looks at (a value inside a list entry is only
        // asked its kind), so the rewrite stays shallow.
        Json tree = Json::parse(
            text.begin(), text.end(),
            [](int depth, Json::parse_event_t event, Json&) {
                return depth <= 4 || event == Json::parse_event_t::object_end || event == Json::parse_event_t::array_end;
            },
            false);
        if (tree.is_discarded())
            return std::unexpected(TrackTextFailure::notJson);
        std::string rewritten = tree.dump();
        error = parser.parse(rewritten.data(), rewritten.size()).get(root);
    }
    if (error)
        return std::unexpected(TrackTextFailure::notJson);
    simdjson::dom::object object;
    if (root.get_object().get(object))
        return std::unexpected(TrackTextFailure::notAnObject);
    return fieldsOf(object);
}

} // namespace plim
