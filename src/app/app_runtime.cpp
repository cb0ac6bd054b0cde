#include "app/app_runtime.h"

#include "app/stage_cli.h"

#include <malloc.h>

#include <filesystem>
#include <system_error>

#ifndef PLIM_INSTALL_PREFIX
#define PLIM_INSTALL_PREFIX "/usr/local"
#endif

namespace plim::AppRuntime {

void keepPicturesOutOfTheHeap() { ::mallopt(M_MMAP_THRESHOLD, 1 << 20); }

std::string executablePath()
{
    std::error_code ec;
    auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : path.string();
}

bool isBundledExecutable(const std::string& executable, const std::string& installPrefix)
{
    if (executable.empty() || installPrefix.empty())
        return false;
    std::error_code ec;
    auto bin = std::filesystem::weakly_canonical(std::filesystem::path(installPrefix) / "bin", ec);
    if (ec)
        return false;
    return std::filesystem::path(executable).parent_path() == bin;
}

bool isBundledApp() { return isBundledExecutable(executablePath(), PLIM_INSTALL_PREFIX); }

std::optional<std::string> updaterHold(bool renderRequested, bool bundled, const std::string& executable)
{
    if (renderRequested)
        return "this process is a headless render (--stage / --reframe)";
    if (bundled)
        return std::nullopt;
    return "this process is not the installed app (the executable is "
        + (executable.empty() ? std::string("unknown") : executable) + ")";
}

std::optional<std::string> updaterHold(const std::vector<std::string>& arguments)
{
    return updaterHold(StageCLI::requestedRender(arguments).has_value(), isBundledApp(), executablePath());
}

} // namespace plim::AppRuntime
