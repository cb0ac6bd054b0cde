#include "plan/zoom_block.h"

#include "plan/edit_plan_fields.h"

#include <algorithm>
#include <limits>

namespace plim {

Json toJson(const ZoomBlock::Origin& origin)
{
    if (origin.kind == ZoomBlock::Origin::Kind::clickCluster)
        return Json{{"clickCluster", Json{{"count", origin.count}}}};
    return Json{{"mark", Json::object()}};
}

std::optional<ZoomBlock::Origin> zoomOriginFromJson(const Json& value)
{
    if (value.is_string()) {
        std::string text = value.get<std::string>();
        if (text == "mark")
            return ZoomBlock::Origin::mark();
        if (text == "clickCluster")
            return ZoomBlock::Origin::clickCluster(0);
        return std::nullopt;
    }
    if (!value.is_object() || value.size() != 1)
        return std::nullopt;
    if (value.contains("mark"))
        return ZoomBlock::Origin::mark();
    const Json* cluster = jsonField(value, "clickCluster");
    if (!cluster || !cluster->is_object())
        return std::nullopt;
    int count = 0;
    if (jsonField(*cluster, "count")) {
        auto n = jsonInteger(*cluster, "count");
        if (!n || *n < 0)
            return std::nullopt;
        count = static_cast<int>(std::min<int64_t>(*n, std::numeric_limits<int>::max()));
    }
    return ZoomBlock::Origin::clickCluster(count);
}

Json ZoomBlock::toJson() const
{
    Json out{
        {"id", id},
        {"start", start},
        {"end", end},
        {"centerX", centerX},
        {"centerY", centerY},
        {"scale", scale},
        {"origin", plim::toJson(origin)},
    };
    if (style)
        out["style"] = *style;
    return out;
}

std::optional<ZoomBlock> ZoomBlock::fromJson(const Json& value)
{
    if (!value.is_object())
        return std::nullopt;
    auto id = plan_fields::uuid(value, "id");
    auto start = jsonNumber(value, "start");
    auto end = jsonNumber(value, "end");
    auto cx = jsonNumber(value, "centerX");
    auto cy = jsonNumber(value, "centerY");
    auto scale = jsonNumber(value, "scale");
    if (!id || !start || !end || !cx || !cy || !scale)
        return std::nullopt;
    ZoomBlock block{*id, *start, *end, *cx, *cy, *scale, Origin::mark(), std::nullopt};
    if (const Json* origin = jsonField(value, "origin")) {
        auto decoded = zoomOriginFromJson(*origin);
        if (!decoded)
            return std::nullopt;
        block.origin = *decoded;
    }
    auto style = plan_fields::optionalString(value, "style");
    if (!style.ok)
        return std::nullopt;
    block.style = style.value;
    return block;
}

} // namespace plim
