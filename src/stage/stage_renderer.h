#pragma once
// Composes one output frame from a picture of the recording and the StageMoment of that
// instant, layer by layer: zoom and placement, the screen card through its rounded mask
// over the ground with its shadow, blur and pixelate boxes, spotlight, zoom blur, click
// effects, camera bubble, pointer, keycaps, caption line and transition.
//
// Built once per render: the ground (backdrop with the card's shadow), the card mask and
// the pointer sprite are prepared in create(); render() only draws what changes.
//
// Threads: render() is called from one thread at a time (the engine's compose thread);
// it may use the compositor's worker threads inside a call. The returned Image belongs to
// the caller for as long as it holds a copy, so it can be queued to an encoder (on any
// thread) while the next frame is composed; once every copy is gone the renderer reuses
// its pixels for a later frame, so keep an Image, never a raw pointer into one. Source
// and camera pictures are only read.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"
#include "library/plim_look.h"
#include "stage/compositor.h"
#include "stage/stage_geometry.h"
#include "stage/stage_moment.h"
#include "stage/stage_spec.h"

#include <filesystem>
#include <memory>
#include <optional>

namespace plim {

struct EditPlan;

// Where and how the camera picture is shown.
struct CameraBubble {
    CameraShape shape = CameraShape::circle;
    PlimLook::BubbleCorner corner = PlimLook::BubbleCorner::br;
    // Free position of the bubble's centre, fractions of the canvas from its top-left;
    // when present it wins over the corner.
    std::optional<Point> position;
    double scale = 1;     // size factor of the bubble (1 = the default size)
    bool mirror = true;   // show the camera picture mirrored, as a mirror would
    bool ring = true;     // draw the border ring
    bool operator==(const CameraBubble&) const = default;

    // The plan's camera choices over the look's corner; unknown texts keep the defaults.
    static CameraBubble from(const EditPlan& plan, PlimLook::BubbleCorner lookCorner);
};

struct StageRendererOptions {
    Size content;                                 // the recorded picture's size in pixels
    PlimLook::Shape shape = PlimLook::Shape::landscape;
    bool deviceFramed = false;                    // a phone recording: drawn inside a phone body
    bool reframe = false;                         // the recording at its own size: no backdrop, no card
    std::optional<CameraBubble> camera;           // absent: no camera bubble
    bool zoomBlur = false;                        // blur while the zoom moves
    bool motionSmear = true;                      // streak a fast pointer
    bool hasKeycaps = true;                       // keycaps may appear (vertical layout makes room)
    // The desktop picture for the `wallpaper` backdrop; absent: that backdrop's own art.
    std::optional<std::filesystem::path> wallpaper;
    Compositor::Options compositor;
};

class StageRenderer {
public:
    using Options = StageRendererOptions;

    virtual ~StageRenderer() = default;

    // Prepares the fixed layers for `canvas` (output pixels). Fails with a sentence when the
    // canvas is unusable or the compositor cannot start; an image backdrop that cannot be
    // read falls back to the default gradient with a logged notice (the file is untouched).
    static Result<std::unique_ptr<StageRenderer>> create(const StageSpec& spec, Size canvas, const Options& options);

    // One composed frame at the canvas size. `source` is the recorded picture at the
    // moment's source time (any size; it is fitted into the screen card). `stageTransform`
    // is an extra transform of the whole stage in canvas coordinates (vertical framing).
    // `camera` is the camera picture; when absent, the moment's camera frame is used.
    // An empty source draws the stage with an empty card.
    virtual Image render(const Image& source, const StageMoment& moment,
        const std::optional<Affine>& stageTransform = std::nullopt, const std::optional<Image>& camera = std::nullopt)
        = 0;

    // Where the recorded picture of a frame lands: from source pixels (origin top-left, y
    // down) to output pixels (the same), and the card that clips it in output pixels.
    struct Placement {
        Affine sourceToOutput;
        Rect card;
    };
    // The placement render() gives a `source`-sized picture at this moment.
    virtual Placement placement(Size source, const StageMoment& moment) const = 0;

    virtual Size canvas() const = 0;
    virtual const StageGeometry& geometry() const = 0;
    // The prepared ground (backdrop and card shadow) for thumbnails and previews.
    virtual const Image& ground() const = 0;
};

// Grow and opacity of a click effect `age` seconds after the click; alpha 0 once it is over.
struct ClickAnim {
    double grow = 0;  // 0..1 (radius factor of the style's full size)
    double alpha = 0; // 0..1
    bool operator==(const ClickAnim&) const = default;
};
ClickAnim clickAnim(ClickStyle style, double age);

} // namespace plim
