#pragma once
// Plugs the application's windows into the shell: the library (home), the record panel,
// the area picker, the share sheet and the settings.
//
// Threads: GUI thread.

namespace plim {

class AppShell;

void installWindows(AppShell& shell);

} // namespace plim
