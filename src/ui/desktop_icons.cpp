#include "ui/desktop_icons.h"

#include "base/json.h"
#include "base/settings.h"
#include "ui/settings_window.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDBusVariant>

namespace plim {

namespace {

constexpr const char* hiddenKey = "desktopIconsHidden"; // what to put back while hidden
const QString dingService = QStringLiteral("com.rastersoft.ding");
const QString dingExtension = QStringLiteral("ding@rastersoft.com");
const QString xfconfService = QStringLiteral("org.xfce.Xfconf");
const QString xfceChannel = QStringLiteral("xfce4-desktop");
const QString xfceIconStyle = QStringLiteral("/desktop-icons/style");

std::unique_ptr<QDBusInterface> shellExtensions()
{
    auto shell = std::make_unique<QDBusInterface>(QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell"),
        QStringLiteral("org.gnome.Shell.Extensions"), QDBusConnection::sessionBus());
    shell->setTimeout(1000);
    return shell;
}

std::unique_ptr<QDBusInterface> xfconf()
{
    auto x = std::make_unique<QDBusInterface>(xfconfService, QStringLiteral("/org/xfce/Xfconf"),
        QStringLiteral("org.xfce.Xfconf"), QDBusConnection::sessionBus());
    x->setTimeout(1000);
    return x;
}

// The sentence for a desktop that would not hide or show its icons.
Error refusedBy(const QString& desktop, const QString& why, bool hiding)
{
    std::string sentence = desktop.toStdString() + " did not " + (hiding ? "hide" : "show") + " the desktop icons ("
        + why.toStdString() + ").";
    sentence += hiding ? " The recording goes on with them showing." : " Show them again from the desktop's own settings.";
    return Error{sentence};
}

// True when GNOME Shell's answer to Enable/DisableExtension was yes.
Status callShell(const char* method, bool hiding)
{
    QDBusReply<bool> reply = shellExtensions()->call(QLatin1String(method), dingExtension);
    if (!reply.isValid())
        return std::unexpected(refusedBy(QStringLiteral("GNOME Shell"), reply.error().message(), hiding));
    if (!reply.value())
        return std::unexpected(refusedBy(QStringLiteral("GNOME Shell"), QStringLiteral("it turned the request down"), hiding));
    return {};
}

} // namespace

DesktopIcons::Desktop DesktopIcons::present()
{
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface())
        return Desktop::none;
    if (bus.interface()->isServiceRegistered(dingService).value())
        return Desktop::gnomeDing;
    if (bus.interface()->isServiceRegistered(QStringLiteral("org.xfce.xfdesktop")).value()
        && bus.interface()->isServiceRegistered(xfconfService).value())
        return Desktop::xfce;
    return Desktop::none;
}

Status DesktopIcons::hide()
{
    if (!m_settings.boolean(SettingsWindow::hideIconsKey, false) || m_settings.value(hiddenKey))
        return {};
    Json left;
    switch (present()) {
    case Desktop::none:
        return {};
    case Desktop::gnomeDing:
        PLIM_TRY(callShell("DisableExtension", true));
        left = {{"by", "ding"}};
        break;
    case Desktop::xfce: {
        QDBusReply<QDBusVariant> style = xfconf()->call(QStringLiteral("GetProperty"), xfceChannel, xfceIconStyle);
        left = {{"by", "xfce"}};
        if (style.isValid())
            left["style"] = style.value().variant().toInt();
        QDBusMessage set = xfconf()->call(QStringLiteral("SetProperty"), xfceChannel, xfceIconStyle,
            QVariant::fromValue(QDBusVariant(0)));
        if (set.type() == QDBusMessage::ErrorMessage)
            return std::unexpected(refusedBy(QStringLiteral("The Xfce desktop"), set.errorMessage(), true));
        break;
    }
    }
    // Kept before anything else can go wrong, so a later start puts the icons back.
    if (auto saved = m_settings.setValue(hiddenKey, left); !saved) {
        (void)restore();
        return saved;
    }
    return {};
}

Status DesktopIcons::restore()
{
    auto left = m_settings.value(hiddenKey);
    if (!left)
        return {};
    const std::string by = left->is_object() ? left->value("by", "") : "";
    // Forgotten whether or not the desktop obliges: a refusal is said once, not at every start.
    PLIM_TRY(m_settings.remove(hiddenKey));
    if (by == "ding") {
        PLIM_TRY(callShell("EnableExtension", false));
    } else if (by == "xfce") {
        QDBusMessage put;
        if (left->contains("style") && (*left)["style"].is_number_integer())
            put = xfconf()->call(QStringLiteral("SetProperty"), xfceChannel, xfceIconStyle,
                QVariant::fromValue(QDBusVariant((*left)["style"].get<int>())));
        else
            put = xfconf()->call(QStringLiteral("ResetProperty"), xfceChannel, xfceIconStyle, false);
        if (put.type() == QDBusMessage::ErrorMessage)
            return std::unexpected(refusedBy(QStringLiteral("The Xfce desktop"), put.errorMessage(), false));
    }
    return {};
}

} // namespace plim
