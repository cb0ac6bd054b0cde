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

std::optional<double> trackPoint(const TrackValue& value)
{
    auto number = trackNumber(value);
    if (!number || std::fabs(*number) > track_limits::farthestPoint)
        return std::nullopt;
    return number;
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
    auto x = trackPoint(at[1]);
    auto y = trackPoint(at[2]);
    if (!t || !x || !y)
        return std::nullopt;
    return CursorSample{*t, *x, *y, trackTypingFlag(at[3])};
}

std::optional<ClickEvent> TrackEntry<ClickEvent>::make(const TrackValue&, const std::array<TrackValue, 3>& at)
{
    auto t = trackTime(at[0]);
    auto x = trackPoint(at[1]);
    auto y = trackPoint(at[2]);
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
    auto x = trackPoint(at[1]);
    auto y = trackPoint(at[2]);
    auto w = trackPoint(at[3]);
    auto h = trackPoint(at[4]);
    if (!t || !x || !y || !w || !h)
        return std::nullopt;
    return CursorTrack::FrameKey{*t, *x, *y, *w, *h};
}

namespace {

namespace od = simdjson::ondemand;
using simdjson::error_code;

// The text is read by simdjson's On-Demand front end, which builds no tape: what the reader
// looks at is read once, and everything else is walked and checked as strictly as a tree
// parser would check it (every atom, number, escape and separator), so a text is refused
// exactly when it is not JSON.

// Reads a scalar of kind `type` from a value or from a document whose top value is a scalar:
// the two offer the same getters but share no type.
template <class Source>
error_code readScalar(Source& source, od::json_type type, TrackValue& out, std::string* text)
{
    error_code error = simdjson::SUCCESS;
    switch (type) {
    case od::json_type::number: {
        // By its kind rather than through get_number(), whose long-decimal path loses the value.
        od::number_type numberType;
        if ((error = source.get_number_type().get(numberType)))
            break;
        if (numberType == od::number_type::signed_integer) {
            out.kind = TrackValue::Kind::signedInteger;
            error = source.get_int64().get(out.signedInteger);
        } else if (numberType == od::number_type::unsigned_integer) {
            out.kind = TrackValue::Kind::unsignedInteger;
            error = source.get_uint64().get(out.unsignedInteger);
        } else {
            out.kind = TrackValue::Kind::real;
            error = source.get_double().get(out.real);
        }
        // Whatever went wrong with a number (integers beyond 64 bits among it) is for
        // the caller to look at again.
        if (error)
            error = simdjson::NUMBER_ERROR;
        break;
    }
    case od::json_type::string: {
        std::string_view string;
        if ((error = source.get_string().get(string)))
            break;
        out.kind = TrackValue::Kind::string;
        if (text)
            *text = string;
        break;
    }
    case od::json_type::boolean:
        out.kind = TrackValue::Kind::boolean;
        error = source.get_bool().get(out.boolean);
        break;
    case od::json_type::null: {
        bool isNull = false;
        error = source.is_null().get(isNull);
        if (!error && !isNull)
            error = simdjson::N_ATOM_ERROR;
        break;
    }
    default:
        break;
    }
    return error;
}

// Checks the rest of an array or object whose iterator is on top of `levels`, and everything
// nested in it, without recursion: nesting may be as deep as the text is long.
class Walk {
public:
    // Checks one value. Scalars are read; a container is entered and checked to its end.
    error_code value(od::value value, TrackValue* found = nullptr, std::string* text = nullptr)
    {
        size_t depth = levels_.size();
        if (error_code error = step(value, found, text))
            return error;
        return finishAbove(depth);
    }

private:
    struct Level {
        bool object = false;
        bool started = false;
        od::array_iterator elements;
        od::object_iterator fields;
    };

    error_code step(od::value value, TrackValue* found, std::string* text)
    {
        od::json_type type;
        if (error_code error = value.type().get(type))
            return error;
        TrackValue out;
        error_code error = simdjson::SUCCESS;
        switch (type) {
        case od::json_type::array: {
            out.kind = TrackValue::Kind::array;
            od::array array;
            Level level;
            if (!(error = value.get_array().get(array)) && !(error = array.begin().get(level.elements)))
                levels_.push_back(level);
            break;
        }
        case od::json_type::object: {
            out.kind = TrackValue::Kind::object;
            od::object object;
            Level level{.object = true};
            if (!(error = value.get_object().get(object)) && !(error = object.begin().get(level.fields)))
                levels_.push_back(level);
            break;
        }
        default:
            error = readScalar(value, type, out, text);
            break;
        }
        if (found)
            *found = out;
        return error;
    }

    // Walks the containers above `depth` to their ends.
    error_code finishAbove(size_t depth)
    {
        while (levels_.size() > depth) {
            Level& top = levels_.back();
            if (top.started) {
                if (top.object)
                    ++top.fields;
                else
                    ++top.elements;
            }
            top.started = true;
            if (top.object ? !(top.fields != top.fields) : !(top.elements != top.elements)) {
                levels_.pop_back();
                continue;
            }
            od::value child;
            if (top.object) {
                od::field field;
                std::string_view key;
                if (error_code error = (*top.fields).get(field))
                    return error;
                if (error_code error = field.unescaped_key().get(key))
                    return error;
                child = field.value();
            } else if (error_code error = (*top.elements).get(child)) {
                return error;
            }
            if (error_code error = step(child, nullptr, nullptr))
                return error;
        }
        return simdjson::SUCCESS;
    }

