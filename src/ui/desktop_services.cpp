#include "ui/desktop_services.h"

#include "capture/desktop.h"
#include "library/plim_edits.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QScreen>
#include <QUrl>

#include <cmath>

namespace plim {

Status openInDesktop(const std::filesystem::path& file)
{
    if (!std::filesystem::exists(file))
        return fail("\"" + file.filename().string() + "\" is not there any more, so it could not be opened. Nothing was changed.");
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(toQString(file))))
        return fail("No application on this computer opened \"" + file.filename().string()
            + "\". The file is untouched; open it from the file manager.");
    return {};
}

Status showInFileManager(const std::filesystem::path& file)
{
    auto bus = QDBusConnection::sessionBus();
    const QString service = QStringLiteral("org.freedesktop.FileManager1");
    if (bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(service).value()) {
        auto call = QDBusMessage::createMethodCall(service, QStringLiteral("/org/freedesktop/FileManager1"), service,
            QStringLiteral("ShowItems"));
        call << QStringList{QUrl::fromLocalFile(toQString(file)).toString()} << QString();
        if (bus.call(call, QDBus::Block, 3000).type() == QDBusMessage::ReplyMessage)
            return {};
    }
    const auto folder = std::filesystem::is_directory(file) ? file : file.parent_path();
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(toQString(folder))))
        return fail("No file manager answered, so " + folder.string() + " could not be shown. Nothing was changed.");
    return {};
}

Rect toWindowPoints(const Rect& pixels)
{
    const QScreen* screen = QGuiApplication::primaryScreen();
    const double dpr = screen ? screen->devicePixelRatio() : 1.0;
    return Rect{pixels.x / dpr, pixels.y / dpr, pixels.width / dpr, pixels.height / dpr};
}

QRect toWindowRect(const Rect& pixels)
{
    const Rect r = toWindowPoints(pixels);
    return QRect(int(std::lround(r.x)), int(std::lround(r.y)), int(std::lround(r.width)), int(std::lround(r.height)));
}

std::optional<std::filesystem::path> wallpaperFor(const PlimEdits& edits)
{
    if (!edits.look || edits.look->backdrop != PlimLook::Backdrop::wallpaper)
        return std::nullopt;
    static const std::optional<std::filesystem::path> wallpaper = desktopWallpaper();
    return wallpaper;
}

QImage toQImage(const Image& image)
{
    if (image.isEmpty())
        return {};
    QImage wrapped(image.pixels.get(), image.width, image.height, static_cast<qsizetype>(image.stride),
        QImage::Format_ARGB32_Premultiplied);
    return wrapped.copy();
}

} // namespace plim
