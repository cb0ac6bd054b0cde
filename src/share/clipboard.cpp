#include "share/clipboard.h"

#include "base/text.h"

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

std::string fileURI(const std::filesystem::path& absolutePath) { return "file://" + percentEncoded(absolutePath.string()); }

} // namespace plim
