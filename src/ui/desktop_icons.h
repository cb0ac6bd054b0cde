#pragma once
// Hides the desktop's icons while a recording rolls, where the desktop lets an application
// do so over the session bus: GNOME's Desktop Icons NG extension (turned off, then on again,
// through GNOME Shell) and Xfce's desktop (its icon style, through xfconf). What to put
// back is kept in the settings while the icons are hidden, so a Plim that was killed puts
// them back at its next start.
//
// Threads: GUI thread. Each call is a short D-Bus call with a one-second limit.

#include "base/error.h"

#include <QString>

namespace plim {

class SettingsStore;

class DesktopIcons {
public:
    enum class Desktop { none, gnomeDing, xfce };

    explicit DesktopIcons(SettingsStore& settings) : m_settings(settings) {}

    // Which desktop answers on the session bus; none where icons cannot be hidden.
    static Desktop present();

    // Hides them when the user asked for it and the desktop allows; nothing otherwise. A
    // desktop that refuses gives a sentence; the recording goes on either way.
    Status hide();
    // Puts back what hide() or a killed Plim left hidden; nothing when nothing is. What was
    // left is forgotten even when the desktop refuses, whose sentence says what to do.
    Status restore();

private:
    SettingsStore& m_settings;
};

} // namespace plim
