#include "share/clipboard.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

namespace plim {

std::string clipboardTypeOf(const std::filesystem::path& file)
{
    static const std::map<std::string, std::string> types = {{".gif", "image/gif"}, {".mp4", "video/mp4"},
        {".mov", "video/quicktime"}, {".png", "image/png"}, {".webm", "video/webm"}};
    std::string extension = file.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
        [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto found = types.find(extension);
    return found == types.end() ? std::string() : found->second;
}

std::string fileURI(const std::filesystem::path& absolutePath)
{
    std::string uri = "file://";
    for (unsigned char c : absolutePath.string()) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            uri += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            uri += hex;
        }
    }
    return uri;
}

} // namespace plim
