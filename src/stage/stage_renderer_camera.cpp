// The camera bubble: its place on the canvas, its shadow, the picture and the ring.

#include "stage/stage_renderer_cairo.h"

#include <algorithm>
#include <cmath>

namespace plim::stage_draw {

void CairoStageRenderer::prepareBubble()
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

void CairoStageRenderer::drawCamera(Image& out, const StageMoment& moment, const std::optional<Image>& camera)
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

} // namespace plim::stage_draw
