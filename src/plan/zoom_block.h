#pragma once
// A span of source time during which the picture is magnified around a point.

#include "base/json_fwd.h"

#include <optional>
#include <string>

namespace plim {

struct ZoomBlock {
    // How the block came about: from a cluster of `count` clicks, or placed by the user.
    struct Origin {
        enum class Kind { clickCluster, mark };
        Kind kind = Kind::mark;
        int count = 0; // clicks in the cluster; meaningful for clickCluster

        static Origin clickCluster(int count) { return Origin{Kind::clickCluster, count}; }
        static Origin mark() { return Origin{Kind::mark, 0}; }
        bool operator==(const Origin&) const = default;
    };

    std::string id; // UUID text, upper case
    double start = 0;
    double end = 0;
    double centerX = 0.5; // fractions of the recorded picture from its top-left
    double centerY = 0.5;
    double scale = 1.0;   // 1 = no magnification
    Origin origin;
    std::optional<std::string> style; // a ZoomStyle raw value overriding the stage's style

    bool operator==(const ZoomBlock&) const = default;

    // {"id", "start", "end", "centerX", "centerY", "scale", "origin", "style"?};
    // origin is {"clickCluster": {"count": N}} or {"mark": {}}.
    Json toJson() const;
    // Nothing when a required key (id, start, end, centerX, centerY, scale) is missing or
    // mistyped, or origin/style are present but malformed. A missing origin reads as mark,
    // a missing style as none.
    static std::optional<ZoomBlock> fromJson(const Json& value);
};

Json toJson(const ZoomBlock::Origin& origin);
std::optional<ZoomBlock::Origin> zoomOriginFromJson(const Json& value);

} // namespace plim
