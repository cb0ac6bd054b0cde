// Settings for the leak checker of sanitized builds. Libraries that keep allocations for
// the life of the process (fontconfig's first initialisation, x265's encoder tables behind
// libheif, the session-bus connection Qt keeps in libdbus and the interface descriptions Qt
// D-Bus caches when it asks for a tray) are not Plim's leaks; they are suppressed quietly,
// so a command's own output stays its own. The build makes every program link this file
// (see src/CMakeLists.txt).

#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libfontconfig.so\nleak:libx265.so\nleak:libdbus-1.so\nleak:libQt6DBus.so\n";
}

extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
#endif
