#pragma once
// Small services the windows share: opening a file in its application, showing it in the
// file manager, and turning Plim's pictures into Qt's.
//
// Threads: call from the GUI thread; toQImage() from any thread.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <QImage>
#include <QRect>
#include <QString>

#include <filesystem>
#include <optional>

namespace plim {

struct PlimEdits;

// Opens the file with the desktop's application for it. A sentence when nothing opened.
Status openInDesktop(const std::filesystem::path& file);

// Selects the file in the file manager (org.freedesktop.FileManager1.ShowItems on the
// session bus); where no file manager answers there, opens the folder that holds it.
Status showInFileManager(const std::filesystem::path& file);

// The desktop's wallpaper when `edits` wear the wallpaper backdrop: asked of the desktop
// (GNOME's gsettings, Plasma's settings) the first time a look wants it and kept for the
// session. Nothing when the look wants no wallpaper or the desktop names no picture.
// Any thread.
std::optional<std::filesystem::path> wallpaperFor(const PlimEdits& edits);

// A copy of a BGRA premultiplied picture.
QImage toQImage(const Image& image);

// The desktop counts in X pixels, Qt's windows in its own points: on a screen scaled by 2,
// the pixel rectangle (200, 100, 640, 400) is the window rectangle (100, 50, 320, 200).
QRect toWindowRect(const Rect& pixels);
Rect toWindowPoints(const Rect& pixels);

inline QString toQString(const std::filesystem::path& path) { return QString::fromStdString(path.string()); }
inline std::filesystem::path toPath(const QString& text) { return std::filesystem::path(text.toStdString()); }

} // namespace plim
