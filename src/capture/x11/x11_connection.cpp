#include "capture/x11/x11_connection.h"

#include "capture/pixel_rows.h"

#include <xcb/randr.h>
#include <xcb/xcb.h>
#include <xcb/xproto.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <immintrin.h>
#include <cstdlib>
#include <thread>
#include <cstring>

namespace plim {

namespace {

template<typename Reply>
struct FreeReply {
    void operator()(Reply* reply) const { std::free(reply); }
};
template<typename Reply>
using ReplyPtr = std::unique_ptr<Reply, FreeReply<Reply>>;

}

Result<std::unique_ptr<X11Connection>> X11Connection::open(const std::optional<std::string>& name)
{
    const char* display = name ? name->c_str() : std::getenv("DISPLAY");
    if (!display || !*display)
        return fail("No display is available to record.", Error::Kind::missing);
    int screenNumber = 0;
    xcb_connection_t* connection = nullptr;
    // A server that lost its last client resets and refuses connections for a moment.
    for (int attempt = 0; attempt < 5; ++attempt) {
        connection = xcb_connect(display, &screenNumber);
        if (connection && !xcb_connection_has_error(connection))
            break;
        if (connection)
            xcb_disconnect(connection);
        connection = nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    if (!connection)
        return fail("No display is available to record.", Error::Kind::missing);
    auto result = std::unique_ptr<X11Connection>(new X11Connection());
    result->m_connection = connection;
    result->m_name = display;
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; it.rem && i < screenNumber; ++i)
        xcb_screen_next(&it);
    if (!it.rem)
        return fail("No display is available to record.", Error::Kind::missing);
    result->m_screen = it.data;
    return result;
}

X11Connection::~X11Connection()
{
    if (m_connection)
        xcb_disconnect(m_connection);
}

uint32_t X11Connection::root() const { return m_screen->root; }

Size X11Connection::rootSize() const
{
    return {static_cast<double>(m_screen->width_in_pixels), static_cast<double>(m_screen->height_in_pixels)};
}

bool X11Connection::hasExtension(const char* name) const
{
    auto cookie = xcb_query_extension(m_connection, static_cast<uint16_t>(std::strlen(name)), name);
    ReplyPtr<xcb_query_extension_reply_t> reply(xcb_query_extension_reply(m_connection, cookie, nullptr));
    return reply && reply->present;
}

std::vector<X11Connection::Output> X11Connection::outputs() const
{
    std::vector<Output> result;
    if (hasExtension("RANDR")) {
        auto versionCookie = xcb_randr_query_version(m_connection, 1, 3);
        ReplyPtr<xcb_randr_query_version_reply_t> version(xcb_randr_query_version_reply(m_connection, versionCookie, nullptr));
        auto resCookie = xcb_randr_get_screen_resources_current(m_connection, root());
        ReplyPtr<xcb_randr_get_screen_resources_current_reply_t> resources(
            xcb_randr_get_screen_resources_current_reply(m_connection, resCookie, nullptr));
        uint32_t primary = 0;
        if (version && (version->major_version > 1 || version->minor_version >= 3)) {
            ReplyPtr<xcb_randr_get_output_primary_reply_t> p(
                xcb_randr_get_output_primary_reply(m_connection, xcb_randr_get_output_primary(m_connection, root()), nullptr));
            if (p)
                primary = p->output;
        }
        if (resources) {
            const xcb_randr_output_t* ids = xcb_randr_get_screen_resources_current_outputs(resources.get());
            int count = xcb_randr_get_screen_resources_current_outputs_length(resources.get());
            for (int i = 0; i < count; ++i) {
                ReplyPtr<xcb_randr_get_output_info_reply_t> info(xcb_randr_get_output_info_reply(m_connection,
                    xcb_randr_get_output_info(m_connection, ids[i], resources->config_timestamp), nullptr));
                if (!info || info->connection != XCB_RANDR_CONNECTION_CONNECTED || info->crtc == XCB_NONE)
                    continue;
                ReplyPtr<xcb_randr_get_crtc_info_reply_t> crtc(xcb_randr_get_crtc_info_reply(m_connection,
                    xcb_randr_get_crtc_info(m_connection, info->crtc, resources->config_timestamp), nullptr));
                if (!crtc || crtc->width == 0 || crtc->height == 0)
                    continue;
                const char* text = reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get()));
                Output output;
                output.name.assign(text, static_cast<size_t>(xcb_randr_get_output_info_name_length(info.get())));
                output.frame = {double(crtc->x), double(crtc->y), double(crtc->width), double(crtc->height)};
                output.primary = ids[i] == primary;
                result.push_back(std::move(output));
            }
        }
    }
    if (result.empty())
        result.push_back({"screen", {0, 0, rootSize().width, rootSize().height}, true});
    return result;
}

