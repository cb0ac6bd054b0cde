// Text layers: keycaps for the shortcuts pressed and the caption line.

#include "stage/stage_renderer_cairo.h"

#include "stage/recorded_moment_source.h"

#include <algorithm>
#include <cmath>

namespace plim::stage_draw {

const TextLayer& CairoStageRenderer::keycapText(const std::string& caption)
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

void CairoStageRenderer::drawKeycaps(Image& out, const StageMoment& moment, double captionHeight)
{
    if (moment.keycaps.empty())
        return;
    const size_t first = moment.keycaps.size() > style::keycapsShown ? moment.keycaps.size() - style::keycapsShown : 0;
    const double h = style::keycapHeight * m_u;
    const double pad = style::keycapPadding * m_u;
    const double gap = style::keycapGap * m_u;
    // Each cap holds its text layer (its picture is shared, not copied): a new caption can
    // empty the cache while earlier caps of this frame are still to be drawn.
    struct Cap {
        TextLayer text;
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
        TextLayer text = keycapText(key.caption);
        const double width = std::max(h, text.ink.width + 2 * pad);
        caps.push_back({std::move(text), width, alpha});
        total += width + (caps.size() > 1 ? gap : 0);
    }
    double bottom = style::keycapBottom * m_u + m_bottom.keycapInset;
    if (captionHeight > 0 && m_spec.captionPlace == StageSpec::CaptionPlace::bottom)
        bottom = std::max(bottom, style::captionMargin * m_u + m_bottom.captionInset + captionHeight + gap * 1.5);
    constexpr double capHeight = 0.714; // of the text size, in Noto Sans
    double x = (m_canvas.width - total) / 2;
    const double y = m_canvas.height - bottom - h;
    for (const Cap& cap : caps) {
        const double rise = (1 - std::min(cap.alpha * 1.4, 1.0)) * 0.25 * h;
        const RoundedRect shape{{x, y + rise, cap.width, h}, style::keycapCorner * m_u};
        m_c->fill(out, style::keycapFill.withAlpha(style::keycapFill.a * cap.alpha), shape);
        m_c->strokePath(out, Path().addRoundedRect({shape.rect.outset(-0.5, -0.5), shape.radius - 0.5}),
            style::keycapEdge.withAlpha(style::keycapEdge.a * cap.alpha), 1);
        const Image& img = cap.text.image;
        const double tx = x + (cap.width - cap.text.ink.width) / 2 - cap.text.ink.x;
        // The capitals centred on the cap, whatever line height a fallback font gives the layer.
        const double ty = y + rise + h / 2 + capHeight * style::keycapText * m_u / 2 - cap.text.baseline;
        m_c->draw(out, img, Affine::translation(tx, ty), std::nullopt, cap.alpha);
        x += cap.width + gap;
    }
}

// Where the caption line goes: its box on the picture (empty when there is none). The
// set text is kept until the line or its style changes.
std::optional<Rect> CairoStageRenderer::layoutCaption(const std::optional<std::string>& caption)
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
    if (m_spec.captionLook == StageSpec::CaptionLook::light)
        text.color = style::captionLightText;
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

Size CairoStageRenderer::captionPadding() const
{
    if (!captionBoxed())
        return {};
    return {style::captionPillPadX * captionSize(), style::captionPillPadY * captionSize()};
}

// The caption line in its look: on a dark or light pill, or bare with a soft shadow.
void CairoStageRenderer::drawCaption(Image& out, const Rect& box)
{
    const double size = captionSize();
    const Size pad = captionPadding();
    if (captionBoxed()) {
        const bool light = m_spec.captionLook == StageSpec::CaptionLook::light;
        m_c->fill(out, light ? style::captionLightBox : style::captionPill,
            RoundedRect{box, std::min(box.height / 2, 0.9 * size)});
    } else {
        const int m = captionShadowMargin();
        m_c->draw(out, m_captionShadowLayer,
            Affine::translation(box.x + pad.width - m, box.y + pad.height - m + 0.06 * size));
    }
    m_c->draw(out, m_captionLayer.image, Affine::translation(box.x + pad.width, box.y + pad.height));
}

} // namespace plim::stage_draw
