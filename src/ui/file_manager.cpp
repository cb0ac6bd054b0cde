#include "ui/file_manager.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QUrl>

namespace plim {

std::optional<std::string> showInFileManager(const std::filesystem::path& file)
{
    QString uri = QUrl::fromLocalFile(QString::fromStdString(file.string())).toString();
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString service = "org.freedesktop.FileManager1";
    // A file manager that is running, or one the bus can start.
    if (bus.isConnected()
        && (bus.interface()->isServiceRegistered(service).value()
            || bus.interface()->activatableServiceNames().value().contains(service))) {
        QDBusMessage call = QDBusMessage::createMethodCall(service, "/org/freedesktop/FileManager1", service, "ShowItems");
        call << QStringList{uri} << QString();
        if (bus.send(call))
            return std::nullopt;
    }
    QString folder = QString::fromStdString(file.parent_path().string());
    if (QDesktopServices::openUrl(QUrl::fromLocalFile(folder)))
        return std::nullopt;
    return "Plim could not open the folder " + file.parent_path().string()
        + ": this desktop has no file manager set up to show it. The plim is there, untouched; open the folder "
          "from a file manager or a terminal.";
}

} // namespace plim
