// Text for the CPU compositor: Pango lays a line out and cairo draws it into a layer.

#include "stage/compositor_cairo.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace plim::cairo_backend {

namespace {

// The control key's ⌃ is an up arrowhead that fonts draw small and raised, like a caret.
// A keycap shows it beside the letters as ⌥, ⇧ and ⌘ are shown: standing on the baseline,
// grown to most of the capitals' height (still wider than tall, so it reads as ⌃ and not
// as a letter), both measured in the layout's own fonts.
void groundCarets(PangoLayout* layout, std::string_view text)
{
    constexpr double caretHeight = 0.85; // of the capitals' height
    static constexpr std::string_view caret = "\u2303";
    if (text.find(caret) == std::string_view::npos)
        return;
    auto inkOf = [&](const char* sample) {
        PangoLayout* probe = pango_layout_copy(layout);
        pango_layout_set_attributes(probe, nullptr);
        pango_layout_set_text(probe, sample, -1);
        PangoRectangle ink, logical;
        pango_layout_get_extents(probe, &ink, &logical);
        const int baseline = pango_layout_get_baseline(probe);
        g_object_unref(probe);
        struct Ink {
            double top, bottom, margin; // margin: the advance beyond the ink's width
        };
        return Ink{double(ink.y - baseline), double(ink.y + ink.height - baseline), double(logical.width - ink.width)};
    };
    const auto cap = inkOf("H");
    const auto arrow = inkOf(caret.data());
    if (!(arrow.bottom > arrow.top) || !(cap.bottom > cap.top))
        return;
    const double scale = std::clamp(caretHeight * (cap.bottom - cap.top) / (arrow.bottom - arrow.top), 1.0, 3.0);
    // Lifts the scaled ink's foot to the baseline, and trims the wide margins the scale grew.
    const auto rise = static_cast<int>(std::lround(arrow.bottom * scale));
    const auto tighter = static_cast<int>(std::lround(-std::max(0.0, arrow.margin - cap.margin) * scale));
    PangoAttrList* attributes = pango_attr_list_new();
    for (auto at = text.find(caret); at != std::string_view::npos; at = text.find(caret, at + caret.size())) {
        for (PangoAttribute* a :
            {pango_attr_scale_new(scale), pango_attr_rise_new(rise), pango_attr_letter_spacing_new(tighter)}) {
            a->start_index = static_cast<guint>(at);
            a->end_index = static_cast<guint>(at + caret.size());
            pango_attr_list_insert(attributes, a);
        }
    }
    pango_layout_set_attributes(layout, attributes);
    pango_attr_list_unref(attributes);
}

} // namespace

TextLayer CairoCompositor::text(std::string_view text, const TextStyle& style)
{
    TextLayer layer;
    if (text.empty())
        return layer;
    auto probe = SurfacePtr(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1), cairo_surface_destroy);
    ContextPtr pcr(cairo_create(probe.get()), cairo_destroy);
    pango_cairo_update_context(pcr.get(), m_text);
    PangoLayout* layout = pango_layout_new(m_text);
    PangoFontDescription* font = pango_font_description_new();
    pango_font_description_set_family(font, style.family.c_str());
    pango_font_description_set_weight(font, static_cast<PangoWeight>(style.weight));
    pango_font_description_set_absolute_size(font, std::max(1.0, style.size) * PANGO_SCALE);
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    pango_layout_set_text(layout, text.data(), static_cast<int>(text.size()));
    groundCarets(layout, text);
    if (style.maxWidth > 0) {
        pango_layout_set_width(layout, static_cast<int>(style.maxWidth * PANGO_SCALE));
        pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
        pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER);
    }
    PangoRectangle ink, logical;
    pango_layout_get_pixel_extents(layout, &ink, &logical);
    if (style.maxWidth > 0) {
        // Centred lines sit inside the wrap width; crop to the lines themselves.
        const int left = std::min(ink.x, logical.x);
        logical.width = std::max(ink.x + ink.width, logical.x + logical.width) - left;
        logical.x = left;
    }
    const int x0 = std::min(ink.x, logical.x) - 1, y0 = std::min(ink.y, logical.y) - 1;
    const int x1 = std::max(ink.x + ink.width, logical.x + logical.width) + 1;
    const int y1 = std::max(ink.y + ink.height, logical.y + logical.height) + 1;
    layer.image = Image::allocate(x1 - x0, y1 - y0);
    if (!layer.image.isEmpty()) {
        auto surface = wrap(layer.image);
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        cairo_translate(cr.get(), -x0, -y0);
        setColor(cr.get(), style.color);
        pango_cairo_update_layout(cr.get(), layout);
        pango_cairo_show_layout(cr.get(), layout);
        cairo_surface_flush(surface.get());
    }
    layer.baseline = pango_layout_get_baseline(layout) / double(PANGO_SCALE) - y0;
    layer.logical = {double(logical.width), double(logical.height)};
    layer.ink = {double(ink.x - x0), double(ink.y - y0), double(ink.width), double(ink.height)};
    g_object_unref(layout);
    return layer;
}

} // namespace plim::cairo_backend