    std::vector<Level> levels_;
};

// The index of `key` in `keys`, or keys.size().
template<size_t N>
size_t indexOf(const std::array<std::string_view, N>& keys, std::string_view key)
{
    size_t i = 0;
    while (i < N && keys[i] != key)
        ++i;
    return i;
}

// Calls `each(key, value)` for the object's fields in order, keys unescaped.
template<typename Each>
error_code forEachField(od::object object, Each&& each)
{
    for (auto member : object) {
        od::field field;
        std::string_view key;
        if (error_code error = std::move(member).get(field))
            return error;
        if (error_code error = field.unescaped_key().get(key))
            return error;
        if (error_code error = each(key, field.value()))
            return error;
    }
    return simdjson::SUCCESS;
}

template<typename T>
error_code readList(Walk& walk, od::value value, TrackList<T>& out)
{
    out = {};
    od::json_type type;
    if (error_code error = value.type().get(type))
        return error;
    if (type != od::json_type::array) {
        TrackValue found;
        error_code error = walk.value(value, &found);
        if (!error && found.kind != TrackValue::Kind::absent)
            out.state = TrackList<T>::State::notAList;
        return error;
    }
    out.state = TrackList<T>::State::list;
    od::array array;
    if (error_code error = value.get_array().get(array))
        return error;
    constexpr auto& keys = TrackEntry<T>::keys;
    for (auto element : array) {
        od::value entry;
        if (error_code error = std::move(element).get(entry))
            return error;
        std::array<TrackValue, keys.size()> at{};
        TrackValue whole;
        od::json_type entryType;
        if (error_code error = entry.type().get(entryType))
            return error;
        if (entryType == od::json_type::object) {
            whole.kind = TrackValue::Kind::object;
            od::object object;
            if (error_code error = entry.get_object().get(object))
                return error;
            error_code error = forEachField(object, [&](std::string_view key, od::value value) {
                size_t i = indexOf(keys, key);
                return walk.value(value, i < keys.size() ? &at[i] : nullptr);
            });
            if (error)
                return error;
        } else if (error_code error = walk.value(entry, &whole)) {
            return error;
        }
        if (auto item = TrackEntry<T>::make(whole, at))
            out.items.push_back(*item);
        else
            ++out.dropped;
    }
    return simdjson::SUCCESS;
}

error_code readFields(od::object object, CursorTrackFields& fields)
{
    Walk walk;
    return forEachField(object, [&](std::string_view key, od::value value) {
        if (key == "samples")
            return readList(walk, value, fields.samples);
        if (key == "clicks")
            return readList(walk, value, fields.clicks);
        if (key == "marks")
            return readList(walk, value, fields.marks);
        if (key == "frames")
            return readList(walk, value, fields.frames);
        if (key == "videoStartOffsetMS")
            return walk.value(value, &fields.videoStartOffsetMS);
        if (key == "cameraOffsetMS")
            return walk.value(value, &fields.cameraOffsetMS);
        if (key == "subjectKind") {
            fields.subjectKindText.clear();
            return walk.value(value, &fields.subjectKind, &fields.subjectKindText);
        }
        if (size_t i = indexOf(trackGeometryKeys, key); i < trackGeometryKeys.size())
            return walk.value(value, &fields.geometry[i]);
        return walk.value(value);
    });
}

// Reads a padded text: the fields, or nothing when the text is JSON but not an object (a
// top-level value of another kind is checked all the same, to tell it from text that is not JSON).
std::expected<std::optional<CursorTrackFields>, error_code> parse(od::parser& parser, simdjson::padded_string_view text)
{
    od::document document;
    if (error_code error = parser.iterate(text).get(document))
        return std::unexpected(error);
    od::json_type type;
    if (error_code error = document.type().get(type))
        return std::unexpected(error);
    CursorTrackFields fields;
    bool object = type == od::json_type::object;
    error_code error = simdjson::SUCCESS;
    if (object) {
        od::object root;
        if (!(error = document.get_object().get(root)))
            error = readFields(root, fields);
    } else if (type == od::json_type::array) {
        od::value root;
        if (!(error = document.get_value().get(root)))
            error = Walk().value(root);
    } else {
        TrackValue ignored;
        error = readScalar(document, type, ignored, nullptr);
    }
    if (!error) {
        // Whatever follows the top value, besides white space, makes the text not JSON. A
        // scalar is one token, which runs to the next one; a container is valid by now, so
        // skipping it again finds its true end.
        std::string_view whole;
        if (type == od::json_type::object || type == od::json_type::array) {
            document.rewind();
            error = document.raw_json().get(whole);
        } else {
            error = document.raw_json_token().get(whole);
        }
        if (!error && whole.data() + whole.size() != text.data() + text.length())
            error = simdjson::TRAILING_CONTENT;
    }
    if (error)
        return std::unexpected(error);
    if (!object)
        return std::nullopt;
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

    // Cutting at a BOM or a NUL only adds to what lies readable past the end.
    const size_t pastEnd = readablePastEnd + static_cast<size_t>(end - (text.data() + text.size()));
    simdjson::padded_string copy;
    simdjson::padded_string_view padded(text.data(), text.size(), text.size() + pastEnd);
    if (pastEnd < simdjson::SIMDJSON_PADDING) {
        copy = simdjson::padded_string(text);
        padded = copy;
    }
    // Every level of nesting costs at least one byte, so the text's length bounds its depth.
    od::parser parser;
    if (parser.allocate(text.size(), text.size() + 2))
        return std::unexpected(TrackTextFailure::notJson);
    auto fields = parse(parser, padded);
    if (!fields && fields.error() == simdjson::NUMBER_ERROR) {
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
        simdjson::padded_string rewritten(tree.dump());
        fields = parse(parser, rewritten);
    }
    if (!fields)
        return std::unexpected(TrackTextFailure::notJson);
    if (!*fields)
        return std::unexpected(TrackTextFailure::notAnObject);
    return std::move(**fields);
}

} // namespace plim
