#include "capture/wayland/keymap_wayland.h"

#include <wayland-client.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace plim {

namespace {

struct Asking {
    wl_seat* seat = nullptr;
    wl_keyboard* keyboard = nullptr;
    std::string keymap;
};

void keymap(void* data, wl_keyboard*, uint32_t format, int32_t fd, uint32_t size)
{
    auto* asking = static_cast<Asking*>(data);
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0) {
        void* text = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (text != MAP_FAILED) {
            const char* chars = static_cast<const char*>(text);
            asking->keymap.assign(chars, strnlen(chars, size));
            munmap(text, size);
        }
    }
    close(fd);
}
void enter(void*, wl_keyboard*, uint32_t, wl_surface*, wl_array*) {}
void leave(void*, wl_keyboard*, uint32_t, wl_surface*) {}
void key(void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t) {}
void modifiers(void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {}
void repeatInfo(void*, wl_keyboard*, int32_t, int32_t) {}
const wl_keyboard_listener keyboardListener{keymap, enter, leave, key, modifiers, repeatInfo};

void capabilities(void* data, wl_seat* seat, uint32_t caps)
{
    auto* asking = static_cast<Asking*>(data);
    if ((caps & WL_SEAT_CAPABILITY_KEYBOARD) && !asking->keyboard) {
        asking->keyboard = wl_seat_get_keyboard(seat);
        wl_keyboard_add_listener(asking->keyboard, &keyboardListener, asking);
    }
}
void seatName(void*, wl_seat*, const char*) {}
const wl_seat_listener seatListener{capabilities, seatName};

void global(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto* asking = static_cast<Asking*>(data);
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !asking->seat) {
        asking->seat = static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, std::min(version, 5u)));
        wl_seat_add_listener(asking->seat, &seatListener, asking);
    }
}
void globalRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener registryListener{global, globalRemove};

} // namespace

std::string compositorKeymap()
{
    wl_display* display = wl_display_connect(nullptr);
    if (!display)
        return {};
    Asking asking;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registryListener, &asking);
    // The seat, then its capabilities, then the keyboard's keymap.
    for (int i = 0; i < 3 && asking.keymap.empty(); ++i)
        if (wl_display_roundtrip(display) < 0)
            break;
    if (asking.keyboard)
        wl_proxy_get_version(reinterpret_cast<wl_proxy*>(asking.keyboard)) >= WL_KEYBOARD_RELEASE_SINCE_VERSION
            ? wl_keyboard_release(asking.keyboard)
            : wl_keyboard_destroy(asking.keyboard);
    if (asking.seat)
        wl_proxy_get_version(reinterpret_cast<wl_proxy*>(asking.seat)) >= WL_SEAT_RELEASE_SINCE_VERSION
            ? wl_seat_release(asking.seat)
            : wl_seat_destroy(asking.seat);
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    return asking.keymap;
}

} // namespace plim
