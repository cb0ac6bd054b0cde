#include "base/json.h"
#include "base/settings.h"
#include "ui/desktop_icons.h"
#include "ui/settings_window.h"
#include "wait_until.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QThread>

#include <gtest/gtest.h>

using namespace plim;
using plim::testkit::CallLog;

namespace {

// GNOME Shell's extension switch as the session bus offers it.
class FakeShell : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.gnome.Shell.Extensions")
public:
    explicit FakeShell(CallLog& log) : m_log(log) {}
public slots:
    bool DisableExtension(const QString& uuid) { return m_log.note("Disable " + uuid); }
    bool EnableExtension(const QString& uuid) { return m_log.note("Enable " + uuid); }

private:
    CallLog& m_log;
};

// Xfce's settings store, holding the desktop's icon style.
class FakeXfconf : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.xfce.Xfconf")
public:
    explicit FakeXfconf(CallLog& log) : m_log(log) {}
public slots:
    QDBusVariant GetProperty(const QString& channel, const QString& property)
    {
        m_log.note("Get " + channel + property);
        return QDBusVariant(2);
    }
    void SetProperty(const QString& channel, const QString& property, const QDBusVariant& value)
    {
        m_log.note("Set " + channel + property + "=" + value.variant().toString());
    }

private:
    CallLog& m_log;
};

} // namespace

TEST(DesktopIcons, HiddenWhileRecordingWhereTheDesktopAllowsAndPutBackEvenAfterAKill)
{
    // The desktop answers on a thread of its own, as it would from its own process.
    QThread thread;
    thread.start();
    CallLog desktop;
    FakeShell shell(desktop);
    FakeXfconf xfconf(desktop);
    shell.moveToThread(&thread);
    xfconf.moveToThread(&thread);
    auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("fake-desktop"));
    ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/gnome/Shell"), &shell, QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/xfce/Xfconf"), &xfconf, QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.gnome.Shell")));

    MemorySettingsStore settings;
    // No desktop that can hide them: nothing is asked.
    EXPECT_EQ(DesktopIcons::present(), DesktopIcons::Desktop::none);
    ASSERT_TRUE(bus.registerService(QStringLiteral("com.rastersoft.ding")));
    EXPECT_EQ(DesktopIcons::present(), DesktopIcons::Desktop::gnomeDing);
    DesktopIcons icons(settings);
    ASSERT_TRUE(icons.hide());
    EXPECT_TRUE(desktop.calls().isEmpty()) << "hidden although the user did not ask";

    // Asked for: hidden once, and what to put back outlives this Plim.
    ASSERT_TRUE(settings.setValue(SettingsWindow::hideIconsKey, true));
    ASSERT_TRUE(icons.hide());
    ASSERT_TRUE(icons.hide());
    EXPECT_EQ(desktop.calls(), QStringList{"Disable ding@rastersoft.com"});
    ASSERT_TRUE(DesktopIcons(settings).restore()); // the next start
    EXPECT_EQ(desktop.calls().last(), "Enable ding@rastersoft.com");
    ASSERT_TRUE(icons.restore());
    EXPECT_EQ(desktop.calls().size(), 2);

    // A shell that turns it down: said in a sentence, and nothing is left to put back.
    desktop.obliges = false;
    auto refused = icons.hide();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().sentence, "GNOME Shell did not hide the desktop icons (it turned the request down). "
                                        "The recording goes on with them showing.");
    ASSERT_TRUE(icons.restore());
    EXPECT_EQ(desktop.calls().size(), 3);

    // Xfce: the icon style goes to none and back to what it was.
    bus.unregisterService(QStringLiteral("com.rastersoft.ding"));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.xfce.Xfconf")));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.xfce.xfdesktop")));
    EXPECT_EQ(DesktopIcons::present(), DesktopIcons::Desktop::xfce);
    ASSERT_TRUE(icons.hide());
    ASSERT_TRUE(icons.restore());
    EXPECT_EQ(desktop.calls().mid(3), (QStringList{"Get xfce4-desktop/desktop-icons/style",
                                          "Set xfce4-desktop/desktop-icons/style=0", "Set xfce4-desktop/desktop-icons/style=2"}));

    QDBusConnection::disconnectFromBus(QStringLiteral("fake-desktop"));
    thread.quit();
    thread.wait();
}

#include "desktop_icons_test.moc"
