// The desktop of this session, and where it keeps its wallpaper.

#include "capture/desktop.h"

#include "base/text.h"
#include "capture/x11/desktop_x11.h"
#ifdef PLIM_WAYLAND
#include "capture/wayland/desktop_portal.h"
#include "capture/wayland/desktop_wlr.h"
#endif

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace plim {

namespace {

bool isSet(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value;
}

// file:///a%20b -> /a b; anything else as it stands.
std::string pathFromUri(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\'' || text.back() == '"' || text.back() == ' '))
        text.pop_back();
    size_t start = 0;
    while (start < text.size() && (text[start] == '\'' || text[start] == '"' || text[start] == ' '))
        ++start;
    text = text.substr(start);
    if (text.starts_with("file://"))
        text = text.substr(7);
    return percentDecoded(text);
}

std::optional<std::filesystem::path> existingFile(const std::string& text)
{
    if (text.empty())
        return std::nullopt;
    std::error_code ec;
    std::filesystem::path path(text);
    if (std::filesystem::is_directory(path, ec)) {
        // A Plasma wallpaper package: the largest picture it holds.
        std::optional<std::filesystem::path> best;
        uintmax_t bestSize = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path / "contents" / "images", ec)) {
            const std::string extension = entry.path().extension().string();
            if (!entry.is_regular_file(ec) || (extension != ".png" && extension != ".jpg" && extension != ".jpeg" && extension != ".webp"))
                continue;
            const uintmax_t size = entry.file_size(ec);
            if (!ec && size > bestSize) {
                best = entry.path();
                bestSize = size;
            }
        }
        return best;
    }
    if (std::filesystem::is_regular_file(path, ec))
        return path;
    return std::nullopt;
}

std::optional<std::filesystem::path> gnomeWallpaper()
{
    FILE* pipe = popen("gsettings get org.gnome.desktop.background picture-uri 2>/dev/null", "r");
    if (!pipe)
        return std::nullopt;
    std::string text;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe))
        text += buffer;
    pclose(pipe);
    return existingFile(pathFromUri(text));
}

std::optional<std::filesystem::path> kdeWallpaper()
{
    std::filesystem::path config;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        config = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        config = std::filesystem::path(home) / ".config";
    else
        return std::nullopt;
    std::ifstream in(config / "plasma-org.kde.plasma.desktop-appletsrc");
    std::string line;
    while (std::getline(in, line))
        if (line.starts_with("Image="))
            if (auto path = existingFile(pathFromUri(line.substr(6))))
                return path;
    return std::nullopt;
}

Result<std::unique_ptr<Desktop>> wlrDesktop()
{
#ifdef PLIM_WAYLAND
    return createWlrDesktop();
#else
    return fail("This Plim was built without Wayland capture.", Error::Kind::refused);
#endif
}

Result<std::unique_ptr<Desktop>> portalDesktop()
{
#ifdef PLIM_WAYLAND
    return createPortalDesktop();
#else
    return fail("This Plim was built without Wayland capture.", Error::Kind::refused);
#endif
}

} // namespace

Result<std::unique_ptr<Desktop>> Desktop::create(const std::optional<std::string>& display, DesktopBackend backend)
{
    std::unique_ptr<Desktop> desktop;
    std::string why;
    const char* session = std::getenv("XDG_SESSION_TYPE");
    const bool waylandSession = session && std::string(session) == "wayland";
    if (backend == DesktopBackend::wlr) {
        auto wlr = wlrDesktop();
        if (!wlr)
            return fail(wlr.error().sentence + " Nothing was recorded. Leave out --backend wlr to record through "
                    "what this session offers.",
                Error::Kind::refused);
        desktop = std::move(*wlr);
        why = "Reading the screen through wlr-screencopy, as asked.";
    } else if (backend == DesktopBackend::portal) {
        auto portal = portalDesktop();
        if (!portal)
            return fail(portal.error().sentence + " Nothing was recorded. Leave out --backend portal to record "
                    "through what this session offers.",
                Error::Kind::refused);
        desktop = std::move(*portal);
        why = "Reading the screen through the desktop portal (PipeWire), as asked.";
    } else if (backend == DesktopBackend::x11 || display) {
        desktop = PLIM_TRY(createX11Desktop(display));
        why = backend == DesktopBackend::x11 ? "Reading the screen through X11, as asked."
                                             : "Reading the X display " + desktop->name() + " through X11, as asked.";
    } else if (isSet("WAYLAND_DISPLAY") || waylandSession) {
        // A Wayland session's X server (XWayland) sees only the windows of X programs, so
        // its recording would be blank: its compositor must hand out the screen.
        auto wlr = wlrDesktop();
        // An X11 session with a stray WAYLAND_DISPLAY keeps X11 even where a portal answers.
        std::optional<Result<std::unique_ptr<Desktop>>> portal;
        if (!wlr && (waylandSession || !isSet("DISPLAY")))
            portal = portalDesktop();
        if (wlr) {
            desktop = std::move(*wlr);
            why = "Reading the screen through wlr-screencopy: this is a Wayland session whose compositor offers it.";
        } else if (portal && *portal) {
            desktop = std::move(**portal);
            why = "Reading the screen through the desktop portal (PipeWire): this is a Wayland session whose "
                  "compositor offers no wlr-screencopy.";
        } else if (waylandSession || !isSet("DISPLAY")) {
            return fail("This is a Wayland session, and Plim cannot read its screen. " + wlr.error().sentence + " "
                    + portal->error().sentence
                    + " Plim reads Wayland screens through wlr-screencopy (sway and other wlroots desktops) or the "
                      "desktop portal (GNOME, KDE): install xdg-desktop-portal and the portal backend for this "
                      "desktop (xdg-desktop-portal-gnome, xdg-desktop-portal-kde), or log in to an X11 (Xorg) "
                      "session. Nothing was recorded.",
                Error::Kind::refused);
        } else {
            desktop = PLIM_TRY(createX11Desktop(display));
            why = "Reading the screen through X11: this is not a Wayland session, though WAYLAND_DISPLAY is set. "
                + wlr.error().sentence;
        }
    } else {
        desktop = PLIM_TRY(createX11Desktop(display));
        why = "Reading the screen through X11: this is an X11 session.";
    }
    desktop->m_choice = std::move(why);
    return desktop;
}

std::optional<std::filesystem::path> desktopWallpaper()
{
    if (auto gnome = gnomeWallpaper())
        return gnome;
    return kdeWallpaper();
}

} // namespace plim
