#pragma once
// The system log: syslog(3) with the ident "plim". When PLIM_LOG is "stderr" each line
// also goes to standard error. Lines carry their area's prefix ("Plim share: " ...).

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

enum class LogArea { main, share, captions, live, devices, moment };

// "Plim: ", "Plim share: ", "Plim captions: ", "Plim live: ", "Plim devices: ", "Plim moment: ".
std::string_view logPrefix(LogArea area);

// Writes one line exactly as given (callers whose sentence already starts with its prefix).
void logLine(std::string_view line);

// Writes the area's prefix followed by the message.
void logLine(LogArea area, std::string_view message);

// Collects every line logged on any thread while it lives (tests, diagnostics).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<std::string> lines() const;
    bool contains(std::string_view fragment) const;
};

} // namespace plim
