#include "testkit/kde_session.h"

#include "testkit/servers.h"

#include <sdbus-c++/sdbus-c++.h>

#include <sstream>

namespace plim::testkit {

namespace {

constexpr const char* portalKde = "/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde";

// Qt's data stream, as the KDE portal reads its restore data: big-endian lengths, strings
// in UTF-16, each variant its type id and a null flag before the value.
struct QtStream {
    std::vector<uint8_t> bytes;
    QtStream& u32(uint32_t v)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(uint8_t(v >> shift));
        return *this;
    }
    QtStream& string(const std::string& ascii)
    {
        u32(uint32_t(ascii.size() * 2));
        for (char c : ascii)
            bytes.insert(bytes.end(), {0, uint8_t(c)});
        return *this;
    }
    QtStream& variant(uint32_t type)
    {
        u32(type);
        bytes.push_back(0);
        return *this;
    }
};
constexpr uint32_t qVariantList = 9, qStringList = 11;

} // namespace

KdeSession::KdeSession(int width, int height)
    : HeadlessDesktop("KDE")
{
    if (auto missing = missingProgram({"kwin_wayland", "pipewire", "wireplumber", "dbus-daemon", "gdbus",
            "/usr/libexec/xdg-desktop-portal", portalKde, "/usr/libexec/xdg-permission-store"}))
        m_trouble = *missing;
    if (!m_trouble.empty())
        return;
    // kwin_wayland carries a file capability (cap_sys_resource), and a process whose bounding
    // set lacks it, as in a container, may not run it: a copy without it runs anywhere.
    std::error_code ec;
    fs::copy_file("/usr/bin/kwin_wayland", m_dir / "kwin_wayland", ec);
    if (ec) {
        m_trouble = "kwin_wayland could not be copied: " + ec.message();
        return;
    }
    m_up = startBus() && step("pipewire", {"pipewire"}, [&] { return fs::exists(m_runtime / "pipewire-0"); })
        && step("wireplumber", {"wireplumber"}, [] { return true; })
        && step("kwin", {(m_dir / "kwin_wayland").string(), "--virtual", "--width", std::to_string(width), "--height",
                std::to_string(height), "--no-lockscreen", "--no-global-shortcuts", "--no-kactivities"},
            [&] { return fs::exists(m_runtime / "wayland-0") && waitForName("org.kde.KWin"); })
        && step("permission-store", {"/usr/libexec/xdg-permission-store"},
            [&] { return waitForName("org.freedesktop.impl.portal.PermissionStore"); })
        && step("portal-kde", {"env", "QT_QPA_PLATFORM=wayland", portalKde},
            [&] { return waitForName("org.freedesktop.impl.portal.desktop.kde"); })
        && step("portal", {"/usr/libexec/xdg-desktop-portal"}, [&] { return waitForName("org.freedesktop.portal.Desktop"); });
}

std::string KdeSession::windowId(const std::string& appId)
{
    // A KWin script prints every window's application and id to KWin's standard error.
    const std::string marker = "plim-windows" + std::to_string(++m_scripts);
    const fs::path script = m_dir / (marker + ".js");
    writeText(script, "for (const w of workspace.clientList()) print('" + marker + "', w.resourceClass, w.internalId);\n");
    const std::vector<std::string> call{"gdbus", "call", "--session", "-d", "org.kde.KWin", "-o", "/Scripting", "-m"};
    auto loaded = call, started = call;
    loaded.insert(loaded.end(), {"org.kde.kwin.Scripting.loadScript", script.string(), marker});
    started.push_back("org.kde.kwin.Scripting.start");
    if (runCommand(loaded, environment()).status != 0 || runCommand(started, environment()).status != 0)
        return {};
    std::string id;
    eventually([&] {
        bool printed = false;
        std::istringstream log(readText(m_dir / "kwin.log"));
        for (std::string line; std::getline(log, line);) {
            std::istringstream words(line);
            std::string js, mark, app, uuid;
            if (words >> js >> mark >> app >> uuid && mark == marker) {
                printed = true;
                if (app == appId)
                    id = uuid;
            }
        }
        return printed;
    }, 3);
    return id;
}

std::string KdeSession::grantWindowCast(const std::string& id)
{
    // The KDE portal's restore data: ("KDE", 1, <a Qt map of "outputs" and "windows">).
    QtStream map;
    map.u32(2).string("outputs").variant(qVariantList).u32(0);
    map.string("windows").variant(qStringList).u32(1).string(id);
    return seedGrant(
        sdbus::Variant(sdbus::Struct<std::string, uint32_t, sdbus::Variant>{"KDE", 1u, sdbus::Variant(map.bytes)}));
}

} // namespace plim::testkit