std::optional<Rect> X11Connection::windowFrame(uint32_t window) const
{
    auto geometryCookie = xcb_get_geometry(m_connection, window);
    ReplyPtr<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(m_connection, geometryCookie, nullptr));
    if (!geometry)
        return std::nullopt;
    auto translateCookie = xcb_translate_coordinates(m_connection, window, root(), 0, 0);
    ReplyPtr<xcb_translate_coordinates_reply_t> translated(
        xcb_translate_coordinates_reply(m_connection, translateCookie, nullptr));
    if (!translated)
        return std::nullopt;
    return Rect{double(translated->dst_x), double(translated->dst_y), double(geometry->width), double(geometry->height)};
}

namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    ReplyPtr<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 1, static_cast<uint16_t>(std::strlen(name)), name), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

// A property's bytes, or nothing when the window lacks it.
std::optional<std::string> property(xcb_connection_t* c, uint32_t window, xcb_atom_t name, xcb_atom_t type)
{
    if (name == XCB_ATOM_NONE)
        return std::nullopt;
    ReplyPtr<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(c, xcb_get_property(c, 0, window, name, type, 0, 1 << 16), nullptr));
    if (!reply || reply->type == XCB_ATOM_NONE)
        return std::nullopt;
    auto* bytes = static_cast<const char*>(xcb_get_property_value(reply.get()));
    return std::string(bytes, static_cast<size_t>(xcb_get_property_value_length(reply.get())));
}

} // namespace

std::vector<DesktopWindow> X11Connection::windows() const
{
    xcb_connection_t* c = m_connection;
    std::vector<uint32_t> ids; // bottom to top
    if (auto list = property(c, root(), atom(c, "_NET_CLIENT_LIST_STACKING"), XCB_ATOM_WINDOW); list && !list->empty()) {
        ids.resize(list->size() / sizeof(uint32_t));
        std::memcpy(ids.data(), list->data(), ids.size() * sizeof(uint32_t));
    } else {
        ReplyPtr<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(c, xcb_query_tree(c, root()), nullptr));
        if (tree) {
            const xcb_window_t* children = xcb_query_tree_children(tree.get());
            for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
                ReplyPtr<xcb_get_window_attributes_reply_t> attributes(
                    xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, children[i]), nullptr));
                if (attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE
                    && attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT)
                    ids.push_back(children[i]);
            }
        }
    }
    xcb_atom_t netName = atom(c, "_NET_WM_NAME"), utf8 = atom(c, "UTF8_STRING");
    std::vector<DesktopWindow> result;
    for (auto id = ids.rbegin(); id != ids.rend(); ++id) {
        auto frame = windowFrame(*id);
        if (!frame || frame->width < 2 || frame->height < 2)
            continue;
        auto title = property(c, *id, netName, utf8);
        if (!title)
            title = property(c, *id, XCB_ATOM_WM_NAME, XCB_ATOM_STRING);
        result.push_back({*id, title.value_or(""), *frame});
    }
    return result;
}

Result<Image> X11Connection::picture(const Rect& area) const
{
    const Size whole = rootSize();
    const int x = std::clamp(int(std::floor(area.x)), 0, int(whole.width));
    const int y = std::clamp(int(std::floor(area.y)), 0, int(whole.height));
    const int width = std::clamp(int(std::ceil(area.x + area.width)), x, int(whole.width)) - x;
    const int height = std::clamp(int(std::ceil(area.y + area.height)), y, int(whole.height)) - y;
    if (width < 1 || height < 1)
        return fail("That part of the screen lies outside every display, so there is no picture of it.", Error::Kind::missing);
    auto cookie = xcb_get_image(m_connection, XCB_IMAGE_FORMAT_Z_PIXMAP, root(), int16_t(x), int16_t(y), uint16_t(width),
        uint16_t(height), ~0u);
    std::unique_ptr<xcb_get_image_reply_t, decltype(&std::free)> reply(
        xcb_get_image_reply(m_connection, cookie, nullptr), &std::free);
    const size_t rowBytes = size_t(width) * 4;
    if (!reply || reply->depth < 24 || size_t(xcb_get_image_data_length(reply.get())) < rowBytes * size_t(height))
        return fail("The X server did not hand out a picture of the screen.");
    Image image = Image::uninitialized(width, height);
    const uint8_t* data = xcb_get_image_data(reply.get());
    for (int row = 0; row < height; ++row)
        copyOpaqueRow(image.row(row), data + size_t(row) * rowBytes, width);
    return image;
}

