// The stage renderer over the compositor seam. Canvas coordinates (y upward) become
// picture coordinates (y downward) only through Flip below.

#include "stage/stage_renderer.h"

#include "base/image_pool.h"

#include "base/log.h"
#include "plan/plan.h"
#include "stage/device_frame.h"
#include "stage/recorded_moment_source.h"
#include "stage/reframe_math.h"
#include "stage/stage_backdrop.h"
#include "stage/stage_style.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <numbers>

namespace plim {

namespace style = stage_style;

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

ClickAnim clickAnim(ClickStyle style, double age)
{
    const double life = RecordedMomentSource::clickLifeFor(style);
    if (style == ClickStyle::none || !(life > 0) || !std::isfinite(age) || age < 0 || age >= life)
        return {};
    const double t = age / life;
    const double easeOut = 1 - std::pow(1 - t, 3);
    switch (style) {
    case ClickStyle::none: return {};
    case ClickStyle::ring: return {easeOut, std::pow(1 - t, 1.5)};
    case ClickStyle::pulse: return {easeOut, 1 - t};
    case ClickStyle::spotlight: return {0.6 + 0.4 * easeOut, t < 0.2 ? t / 0.2 : 1 - (t - 0.2) / 0.8};
    case ClickStyle::highlight: return {std::min(1.0, t / 0.15), t < 0.6 ? 1.0 : 1 - (t - 0.6) / 0.4};
    }
    return {};
}

namespace {

// Canvas (origin bottom-left, y up) to picture (origin top-left, y down) of height h.
struct Flip {
    double height = 0;
    Affine affine() const { return {1, 0, 0, -1, 0, height}; }
    Point operator()(Point p) const { return {p.x, height - p.y}; }
    Rect operator()(const Rect& r) const { return {r.x, height - r.maxY(), r.width, r.height}; }
    // A canvas-space transform as the same transform in picture space.
    Affine operator()(const Affine& t) const { return affine().then(t).then(affine()); }
};

double uniformScale(const Affine& t) { return std::sqrt(std::abs(t.a * t.d - t.b * t.c)); }

RoundedRect transformed(const RoundedRect& shape, const Affine& t)
{
    return {t.apply(shape.rect), shape.radius * uniformScale(t)};
}

// The parts of `whole` outside `hole`: bands above and below it, and left and right of it.
std::vector<Rect> around(const Rect& whole, const Rect& hole)
{
    const double top = std::clamp(hole.minY(), whole.minY(), whole.maxY());
    const double bottom = std::clamp(hole.maxY(), top, whole.maxY());
    const double left = std::clamp(hole.minX(), whole.minX(), whole.maxX());
    const double right = std::clamp(hole.maxX(), left, whole.maxX());
    std::vector<Rect> parts;
    for (const Rect& r : {Rect{whole.x, whole.y, whole.width, top - whole.y},
             Rect{whole.x, bottom, whole.width, whole.maxY() - bottom}, Rect{whole.x, top, left - whole.x, bottom - top},
             Rect{right, top, whole.maxX() - right, bottom - top}})
        if (r.width > 0 && r.height > 0)
            parts.push_back(r);
    return parts;
}

// The pointer arrow, tip at the origin, 24 units tall, y down.
Path arrowPath()
{
    return Path()
        .moveTo({0, 0})
        .lineTo({0, 18.2})
        .lineTo({4.3, 14.1})
        .lineTo({7.1, 20.6})
        .lineTo({10.2, 19.3})
        .lineTo({7.4, 12.9})
        .lineTo({13.1, 12.9})
        .close();
}

constexpr double arrowUnits = 24;

class CairoStageRenderer final : public StageRenderer {
public:
    CairoStageRenderer(const StageSpec& spec, Size canvas, const Options& options, std::unique_ptr<Compositor> c)
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
        m_geometry = StageGeometry(canvas, options.content, m_spec, options.deviceFramed && !options.reframe);
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

    Size canvas() const override { return m_canvas; }
    const StageGeometry& geometry() const override { return m_geometry; }
    const Image& ground() const override { return m_ground; }

