#pragma once
// The stage renderer's class, drawn over the compositor seam, and the geometry helpers its
// layer files share. Canvas coordinates (y upward) become picture coordinates (y downward)
// only through Flip below. Private to stage/.

#include "base/image_pool.h"
#include "stage/device_frame.h"
#include "stage/reframe_math.h"
#include "stage/stage_renderer.h"
#include "stage/stage_style.h"

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace plim::stage_draw {

namespace style = stage_style;

// Canvas (origin bottom-left, y up) to picture (origin top-left, y down) of height h.
struct Flip {
    double height = 0;
    Affine affine() const { return {1, 0, 0, -1, 0, height}; }
    Point operator()(Point p) const { return {p.x, height - p.y}; }
    Rect operator()(const Rect& r) const { return {r.x, height - r.maxY(), r.width, r.height}; }
    // A canvas-space transform as the same transform in picture space.
    Affine operator()(const Affine& t) const { return affine().then(t).then(affine()); }
};

inline double uniformScale(const Affine& t) { return std::sqrt(std::abs(t.a * t.d - t.b * t.c)); }

inline RoundedRect transformed(const RoundedRect& shape, const Affine& t)
{
    return {t.apply(shape.rect), shape.radius * uniformScale(t)};
}

// The parts of `whole` outside `hole`: bands above and below it, and left and right of it.
std::vector<Rect> around(const Rect& whole, const Rect& hole);

class CairoStageRenderer final : public StageRenderer {
public:
    CairoStageRenderer(const StageSpec& spec, Size canvas, const Options& options, std::unique_ptr<Compositor> c);

    Size canvas() const override { return m_canvas; }
    const StageGeometry& geometry() const override { return m_geometry; }
    const Image& ground() const override { return m_ground; }

    Image render(const Image& source, const StageMoment& moment, const std::optional<Affine>& stageTransform,
        const std::optional<Image>& camera) override;
    Placement placement(Size source, const StageMoment& moment) const override;

private:
    // A frame to draw into: one of ours that every caller has let go of, else a new one.
    Image nextFrame() { return m_frames.take(m_width, m_height); }

    // The whole-stage transform of a moment, in canvas coordinates.
    Affine stageOf(const StageMoment& moment) const;
    // Source pixels to output pixels, and the card, under the stage transform `stage`.
    Placement placed(Size source, const Affine& stage) const;

    // --- Prepared once ---

    void prepareGround();

    void prepareSpotlight();

    void preparePointer();

    void prepareBubble();

    // --- Per frame ---

    // A position in fractions of the recorded picture, on the output picture.
    Point pictureOf(double fx, double fy) const;
    // Whether a point of the output picture shows the recording: outside a vertical
    // layout's window the pointer and clicks are not drawn.
    bool inView(Point p) const;

    void drawScreenCard(Image& out, const Image& source, const Affine& stage);

    void drawMasks(Image& out, const StageMoment& moment);

    void drawSpotlight(Image& out, Point at);

    void drawZoomBlur(Image& out, const StageMoment& moment);

    void drawClicks(Image& out, const StageMoment& moment);

    void drawCamera(Image& out, const StageMoment& moment, const std::optional<Image>& camera);

    // A finger on a phone recording: a soft grey disc with a light rim.
    void drawTouch(Image& out, Point at);

    void drawPointer(Image& out, const StageMoment::Cursor& cursor);

    // The arrow drawn as a vector at its sub-pixel place (sharp at any size), with its shadow.
    void drawArrow(Image& out, Point tip, double k, double alpha);

    const TextLayer& keycapText(const std::string& caption);

    void drawKeycaps(Image& out, const StageMoment& moment, double captionHeight);

    // Where the caption line goes: its box on the picture (empty when there is none). The
    // set text is kept until the line or its style changes.
    std::optional<Rect> layoutCaption(const std::optional<std::string>& caption);

    double captionSize() const { return style::captionText(m_spec.captionSize) * m_u; }
    bool captionBoxed() const
    {
        return m_spec.captionLook == StageSpec::CaptionLook::pill || m_spec.captionLook == StageSpec::CaptionLook::light;
    }
    int captionShadowMargin() const { return static_cast<int>(std::ceil(0.3 * captionSize())); }
    Size captionPadding() const;

    // The caption line in its look: on a pill, or bare with a soft shadow.
    void drawCaption(Image& out, const Rect& box);

    void applyTransition(Image& out, const EditPlan::TransitionPhase& transition);

    StageSpec m_spec;
    Size m_canvas;
    Options m_options;
    std::unique_ptr<Compositor> m_c;
    Flip m_flip;
    int m_width = 0;
    int m_height = 0;
    double m_u = 1;
    StageGeometry m_geometry;
    std::optional<DeviceFrameGeometry> m_device;
    Rect m_content;
    double m_radius = 0;
    Image m_backdrop;
    Image m_ground;
    Image m_spotlight; // the falloff around the pointer at zoom 1
    Image m_pointerShadow;
    double m_pointerShadowScale = 1;
    int m_pointerShadowMargin = 0;
    RoundedRect m_bubble;
    Image m_bubbleShadow;
    Point m_bubbleShadowOrigin;
    ReframeMath::BottomStack m_bottom;
    std::map<std::string, TextLayer> m_keycapTexts;
    std::string m_captionKey;
    TextStyle m_captionStyle;
    TextLayer m_captionLayer;
    Image m_captionShadowLayer;
    // Frames handed out and reused once released.
    ImagePool m_frames{6};
    // Per frame.
    Affine m_stagePic;
    double m_zoom = 1;
};

} // namespace plim::stage_draw
