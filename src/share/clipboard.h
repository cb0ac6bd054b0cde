#pragma once
// The desktop clipboard as sharing uses it: a finished file offered for pasting.
//
// Contract: offerFileOnClipboard() returns once the offer stands, or with the reason it
// could not be made. The offer is held by a process of its own that owns the CLIPBOARD
// selection (as xclip does), so it outlives the command that made it; that process ends
// when another program takes the clipboard or the display goes away. It answers TARGETS,
// text/uri-list, x-special/gnome-copied-files (file managers paste the file itself),
// UTF8_STRING and text/plain (the path), and the file's own type (image/gif, video/mp4)
// when the file fits in one reply of the X server's. Callable from any thread; it blocks
// for at most about 5 s. The X11 backend is clipboard_x11.cpp; a Wayland one (the data
// device through the portal) would sit beside it.

#include "base/error.h"

#include <filesystem>
#include <string>

namespace plim {

// The file's own clipboard type from its extension ("image/gif"); empty when unknown.
std::string clipboardTypeOf(const std::filesystem::path& file);

// file:// URI of an absolute path, with everything but unreserved bytes and '/' escaped.
std::string fileURI(const std::filesystem::path& absolutePath);

Status offerFileOnClipboard(const std::filesystem::path& file);

} // namespace plim
