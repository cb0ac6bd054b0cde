// The stage renderer over the compositor seam. Canvas coordinates (y upward) become
// picture coordinates (y downward) only through Flip below.

#include "stage/stage_renderer_cairo.h"

#include "base/log.h"
#include "plan/plan.h"
#include "stage/stage_backdrop.h"

#include <algorithm>
#include <cmath>

namespace plim {

CameraBubble CameraBubble::from(const EditPlan& plan, PlimLook::BubbleCorner lookCorner)
{
    CameraBubble bubble;
    bubble.corner = lookCorner;
    if (plan.cameraCorner)
        if (auto corner = PlimLook::bubbleCornerFromText(*plan.cameraCorner))
            bubble.corner = *corner;
    if (plan.cameraX && plan.cameraY && std::isfinite(*plan.cameraX) && std::isfinite(*plan.cameraY))
        bubble.position = Point{std::clamp(*plan.cameraX, 0.0, 1.0), std::clamp(*plan.cameraY, 0.0, 1.0)};
    if (plan.cameraScale && std::isfinite(*plan.cameraScale) && *plan.cameraScale > 0)
        bubble.scale = std::clamp(*plan.cameraScale, 0.4, 2.5);
    if (plan.cameraShape)
        if (auto shape = cameraShapeFromText(*plan.cameraShape))
            bubble.shape = *shape;
    if (plan.cameraMirror)
        bubble.mirror = *plan.cameraMirror;
    if (plan.cameraBorder)
        bubble.ring = *plan.cameraBorder;
    return bubble;
}

namespace stage_draw {

// The parts of `whole` outside `hole`: bands above and below it, and left and right of it.
// The hole's edges are rounded to whole pixels, so that bands drawn one by one meet without
// a blended seam between them.
std::vector<Rect> around(const Rect& whole, const Rect& hole)
{
    const double top = std::clamp(std::round(hole.minY()), whole.minY(), whole.maxY());
    const double bottom = std::clamp(std::round(hole.maxY()), top, whole.maxY());
    const double left = std::clamp(std::round(hole.minX()), whole.minX(), whole.maxX());
    const double right = std::clamp(std::round(hole.maxX()), left, whole.maxX());
    std::vector<Rect> parts;
    for (const Rect& r : {Rect{whole.x, whole.y, whole.width, top - whole.y},
             Rect{whole.x, bottom, whole.width, whole.maxY() - bottom}, Rect{whole.x, top, left - whole.x, bottom - top},
             Rect{right, top, whole.maxX() - right, bottom - top}})
        if (r.width > 0 && r.height > 0)
            parts.push_back(r);
    return parts;
}

CairoStageRenderer::CairoStageRenderer(const StageSpec& spec, Size canvas, const Options& options, std::unique_ptr<Compositor> c)
    : m_spec(spec), m_canvas(canvas), m_options(options), m_c(std::move(c)), m_flip{canvas.height}
{
    m_width = static_cast<int>(canvas.width);
    m_height = static_cast<int>(canvas.height);
    m_u = std::min(canvas.width, canvas.height) / style::unitSide;
    if (options.reframe) {
        // The recording at its own size: no padding, corners or shadow.
        m_spec.paddingPX = 0;
        m_spec.cornersPX = 0;
        m_spec.shadowPercent = 0;
        m_spec.card.reset();
    }
    m_geometry = StageGeometry(canvas, options.content, m_spec, options.deviceFramed && !options.reframe,
        options.shape == PlimLook::Shape::vertical && !options.reframe);
    m_content = m_geometry.screenRect;
    m_radius = m_geometry.cornerRadius;
    if (options.deviceFramed && !options.reframe) {
        m_device = DeviceFrameGeometry(canvas, options.content, m_spec);
        m_content = m_device->screen;
        m_radius = m_device->screenCorner;
    }
    prepareGround();
    prepareSpotlight();
    preparePointer();
    prepareBubble();
}

Image CairoStageRenderer::render(const Image& source, const StageMoment& moment, const std::optional<Affine>& stageTransform,
    const std::optional<Image>& camera)
{
    Image out = nextFrame();
    Affine stage = stageOf(moment);
    if (stageTransform)
        stage = stage.then(*stageTransform);
    m_stagePic = m_flip(stage);
    m_zoom = uniformScale(stage);

    drawScreenCard(out, source, stage);
    if (m_device)
        m_c->fill(out, style::deviceIsland, transformed({m_flip(m_device->island), m_device->islandCorner}, m_stagePic));
    drawMasks(out, moment);
    if (moment.cursor && m_spec.cursorSpotlight)
        drawSpotlight(out, pictureOf(moment.cursor->x, moment.cursor->y));
    if (m_options.zoomBlur)
        drawZoomBlur(out, moment);
    drawClicks(out, moment);
    drawCamera(out, moment, camera);
    if (moment.touch)
        drawTouch(out, pictureOf(moment.touch->x, moment.touch->y));
    if (moment.cursor)
        drawPointer(out, *moment.cursor);
    // Keycaps sit above a caption at the bottom, so the caption is laid out first.
    const std::optional<Rect> caption = layoutCaption(moment.caption);
    const bool captionBelow = caption && m_spec.captionPlace == StageSpec::CaptionPlace::bottom;
    drawKeycaps(out, moment, captionBelow ? caption->height : 0);
    if (caption)
        drawCaption(out, *caption);
    if (moment.transition)
        applyTransition(out, *moment.transition);
    return out;
}

Affine CairoStageRenderer::stageOf(const StageMoment& moment) const
{
    return m_geometry.zoomTransform(
        moment.zoom, moment.cursor ? std::optional<Point>({moment.cursor->x, moment.cursor->y}) : std::nullopt);
}

StageRenderer::Placement CairoStageRenderer::placed(Size source, const Affine& stage) const
{
    const Affine stagePic = m_flip(stage);
    // A vertical layout's window stays put; the picture and the zoom move inside it.
    const Rect card = m_geometry.window ? m_flip(*m_geometry.window) : stagePic.apply(m_flip(m_content));
    const Affine sourceFlip{1, 0, 0, -1, 0, source.height};
    const Affine fit = StageGeometry::sourceFit({0, 0, source.width, source.height}, m_content);
    return {sourceFlip.then(fit).then(stage).then(m_flip.affine()), card};
}

StageRenderer::Placement CairoStageRenderer::placement(Size source, const StageMoment& moment) const
{
    return placed(source, stageOf(moment));
}

void CairoStageRenderer::prepareGround()
{
    m_backdrop = Image::allocate(m_width, m_height);
    if (m_options.reframe)
        m_c->clear(m_backdrop, {0, 0, 0, 1});
    else
        drawBackdrop(*m_c, m_backdrop, resolveBackdrop(m_spec, m_options.wallpaper));
    m_ground = m_backdrop.clone();
    const Rect body = m_device ? m_device->body : m_geometry.window.value_or(m_content);
    const double bodyCorner = m_device ? m_device->bodyCorner : m_radius;
    // The card's two shadows: each its own shape, offset down, blurred and faded.
    for (const auto& layer : m_geometry.shadowLayers(m_spec)) {
        Image shade = Image::allocate(m_width, m_height);
        const RoundedRect shape{m_flip(body), bodyCorner};
        RoundedRect dropped = shape;
        dropped.rect.y += layer.y;
        m_c->fill(shade, style::cardShadow, dropped);
        const double sigma = std::max(layer.blur / 2, 0.5);
        m_c->blur(shade, dropped.rect.outset(3 * sigma + 2, 3 * sigma + 2), sigma);
        m_c->draw(m_ground, shade, Affine::identity(), std::nullopt, layer.alpha, Filter::nearest);
    }
    if (m_device) {
        const RoundedRect shape{m_flip(m_device->body), m_device->bodyCorner};
        m_c->fill(m_ground, style::deviceBody, shape);
        m_c->strokePath(m_ground,
            Path().addRoundedRect({shape.rect.outset(-m_device->stroke / 2, -m_device->stroke / 2),
                shape.radius - m_device->stroke / 2}),
            style::deviceStroke, m_device->stroke);
    }
}

// A position in fractions of the recorded picture, on the output picture.
Point CairoStageRenderer::pictureOf(double fx, double fy) const
{
    const Point canvasPoint{m_content.x + fx * m_content.width, m_content.y + (1 - fy) * m_content.height};
    return m_stagePic.apply(m_flip(canvasPoint));
}

bool CairoStageRenderer::inView(Point p) const
{
    if (!m_geometry.window)
        return true;
    const Rect view = m_flip(*m_geometry.window);
    return p.x >= view.minX() && p.x <= view.maxX() && p.y >= view.minY() && p.y <= view.maxY();
}

void CairoStageRenderer::drawScreenCard(Image& out, const Image& source, const Affine& stage)
{
    // A vertical layout's window stays put; the picture and the zoom move inside it.
    const RoundedRect card = m_geometry.window ? RoundedRect{m_flip(*m_geometry.window), m_radius}
                                               : transformed({m_flip(m_content), m_radius}, m_stagePic);
    const Affine groundPic = m_geometry.window ? Affine::identity() : m_stagePic;
    const Rect whole{0, 0, m_canvas.width, m_canvas.height};
    const Affine toPicture = placed(Size{double(source.width), double(source.height)}, stage).sourceToOutput;
    const Rect placed = toPicture.apply(Rect{0, 0, double(source.width), double(source.height)});
    // An opaque recording that fills the card hides the ground inside the card, less its
    // corners; with the corners off the picture it hides all of it.
    const bool fills = !source.isEmpty() && placed.contains(card.rect, 1e-6);
    const bool covered = fills && !m_device
        && card.rect.contains(whole.outset(card.radius, card.radius), 1e-6);
    if (!covered) {
        const std::optional<Rect> hole = fills && !m_device
            ? std::optional<Rect>(card.rect.outset(-1, -card.radius - 1))
            : std::nullopt;
        if (groundPic.isIdentity()) {
            m_c->copy(out, m_ground, hole);
        } else {
            if (!groundPic.apply(whole).contains(whole, 1e-6))
                m_c->clear(out, {0, 0, 0, 1});
            // The magnified ground only around the card: four bands about the hole.
            const std::vector<Rect> parts = hole ? around(whole, *hole) : std::vector<Rect>{whole};
            for (const Rect& part : parts)
                m_c->draw(out, m_ground, groundPic, RoundedRect{part, 0});
        }
    }
    if (source.isEmpty()) {
        m_c->fill(out, {0, 0, 0, 1}, card);
        return;
    }
    if (covered && !placed.contains(whole, 1e-6))
        m_c->clear(out, {0, 0, 0, 1});
    if (covered)
        m_c->draw(out, source, toPicture);
    else
        m_c->draw(out, source, toPicture, card);
}

void CairoStageRenderer::drawMasks(Image& out, const StageMoment& moment)
{
    for (const MaskRegion& mask : moment.masks) {
        const auto f = mask.rect(); // fractions of the picture from its top-left
        if (!(f.width > 0) || !(f.height > 0))
            continue;
        const Point a = pictureOf(f.x, f.y);
        const Point b = pictureOf(f.x + f.width, f.y + f.height);
        Rect box{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x), std::abs(b.y - a.y)};
        if (m_geometry.window) { // only the part the window shows
            const Rect view = m_flip(*m_geometry.window);
            const double x0 = std::max(box.minX(), view.minX()), x1 = std::min(box.maxX(), view.maxX());
            const double y0 = std::max(box.minY(), view.minY()), y1 = std::min(box.maxY(), view.maxY());
            if (x1 <= x0 || y1 <= y0)
                continue;
            box = {x0, y0, x1 - x0, y1 - y0};
        }
        const double shorter = std::min(box.width, box.height);
        if (mask.style == MaskRegion::Style::blur)
            m_c->blur(out, box, std::max(0.14 * shorter, 10.0));
        else
            m_c->pixelate(out, box, std::max(0.09 * shorter, 10.0));
    }
}

} // namespace stage_draw

Result<std::unique_ptr<StageRenderer>> StageRenderer::create(const StageSpec& spec, Size canvas, const Options& options)
{
    if (!canvas.isUsable() || canvas.width > 16384 || canvas.height > 16384)
        return fail("The output size " + std::to_string(canvas.width) + " × " + std::to_string(canvas.height)
            + " cannot be drawn; nothing was rendered. Choose an output of 720, 1080 or 2160 lines.");
    Size rounded{std::round(canvas.width), std::round(canvas.height)};
    auto compositor = PLIM_TRY(Compositor::create(options.compositor));
    return std::unique_ptr<StageRenderer>(
        std::make_unique<stage_draw::CairoStageRenderer>(spec, rounded, options, std::move(compositor)));
}

} // namespace plim