    Image render(const Image& source, const StageMoment& moment, const std::optional<Affine>& stageTransform,
        const std::optional<Image>& camera) override
    {
        Image out = nextFrame();
        Affine stage = m_geometry.zoomTransform(moment.zoom);
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

private:
    // A frame to draw into: one of ours that every caller has let go of, else a new one.
    Image nextFrame() { return m_frames.take(m_width, m_height); }

    // --- Prepared once ---

    void prepareGround()
    {
        m_backdrop = Image::allocate(m_width, m_height);
        if (m_options.reframe)
            m_c->clear(m_backdrop, {0, 0, 0, 1});
        else
            drawBackdrop(*m_c, m_backdrop, resolveBackdrop(m_spec, m_options.wallpaper));
        m_ground = m_backdrop.clone();
        const Rect body = m_device ? m_device->body : m_content;
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

    void prepareSpotlight()
    {
        if (!m_spec.cursorSpotlight)
            return;
        const double inner = style::spotlightInner * m_u, outer = style::spotlightOuter * m_u;
        const int side = std::max(2, static_cast<int>(std::ceil(2 * outer)));
        const double r = side / 2.0;
        m_spotlight = Image::allocate(side, side);
        m_c->fillGradient(m_spotlight,
            Gradient::radial({r, r}, inner * r / outer, r, {{0, {0, 0, 0, 0}}, {1, {0, 0, 0, style::spotlightDim}}}));
        m_c->fillGradient(m_spotlight,
            Gradient::radial({r, r}, 0, inner * r / outer, {{0, style::spotlightGlow}, {1, style::spotlightGlow.withAlpha(0)}}));
    }

    void preparePointer()
    {
        // The soft shadow is drawn once at a large size and scaled down per frame.
        const double k = 4;
        const int size = static_cast<int>(arrowUnits * k) + 8;
        Image sprite = Image::allocate(size, size);
        m_c->fillPath(sprite, arrowPath().transformed(Affine::scale(k, k).then(Affine::translation(4, 4))),
            {0, 0, 0, 1});
        m_pointerShadowScale = k;
        m_pointerShadowMargin = static_cast<int>(3 * 2.2 * k);
        m_pointerShadow = m_c->shadowOf(sprite, 2.2 * k, style::pointerShadow, m_pointerShadowMargin);
        m_pointerShadowMargin += 4;
    }

    void prepareBubble()
    {
        if (!m_options.camera)
            return;
        const CameraBubble& cam = *m_options.camera;
        const double shorter = std::min(m_canvas.width, m_canvas.height);
        Rect bubble;
        if (m_options.shape == PlimLook::Shape::vertical && !cam.position) {
            bubble = ReframeMath::bubbleRect(m_canvas);
            const double side = bubble.width * cam.scale;
            bubble = {bubble.midX() - side / 2, bubble.y, side, side};
            m_bottom = ReframeMath::bottomStack(m_canvas, bubble.maxY(), m_options.hasKeycaps);
        } else {
            const double d = style::bubbleDiameter * shorter * cam.scale;
            const double margin = style::bubbleMargin * shorter;
            Point centre;
            if (cam.position) {
                centre = {cam.position->x * m_canvas.width, (1 - cam.position->y) * m_canvas.height};
            } else {
                const bool left = cam.corner == PlimLook::BubbleCorner::bl || cam.corner == PlimLook::BubbleCorner::tl;
                const bool top = cam.corner == PlimLook::BubbleCorner::tl || cam.corner == PlimLook::BubbleCorner::tr;
                centre = {left ? margin + d / 2 : m_canvas.width - margin - d / 2,
                    top ? m_canvas.height - margin - d / 2 : margin + d / 2};
            }
            centre.x = std::clamp(centre.x, d / 2, std::max(d / 2, m_canvas.width - d / 2));
            centre.y = std::clamp(centre.y, d / 2, std::max(d / 2, m_canvas.height - d / 2));
            bubble = {centre.x - d / 2, centre.y - d / 2, d, d};
        }
        const double d = bubble.width;
        m_bubble = {m_flip(bubble), cam.shape == CameraShape::circle ? d / 2 : d * style::bubbleCardCorner};
        const int margin = static_cast<int>(std::ceil(0.12 * d)) + 2;
        Image shape = Image::allocate(static_cast<int>(std::ceil(d)) + 2, static_cast<int>(std::ceil(d)) + 2);
        m_c->fill(shape, {0, 0, 0, 1}, RoundedRect{{1, 1, d, d}, m_bubble.radius});
        m_bubbleShadow = m_c->shadowOf(shape, 0.035 * d, style::bubbleShadow, margin);
        m_bubbleShadowOrigin = {m_bubble.rect.x - 1 - margin, m_bubble.rect.y - 1 - margin + 0.02 * d};
    }

    // --- Per frame ---

    // A position in fractions of the recorded picture, on the output picture.
    Point pictureOf(double fx, double fy) const
    {
        const Point canvasPoint{m_content.x + fx * m_content.width, m_content.y + (1 - fy) * m_content.height};
        return m_stagePic.apply(m_flip(canvasPoint));
    }

    void drawScreenCard(Image& out, const Image& source, const Affine& stage)
    {
        const RoundedRect card = transformed({m_flip(m_content), m_radius}, m_stagePic);
        const Rect whole{0, 0, m_canvas.width, m_canvas.height};
        const Affine sourceFlip{1, 0, 0, -1, 0, double(source.height)};
        const Affine fit = StageGeometry::sourceFit({0, 0, double(source.width), double(source.height)}, m_content);
        const Affine toPicture = sourceFlip.then(fit).then(stage).then(m_flip.affine());
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
            if (m_stagePic.isIdentity()) {
                m_c->copy(out, m_ground, hole);
            } else {
                if (!m_stagePic.apply(whole).contains(whole, 1e-6))
                    m_c->clear(out, {0, 0, 0, 1});
                // The magnified ground only around the card: four bands about the hole.
                const std::vector<Rect> parts = hole ? around(whole, *hole) : std::vector<Rect>{whole};
                for (const Rect& part : parts)
                    m_c->draw(out, m_ground, m_stagePic, RoundedRect{part, 0});
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

    void drawMasks(Image& out, const StageMoment& moment)
    {
        for (const MaskRegion& mask : moment.masks) {
            const auto f = mask.rect(); // fractions of the picture from its top-left
            if (!(f.width > 0) || !(f.height > 0))
                continue;
            const Point a = pictureOf(f.x, f.y);
            const Point b = pictureOf(f.x + f.width, f.y + f.height);
            const Rect box{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x), std::abs(b.y - a.y)};
            const double shorter = std::min(box.width, box.height);
            if (mask.style == MaskRegion::Style::blur)
                m_c->blur(out, box, std::max(0.14 * shorter, 10.0));
            else
                m_c->pixelate(out, box, std::max(0.09 * shorter, 10.0));
        }
    }

    void drawSpotlight(Image& out, Point at)
    {
        // Uniform dimming outside a square around the pointer; inside it the prepared
        // radial falloff, scaled with the zoom.
        const double k = std::sqrt(m_zoom);
        const double outer = style::spotlightOuter * m_u * k;
        const Rect square{at.x - outer, at.y - outer, 2 * outer, 2 * outer};
        const Color dim{0, 0, 0, style::spotlightDim};
        for (const Rect& band : around({0, 0, m_canvas.width, m_canvas.height}, square))
            m_c->fill(out, dim, RoundedRect{band, 0});
        const double scale = square.width / m_spotlight.width;
        m_c->draw(out, m_spotlight, Affine::scale(scale, scale).then(Affine::translation(square.x, square.y)));
    }

    void drawZoomBlur(Image& out, const StageMoment& moment)
    {
        const double strength = std::min(moment.zoomVelocity * style::zoomBlurPerVelocity, style::zoomBlurMax);
        if (strength > 0.004)
            m_c->zoomBlur(out, pictureOf(moment.zoom.centerX, moment.zoom.centerY), strength);
    }

    void drawClicks(Image& out, const StageMoment& moment)
    {
        const Color tint = style::clickTint(m_spec.clickTint);
        const double zoomed = std::sqrt(m_zoom) * m_u;
        for (const StageMoment::Click& click : moment.clicks) {
            const ClickAnim anim = clickAnim(m_spec.clickStyle, click.age);
            if (anim.alpha <= 0)
                continue;
            const Point at = pictureOf(click.x, click.y);
            switch (m_spec.clickStyle) {
            case ClickStyle::none: break;
            case ClickStyle::ring: {
                const double r = style::clickRadius * zoomed * (0.3 + 0.7 * anim.grow);
                const double w = style::clickRingWidth * zoomed * (1 - 0.45 * anim.grow);
                m_c->strokePath(out, Path().addCircle(at, r), tint.withAlpha(anim.alpha), w);
                break;
            }
            case ClickStyle::pulse: {
                const double r = style::clickRadius * zoomed * anim.grow;
                m_c->fill(out, tint.withAlpha(0.32 * anim.alpha), RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
                const double core = 0.28 * style::clickRadius * zoomed;
                m_c->fill(out, tint.withAlpha(0.55 * anim.alpha),
                    RoundedRect{{at.x - core, at.y - core, 2 * core, 2 * core}, core});
                break;
            }
            case ClickStyle::spotlight: {
                const double r = style::clickSpotlightRadius * zoomed * anim.grow;
                m_c->fillGradient(out,
                    Gradient::radial(at, 0, r, {{0, tint.withAlpha(0.55 * anim.alpha)}, {0.45, tint.withAlpha(0.28 * anim.alpha)}, {1, tint.withAlpha(0)}}),
                    RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
                break;
            }
            case ClickStyle::highlight: {
                const double r = style::clickHighlightRadius * zoomed * (0.75 + 0.25 * anim.grow);
                m_c->fill(out, tint.withAlpha(0.38 * anim.alpha), RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
                break;
            }
            }
        }
    }

    void drawCamera(Image& out, const StageMoment& moment, const std::optional<Image>& camera)
    {
        if (!m_options.camera)
            return;
        Image picture;
        if (camera && !camera->isEmpty()) {
            picture = *camera;
        } else if (moment.cameraFrame && moment.cameraFrame->isUsable()) {
            const CameraPicture& frame = *moment.cameraFrame;
            picture.width = frame.width;
            picture.height = frame.height;
            picture.stride = frame.stride;
            // Shares the camera picture's storage; it is only read.
            picture.pixels = std::shared_ptr<uint8_t[]>(frame.pixels, const_cast<uint8_t*>(frame.pixels->data()));
        }
        if (picture.isEmpty())
            return;
        const Rect& b = m_bubble.rect;
        m_c->draw(out, m_bubbleShadow, Affine::translation(m_bubbleShadowOrigin.x, m_bubbleShadowOrigin.y));
        // Fill the bubble with the picture's middle, mirrored about the bubble's centre if asked.
        const double s = std::max(b.width / picture.width, b.height / picture.height);
        Affine place = Affine::translation(-picture.width / 2.0, -picture.height / 2.0)
                           .then(Affine::scale(m_options.camera->mirror ? -s : s, s))
                           .then(Affine::translation(b.midX(), b.midY()));
        m_c->draw(out, picture, place, m_bubble);
        if (m_options.camera->ring) {
            const double w = std::max(1.5, style::bubbleRingWidth * b.width);
            m_c->strokePath(out,
                Path().addRoundedRect({b.outset(-w / 2, -w / 2), std::max(0.0, m_bubble.radius - w / 2)}),
                style::bubbleRing, w);
        }
    }

    // A finger on a phone recording: a soft grey disc with a light rim.
    void drawTouch(Image& out, Point at)
    {
        const double r = style::touchRadius * m_u * std::sqrt(m_zoom);
        const RoundedRect disc{{at.x - r, at.y - r, 2 * r, 2 * r}, r};
        m_c->fill(out, style::touchFill, disc);
        m_c->strokePath(out, Path().addCircle(at, r - 1), style::touchRim, 2 * m_u);
    }

    void drawPointer(Image& out, const StageMoment::Cursor& cursor)
    {
        if (!(cursor.alpha > 0.002))
            return;
        const double press = std::clamp(cursor.press, 0.0, 1.0);
        const double height = style::pointerHeight * m_u * (m_spec.cursorSize / 100.0)
            * std::pow(m_zoom, style::pointerZoomPower) * (1 - (1 - style::pointerPressScale) * press);
        if (!(height > 0.5))
            return;
        const double k = height / arrowUnits;
        const Point tip = pictureOf(cursor.x, cursor.y);
        const double alpha = std::clamp(cursor.alpha, 0.0, 1.0);
        if (m_options.motionSmear) {
            const Point was = pictureOf(cursor.previousX, cursor.previousY);
            const double dx = tip.x - was.x, dy = tip.y - was.y;
            const double travel = std::hypot(dx, dy);
            if (travel > style::pointerSmearMin * m_u) {
                // Copies close enough to overlap into a streak, fading toward where it was.
                const int copies = std::clamp(static_cast<int>(travel / (0.25 * height)), 2, style::pointerSmearCopies);
                for (int i = copies; i >= 1; --i) {
                    const double f = double(i) / (copies + 1);
                    drawArrow(out, {tip.x - dx * f, tip.y - dy * f}, k, alpha * 0.3 * (1 - f));
                }
            }
        }
        drawArrow(out, tip, k, alpha);
    }

    // The arrow drawn as a vector at its sub-pixel place (sharp at any size), with its shadow.
    void drawArrow(Image& out, Point tip, double k, double alpha)
    {
        const double shadowScale = k / m_pointerShadowScale;
        m_c->draw(out, m_pointerShadow,
            Affine::translation(-m_pointerShadowMargin, -m_pointerShadowMargin)
                .then(Affine::scale(shadowScale, shadowScale))
                .then(Affine::translation(tip.x, tip.y + 1.2 * k)),
            std::nullopt, alpha);
        const double pad = 2 * style::pointerOutlineWidth * k + 2;
        const int size = static_cast<int>(std::ceil(arrowUnits * k + 2 * pad));
        Image sprite = Image::allocate(size, size);
        const double ox = std::floor(tip.x - pad), oy = std::floor(tip.y - pad);
        const Path path = arrowPath().transformed(Affine::scale(k, k).then(Affine::translation(tip.x - ox, tip.y - oy)));
        m_c->strokePath(sprite, path, style::pointerOutline, 2 * style::pointerOutlineWidth * k);
        m_c->fillPath(sprite, path, style::pointerFill);
        m_c->draw(out, sprite, Affine::translation(ox, oy), std::nullopt, alpha, Filter::nearest);
    }

    const TextLayer& keycapText(const std::string& caption)
    {
        if (m_keycapTexts.size() > 64)
            m_keycapTexts.clear();
        auto it = m_keycapTexts.find(caption);
        if (it == m_keycapTexts.end()) {
            TextStyle text;
            text.family = style::fontFamily;
            text.size = style::keycapText * m_u;
            text.weight = 600;
            text.color = style::keycapTextColor;
            it = m_keycapTexts.emplace(caption, m_c->text(caption, text)).first;
        }
        return it->second;
    }

    void drawKeycaps(Image& out, const StageMoment& moment, double captionHeight)
    {
        if (moment.keycaps.empty())
            return;
        const size_t first = moment.keycaps.size() > style::keycapsShown ? moment.keycaps.size() - style::keycapsShown : 0;
        const double h = style::keycapHeight * m_u;
        const double pad = style::keycapPadding * m_u;
        const double gap = style::keycapGap * m_u;
        struct Cap {
            const TextLayer* text;
            double width;
            double alpha;
        };
        std::vector<Cap> caps;
        double total = 0;
        for (size_t i = first; i < moment.keycaps.size(); ++i) {
            const KeyEvent& key = moment.keycaps[i];
            const double age = moment.keycapTime - key.t / 1000.0;
            const double left = RecordedMomentSource::defaultKeyLinger - age;
            const double alpha = std::clamp(std::min(age / style::keycapFadeIn + 0.35, left / style::keycapFadeOut), 0.0, 1.0);
            if (alpha <= 0 || key.caption.empty())
                continue;
            const TextLayer& text = keycapText(key.caption);
            const double width = std::max(h, text.logical.width + 2 * pad);
            caps.push_back({&text, width, alpha});
            total += width + (caps.size() > 1 ? gap : 0);
        }
        double bottom = style::keycapBottom * m_u + m_bottom.keycapInset;
        if (captionHeight > 0 && m_spec.captionPlace == StageSpec::CaptionPlace::bottom)
            bottom = std::max(bottom, style::captionMargin * m_u + m_bottom.captionInset + captionHeight + gap * 1.5);
        double x = (m_canvas.width - total) / 2;
        const double y = m_canvas.height - bottom - h;
        for (const Cap& cap : caps) {
            const double rise = (1 - std::min(cap.alpha * 1.4, 1.0)) * 0.25 * h;
            const RoundedRect shape{{x, y + rise, cap.width, h}, style::keycapCorner * m_u};
            m_c->fill(out, style::keycapFill.withAlpha(style::keycapFill.a * cap.alpha), shape);
            m_c->strokePath(out, Path().addRoundedRect({shape.rect.outset(-0.5, -0.5), shape.radius - 0.5}),
                style::keycapEdge.withAlpha(style::keycapEdge.a * cap.alpha), 1);
            const Image& img = cap.text->image;
            const double tx = x + (cap.width - img.width) / 2;
            const double ty = y + rise + (h - img.height) / 2;
            m_c->draw(out, img, Affine::translation(tx, ty), std::nullopt, cap.alpha);
            x += cap.width + gap;
        }
    }

    // Where the caption line goes: its box on the picture (empty when there is none). The
    // set text is kept until the line or its style changes.
    std::optional<Rect> layoutCaption(const std::optional<std::string>& caption)
    {
        if (!caption || caption->empty())
            return std::nullopt;
        const double size = captionSize();
        TextStyle text;
        text.family = style::fontFamily;
        text.size = m_spec.captionLook == StageSpec::CaptionLook::bold ? size * 1.12 : size;
        text.weight = m_spec.captionLook == StageSpec::CaptionLook::bold ? 800
            : m_spec.captionLook == StageSpec::CaptionLook::minimal  ? 500
                                                                     : 600;
        text.maxWidth = style::captionMaxWidth * m_canvas.width;
        if (*caption != m_captionKey || !(text == m_captionStyle)) {
            m_captionKey = *caption;
            m_captionStyle = text;
            m_captionLayer = m_c->text(*caption, text);
            m_captionShadowLayer = m_c->shadowOf(m_captionLayer.image, std::max(1.0, 0.08 * size),
                style::captionShadow, captionShadowMargin());
        }
        const Image& img = m_captionLayer.image;
        if (img.isEmpty())
            return std::nullopt;
        const Size pad = captionPadding();
        const double boxW = img.width + 2 * pad.width, boxH = img.height + 2 * pad.height;
        const double margin = style::captionMargin * m_u;
        const bool bottom = m_spec.captionPlace == StageSpec::CaptionPlace::bottom;
        const double y = bottom ? m_canvas.height - margin - m_bottom.captionInset - boxH : margin;
        return Rect{(m_canvas.width - boxW) / 2, y, boxW, boxH};
    }

    double captionSize() const { return style::captionText(m_spec.captionSize) * m_u; }
    int captionShadowMargin() const { return static_cast<int>(std::ceil(0.3 * captionSize())); }
    Size captionPadding() const
    {
        if (m_spec.captionLook != StageSpec::CaptionLook::pill)
            return {};
        return {style::captionPillPadX * captionSize(), style::captionPillPadY * captionSize()};
    }

    // The caption line in its look: on a pill, or bare with a soft shadow.
    void drawCaption(Image& out, const Rect& box)
    {
        const double size = captionSize();
        const Size pad = captionPadding();
        if (m_spec.captionLook == StageSpec::CaptionLook::pill) {
            m_c->fill(out, style::captionPill, RoundedRect{box, std::min(box.height / 2, 0.9 * size)});
        } else {
            const int m = captionShadowMargin();
            m_c->draw(out, m_captionShadowLayer,
                Affine::translation(box.x + pad.width - m, box.y + pad.height - m + 0.06 * size));
        }
        m_c->draw(out, m_captionLayer.image, Affine::translation(box.x + pad.width, box.y + pad.height));
    }

    void applyTransition(Image& out, const EditPlan::TransitionPhase& transition)
    {
        const double phase = std::clamp(transition.phase, 0.0, 1.0);
        if (phase <= 0)
            return;
        switch (transition.kind) {
        case TransitionSpec::Kind::dipToBlack: m_c->fill(out, {0, 0, 0, phase}); break;
        case TransitionSpec::Kind::dipToBackdrop:
            m_c->draw(out, m_backdrop, Affine::identity(), std::nullopt, phase, Filter::nearest);
            break;
        case TransitionSpec::Kind::blur: {
            const double sigma = phase * style::transitionBlur * m_canvas.width;
            m_c->blur(out, {0, 0, m_canvas.width, m_canvas.height}, sigma);
            break;
        }
        case TransitionSpec::Kind::punch: {
            const double s = 1 + style::punchScale * phase;
            const Point c{m_canvas.width / 2, m_canvas.height / 2};
            const Image before = out.clone();
            m_c->draw(out, before,
                Affine::translation(-c.x, -c.y).then(Affine::scale(s, s)).then(Affine::translation(c.x, c.y)));
            m_c->fill(out, {1, 1, 1, style::punchFlash * phase});
            break;
        }
        }
    }

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

} // namespace

Result<std::unique_ptr<StageRenderer>> StageRenderer::create(const StageSpec& spec, Size canvas, const Options& options)
{
    if (!canvas.isUsable() || canvas.width > 16384 || canvas.height > 16384)
        return fail("The output size " + std::to_string(canvas.width) + " × " + std::to_string(canvas.height)
            + " cannot be drawn; nothing was rendered. Choose an output of 720, 1080 or 2160 lines.");
    Size rounded{std::round(canvas.width), std::round(canvas.height)};
    auto compositor = PLIM_TRY(Compositor::create(options.compositor));
    return std::unique_ptr<StageRenderer>(
        std::make_unique<CairoStageRenderer>(spec, rounded, options, std::move(compositor)));
}

} // namespace plim
