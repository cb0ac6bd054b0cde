#include "ui/desktop_services.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QUrl>

namespace plim {

Status openInDesktop(const std::filesystem::path& file)
{
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec))
        return fail(file.string() + " is not there any more, so it could not be opened. Nothing was changed.",
            Error::Kind::missing);
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(toQString(file))))
        return fail("No application on this desktop is set up to open " + file.string()
                + ". The file is untouched; install a player (Videos, VLC, mpv) or open it from the file manager.",
            Error::Kind::unreadable);
    return {};
}

Status showInFileManager(const std::filesystem::path& file)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString service = "org.freedesktop.FileManager1";
    // A file manager that is running, or one the bus can start; the call is not waited for.
    if (bus.isConnected()
        && (bus.interface()->isServiceRegistered(service).value()
            || bus.interface()->activatableServiceNames().value().contains(service))) {
        QDBusMessage call = QDBusMessage::createMethodCall(service, "/org/freedesktop/FileManager1", service, "ShowItems");
        call << QStringList{QUrl::fromLocalFile(toQString(file)).toString()} << QString();
        if (bus.send(call))
            return {};
    }
    std::error_code ec;
    const auto folder = std::filesystem::is_directory(file, ec) ? file : file.parent_path();
    if (QDesktopServices::openUrl(QUrl::fromLocalFile(toQString(folder))))
        return {};
    return fail("Plim could not show " + folder.string()
            + ": this desktop has no file manager set up to open it. Nothing was changed; open the folder from a "
              "file manager or a terminal.",
        Error::Kind::unreadable);
}

QImage toQImage(const Image& image)
{
    if (image.isEmpty())
        return {};
    return QImage(image.pixels.get(), image.width, image.height, qsizetype(image.stride),
        QImage::Format_ARGB32_Premultiplied)
        .copy();
}

} // namespace plim
