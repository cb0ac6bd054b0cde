#include "base/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <syslog.h>

namespace plim {

namespace {
std::mutex logMutex;
std::vector<std::string>* captured = nullptr;
int captureDepth = 0;

bool alsoStderr()
{
    static const bool on = [] {
        const char* value = std::getenv("PLIM_LOG");
        return value && std::strcmp(value, "stderr") == 0;
    }();
    return on;
}
}

std::string_view logPrefix(LogArea area)
{
    switch (area) {
    case LogArea::main: return "Plim: ";
    case LogArea::share: return "Plim share: ";
    case LogArea::captions: return "Plim captions: ";
    case LogArea::live: return "Plim live: ";
    case LogArea::devices: return "Plim devices: ";
    case LogArea::moment: return "Plim moment: ";
    }
    return "Plim: ";
}

void logLine(std::string_view line)
{
    std::string text(line);
    std::lock_guard lock(logMutex);
    static bool opened = [] {
        openlog("plim", LOG_PID, LOG_USER);
        return true;
    }();
    (void)opened;
    syslog(LOG_NOTICE, "%s", text.c_str());
    if (alsoStderr())
        std::fprintf(stderr, "%s\n", text.c_str());
    if (captured)
        captured->push_back(std::move(text));
}

void logLine(LogArea area, std::string_view message)
{
    std::string text(logPrefix(area));
    text += message;
    logLine(text);
}

LogCapture::LogCapture()
{
    std::lock_guard lock(logMutex);
    if (captureDepth++ == 0)
        captured = new std::vector<std::string>();
}

LogCapture::~LogCapture()
{
    std::lock_guard lock(logMutex);
    if (--captureDepth == 0) {
        delete captured;
        captured = nullptr;
    }
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(logMutex);
    return captured ? *captured : std::vector<std::string>{};
}

bool LogCapture::contains(std::string_view fragment) const
{
    for (auto& line : lines())
        if (line.find(fragment) != std::string::npos)
            return true;
    return false;
}

} // namespace plim
