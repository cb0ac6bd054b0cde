#pragma once
// Showing a file where the user keeps it: the file manager with the file selected
// (org.freedesktop.FileManager1.ShowItems), else its folder in whatever opens folders.
//
// Threads: GUI thread; the bus call is asynchronous, so it never blocks a window.

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

// A sentence when neither way could show it; nothing when one did or is trying.
std::optional<std::string> showInFileManager(const std::filesystem::path& file);

} // namespace plim
