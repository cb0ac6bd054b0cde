#include "ui/application_bus.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QVariantList>
#include <QVariantMap>

namespace plim {

namespace {

constexpr const char* applicationInterface = "org.freedesktop.Application";

class ApplicationAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    explicit ApplicationAdaptor(ApplicationBus* owner) : QDBusAbstractAdaptor(owner), m_owner(owner) {}

public slots:
    // Each answers at once and acts afterwards, so the start that sent it ends without
    // waiting for a window or the recording.
    void Activate(const QVariantMap& platform_data) { ActivateAction(QString(), {}, platform_data); }
    void Open(const QStringList& uris, const QVariantMap& platform_data)
    {
        Q_UNUSED(platform_data);
        later([owner = m_owner, uris] {
            if (owner->onOpen)
                owner->onOpen(uris);
        });
    }
    void ActivateAction(const QString& name, const QVariantList& parameter, const QVariantMap& platform_data)
    {
        Q_UNUSED(parameter);
        Q_UNUSED(platform_data);
        later([owner = m_owner, name] {
            if (owner->onAction)
                owner->onAction(name);
        });
    }

private:
    void later(std::function<void()> work) { QMetaObject::invokeMethod(m_owner, std::move(work), Qt::QueuedConnection); }

    ApplicationBus* m_owner;
};

} // namespace

ApplicationBus::ApplicationBus(QObject* parent) : QObject(parent) { new ApplicationAdaptor(this); }

ApplicationBus::Claim ApplicationBus::claim()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return Claim::noBus;
    bus.registerObject(applicationObjectPath, this, QDBusConnection::ExportAdaptors);
    if (!bus.registerService(applicationBusName)) {
        bus.unregisterObject(applicationObjectPath);
        return Claim::taken;
    }
    return Claim::owned;
}

ForwardOutcome forwardToRunningInstance(const std::optional<std::string>& action, const QStringList& files)
{
    // A connection of its own, closed at the end: the start may go on to be the instance.
    const QString name = "plim-forward";
    struct Closer {
        QString name;
        ~Closer() { QDBusConnection::disconnectFromBus(name); }
    } closer{name};
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, name);
    if (!bus.isConnected())
        return {Forwarded::noBus, std::nullopt};
    if (!bus.interface()->isServiceRegistered(applicationBusName).value())
        return {Forwarded::noInstance, std::nullopt};
    auto send = [&](const QString& method, const QVariantList& arguments, const std::string& what) -> std::optional<std::string> {
        QDBusMessage call = QDBusMessage::createMethodCall(applicationBusName, applicationObjectPath, applicationInterface, method);
        call.setArguments(arguments);
        QDBusMessage reply = bus.call(call, QDBus::Block, 10000);
        if (reply.type() != QDBusMessage::ErrorMessage)
            return std::nullopt;
        return "The Plim already running did not take " + what + " (" + reply.errorMessage().toStdString()
            + "). Nothing was changed; quit Plim from its tray menu and start it again.";
    };
    std::optional<std::string> failure;
    if (action)
        failure = send("ActivateAction", {QString::fromStdString(*action), QVariantList(), QVariantMap()}, "--" + *action);
    else if (files.isEmpty())
        failure = send("Activate", {QVariantMap()}, "the request to show its window");
    if (!failure && !files.isEmpty())
        failure = send("Open", {files, QVariantMap()}, "the request to open " + files.join(", ").toStdString());
    return {Forwarded::delivered, failure};
}

} // namespace plim

#include "application_bus.moc"
