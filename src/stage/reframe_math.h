#pragma once
// Layout of a vertical output: the camera bubble near the bottom and the keycaps and
// captions stacked above it, never above the middle of the picture.

#include "base/geometry.h"

#include <optional>

namespace plim {

struct ReframeMath {
    struct BottomStack {
        double keycapInset = 0;
        double captionInset = 0;
        bool operator==(const BottomStack&) const = default;
    };

    // A square of side 0.26·w, centred horizontally, its bottom 0.05·w above the canvas
    // bottom; the zero rectangle for an unusable size.
    static Rect bubbleRect(Size outputSize);

    // Bottom insets of the keycaps and the caption above a bubble whose top is at `bubbleTop`.
    static BottomStack bottomStack(Size outputSize, std::optional<double> bubbleTop, bool hasKeycaps);
};

} // namespace plim
