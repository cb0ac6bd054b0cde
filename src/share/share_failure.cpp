#include "share/share_failure.h"

#include <cmath>
#include <cstdio>

namespace plim::ShareFailure {

Error unreadable(const std::string& reason)
{
    return {"The plim could not be read: " + reason + ". Nothing was saved and your plim is untouched. "
            "Share again; if it keeps happening, record the plim again.",
        Error::Kind::unreadable};
}

Error writer(const std::string& reason, bool noSpace)
{
    return {"The file could not be written: " + reason + ". Nothing was saved and your plim is untouched. "
            + (noSpace ? "Check there is free space where it saves, then share again."
                       : "Check that the folder it saves in can be written to, then share again."),
        Error::Kind::failed};
}

Error stopped()
{
    return {"Stopped. Nothing was saved.", Error::Kind::stopped};
}

Error stalled(double stallSeconds)
{
    // Whole seconds read as such ("30"); a shortened limit keeps its fraction.
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", stallSeconds);
    return {"Sharing made no progress for " + std::string(seconds) + " seconds and was stopped. "
            "Nothing was saved and your plim is untouched. Share again; a smaller quality is faster.",
        Error::Kind::failed};
}

Error emptyEdit()
{
    return {"This edit removes the whole plim. Move the trim handles or delete a cut, then export again.",
        Error::Kind::refused};
}

namespace Reason {
std::string gifNotCreated(const std::string& path) { return "the GIF file could not be created at " + path; }
std::string cannotEncode(int width, int height)
{
    return "this computer cannot encode H.264 at " + std::to_string(width) + " × " + std::to_string(height);
}
} // namespace Reason

} // namespace plim::ShareFailure
