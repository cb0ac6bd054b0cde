// Every #include in the tree follows the data path: base and media at the bottom, then
// capture, plan, library, captions, stage, share, live; suite beside them; app on top. A folder's top-level
// headers are its public surface; files in its subfolders (capture/x11/) are its own. A
// header includes what it uses, never another folder's umbrella (capture/capture.h). Tests
// of a folder may use its private files. Qt belongs to the desktop interface alone: a
// headless build links no Qt at all.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// What each folder under src/ may include besides itself.
const std::map<std::string, std::set<std::string>> allowed = {
    {"base", {}},
    {"media", {"base"}},
    {"capture", {"base", "media"}},
    {"plan", {"base", "media", "capture"}},
    {"library", {"base", "media", "capture", "plan"}},
    {"captions", {"base", "media", "capture", "plan", "library"}},
    {"stage", {"base", "media", "capture", "plan", "library", "captions"}},
    {"share", {"base", "media", "capture", "plan", "library", "captions", "stage"}},
    {"live", {"base", "media", "capture", "plan", "library", "captions", "stage", "share"}},
    {"suite", {"base", "media"}},
    {"app", {"base", "media", "capture", "plan", "library", "captions", "stage", "share", "live", "suite"}},
    {"ui", {"base", "media", "capture", "plan", "library", "captions", "stage", "share", "live", "suite", "app"}},
};

// Why `target` ("plan/edit_plan.h") may not be included from a file whose own folder is
// `from` (a src/ folder, or "tests/<folder>", "bench", "fuzz") and that is a header when
// `fromHeader`; empty when it may.
std::string problem(const std::string& from, const std::string& target, bool fromHeader)
{
    auto slash = target.find('/');
    if (slash == std::string::npos)
        return {};
    std::string folder = target.substr(0, slash);
    if (!allowed.contains(folder))
        return {}; // not one of ours (testkit/, testing/ helpers are checked by the build)
    std::string own = from;
    bool outside = from.starts_with("tests/") || from == "bench" || from == "fuzz";
    if (from.starts_with("tests/"))
        own = from.substr(6);
    if (own == folder)
        return {};
    if (!outside) {
        auto rule = allowed.find(own);
        if (rule == allowed.end())
            return "the folder " + own + " has no place in the data path";
        if (!rule->second.contains(folder))
            return own + "/ may not use " + folder + "/, which lies after it on the data path";
    }
    if (target.find('/', slash + 1) != std::string::npos)
        return target + " is private to " + folder + "/; include one of its top-level headers";
    if (fromHeader && target == folder + "/" + folder + ".h")
        return "a header includes the headers it uses, not " + target;
    return {};
}

std::vector<std::string> violations(const fs::path& root)
{
    static const std::regex include(R"re(^\s*#\s*include\s*"([^"]+)")re");
    static const std::regex qtInclude(R"re(^\s*#\s*include\s*<Q[A-Za-z]*(/|>))re");
    std::vector<std::string> found;
    for (const char* top : {"src", "tests", "bench", "fuzz"}) {
        if (!fs::exists(root / top))
            continue;
        for (const auto& entry : fs::recursive_directory_iterator(root / top)) {
            auto ext = entry.path().extension();
            if (!entry.is_regular_file() || (ext != ".h" && ext != ".cpp"))
                continue;
            fs::path relative = fs::relative(entry.path(), root);
            auto parts = std::vector<std::string>(relative.begin(), relative.end());
            std::string from = parts[0] == "src" ? parts[1] : parts[0] == "tests" ? "tests/" + parts[1] : parts[0];
            std::ifstream in(entry.path());
            std::string line;
            for (int number = 1; std::getline(in, line); ++number) {
                const std::string at = relative.string() + ":" + std::to_string(number) + ": ";
                if (parts[0] == "src" && from != "ui" && std::regex_search(line, qtInclude))
                    found.push_back(at + "Qt belongs to ui/ alone");
                std::smatch match;
                if (!std::regex_search(line, match, include))
                    continue;
                std::string target = match[1];
                if (!fs::exists(root / "src" / target))
                    continue; // a test helper under tests/, or a system header
                if (std::string why = problem(from, target, ext == ".h"); !why.empty())
                    found.push_back(at + why);
            }
        }
    }
    return found;
}

} // namespace

TEST(IncludeDirection, RulesFollowTheDataPath)
{
    struct Case {
        std::string from, target;
        bool header, ok;
    };
    for (const Case& k : std::vector<Case>{
             {"plan", "capture/capture.h", false, true},
             {"plan", "capture/capture.h", true, false},
             {"plan", "capture/cursor_track.h", true, true},
             {"app", "capture/x11/x11_connection.h", false, false},
             {"tests/capture", "capture/x11/x11_input.h", false, true},
             {"capture", "capture/x11/x11_input.h", false, true},
             {"stage", "stage/stage.h", true, true},
             {"capture", "plan/plan.h", false, false},
             {"library", "stage/stage.h", false, false},
             {"stage", "library/library.h", false, true},
             {"suite", "capture/capture.h", false, false},
             {"suite", "base/json.h", true, true},
             {"base", "media/media.h", false, false},
             {"app", "suite/beacon.h", true, true},
             {"tests/base", "app/app.h", false, true},
             {"bench", "stage/stage.h", false, true},
             {"fuzz", "capture/x11/desktop_x11.h", false, false},
             {"mystery", "base/error.h", false, false},
             {"app", "testkit/testkit.h", true, true},
             {"ui", "app/startup.h", true, true},
             {"app", "ui/ui.h", false, false},
         })
        EXPECT_EQ(problem(k.from, k.target, k.header).empty(), k.ok) << k.from << " -> " << k.target;
}

TEST(IncludeDirection, TheTreeKeepsTheRules)
{
    auto found = violations(PLIM_SOURCE_DIR);
    std::string listed;
    for (const auto& v : found)
        listed += v + "\n";
    EXPECT_TRUE(found.empty()) << listed;
}
