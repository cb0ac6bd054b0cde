#pragma once
// What the windows ask of the desktop: a file opened in its application, a file shown in
// the file manager (org.freedesktop.FileManager1.ShowItems, else its folder opened), and
// Plim's pictures as Qt's.
//
// Threads: GUI thread, except toQImage(), which any thread may call.

#include "base/error.h"
#include "base/image.h"

#include <QImage>
#include <QString>

#include <filesystem>

namespace plim {

// A sentence when no application opened it.
Status openInDesktop(const std::filesystem::path& file);

// A sentence when neither the file manager nor the folder could be shown.
Status showInFileManager(const std::filesystem::path& file);

// A copy of a BGRA premultiplied picture; empty for an empty one.
QImage toQImage(const Image& image);

inline QString toQString(const std::filesystem::path& path) { return QString::fromStdString(path.string()); }
inline std::filesystem::path toPath(const QString& text) { return std::filesystem::path(text.toStdString()); }

} // namespace plim