std::optional<Image> X11Connection::windowIcon(uint32_t window, int size) const
{
    xcb_atom_t name = atom(m_connection, "_NET_WM_ICON");
    if (name == XCB_ATOM_NONE)
        return std::nullopt;
    // Up to 4 MB: every size a window offers, 256 px and more among them.
    ReplyPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        m_connection, xcb_get_property(m_connection, 0, window, name, XCB_ATOM_CARDINAL, 0, 1 << 20), nullptr));
    if (!reply || reply->format != 32)
        return std::nullopt;
    const auto* words = static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
    return iconFromWords(std::span(words, size_t(xcb_get_property_value_length(reply.get())) / 4), size);
}

std::optional<Image> iconFromWords(std::span<const uint32_t> words, int size)
{
    // Entries of width, height and width × height ARGB pixels, one after another.
    std::optional<std::pair<size_t, uint32_t>> chosen; // offset and width
    for (size_t at = 0; at + 2 <= words.size();) {
        const uint32_t width = words[at], height = words[at + 1];
        if (width == 0 || height == 0 || width > 1024 || height > 1024 || uint64_t(width) * height > words.size() - at - 2)
            break;
        const bool fits = int(width) >= size;
        if (!chosen || (fits && (int(chosen->second) < size || width < chosen->second))
            || (!fits && int(chosen->second) < size && width > chosen->second))
            chosen = std::pair{at, width};
        at += 2 + size_t(width) * height;
    }
    if (!chosen)
        return std::nullopt;
    const uint32_t width = words[chosen->first], height = words[chosen->first + 1];
    Image icon = Image::uninitialized(int(width), int(height));
    const uint32_t* pixel = words.data() + chosen->first + 2;
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* out = icon.row(int(y));
        for (uint32_t x = 0; x < width; ++x, ++pixel, out += 4) {
            const uint32_t argb = *pixel, a = argb >> 24;
            out[0] = uint8_t((argb & 0xff) * a / 255);
            out[1] = uint8_t(((argb >> 8) & 0xff) * a / 255);
            out[2] = uint8_t(((argb >> 16) & 0xff) * a / 255);
            out[3] = uint8_t(a);
        }
    }
    return icon;
}

std::optional<Point> X11Connection::pointer() const
{
    ReplyPtr<xcb_query_pointer_reply_t> reply(
        xcb_query_pointer_reply(m_connection, xcb_query_pointer(m_connection, root()), nullptr));
    if (!reply || !reply->same_screen)
        return std::nullopt;
    return Point{double(reply->root_x), double(reply->root_y)};
}

Result<uint32_t> X11Connection::pickWindow() const
{
    xcb_connection_t* c = m_connection;
    xcb_font_t font = xcb_generate_id(c);
    xcb_open_font(c, font, 6, "cursor");
    xcb_cursor_t cursor = xcb_generate_id(c);
    constexpr uint16_t crosshair = 34; // XC_crosshair
    xcb_create_glyph_cursor(c, cursor, font, font, crosshair, crosshair + 1, 0, 0, 0, 0xffff, 0xffff, 0xffff);
    ReplyPtr<xcb_grab_pointer_reply_t> grab(xcb_grab_pointer_reply(c,
        xcb_grab_pointer(c, 0, root(), XCB_EVENT_MASK_BUTTON_PRESS, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC,
            XCB_NONE, cursor, XCB_CURRENT_TIME),
        nullptr));
    xcb_free_cursor(c, cursor);
    xcb_close_font(c, font);
    if (!grab || grab->status != XCB_GRAB_STATUS_SUCCESS)
        return fail("Plim could not take the pointer to let you pick a window (another program holds it). "
                    "Nothing was recorded. Name the window by its id instead.");
    uint32_t picked = 0;
    while (xcb_generic_event_t* event = xcb_wait_for_event(c)) {
        bool done = (event->response_type & 0x7f) == XCB_BUTTON_PRESS;
        if (done)
            picked = reinterpret_cast<xcb_button_press_event_t*>(event)->child;
        std::free(event);
        if (done)
            break;
    }
    xcb_ungrab_pointer(c, XCB_CURRENT_TIME);
    xcb_flush(c);
    if (!picked)
        return fail("The click landed on the desktop, not on a window. Nothing was recorded. Pick a window again.");
    return picked;
}

} // namespace plim
