// The output-path rules on any name: an output that resolves to one of the plim's own files
// (through links or "..") is refused, the temporary name beside an output stays in its
// folder and fits the file system's 255 bytes, and publishing a new file never replaces one.
// The input's first line is the output's name, relative to a plim folder of the harness's own.
#include "base/files.h"
#include "fuzz/side_file.h"

#include <algorithm>
#include <map>

namespace {

using namespace plim;

[[noreturn]] void broken(const char* what, const fs::path& output)
{
    std::fprintf(stderr, "%s: %s\n", what, output.c_str());
    std::abort();
}

void writeBytes(const fs::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Every file under `dir` with its bytes, links by their targets.
std::map<fs::path, std::string> contents(const fs::path& dir)
{
    std::map<fs::path, std::string> out;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(dir, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        if (it->is_symlink())
            out[it->path()] = "-> " + fs::read_symlink(it->path(), error).string();
        else if (it->is_regular_file()) {
            std::ifstream in(it->path(), std::ios::binary);
            out[it->path()] = std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
    }
    return out;
}

bool sameFile(const fs::path& a, const fs::path& b)
{
    std::error_code error;
    const fs::path ca = fs::weakly_canonical(a, error);
    if (!error && ca == fs::weakly_canonical(b, error) && !error)
        return true;
    return fs::exists(a, error) && fs::exists(b, error) && fs::equivalent(a, b, error) && !error;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const fs::path plimDir = [] {
        const fs::path dir = plim::fuzz::folder() / "plim";
        fs::create_directories(dir / "sub");
        writeBytes(dir / "B.mov", "movie");
        writeBytes(dir / "B.edits.json", "{}");
        writeBytes(dir / "voice.wav", "voice");
        writeBytes(dir / "sub" / "Demo.mp4", "share");
        fs::create_symlink("B.mov", dir / "own.mov");
        fs::create_symlink("..", dir / "sub" / "up");
        return dir;
    }();
    const fs::path movie = plimDir / "B.mov", voice = plimDir / "voice.wav";
    const fs::path staged = sidecarPath(movie, PlimFiles::staged);

    std::string name(reinterpret_cast<const char*>(data), size);
    name = name.substr(0, name.find_first_of(std::string("\n\0", 2)));
    if (name.empty())
        return 0;
    const fs::path output = plimDir / name;

    std::vector<fs::path> own = {movie, voice};
    for (std::string_view suffix : PlimFiles::all)
        if (suffix != PlimFiles::staged)
            own.push_back(sidecarPath(movie, suffix));
    const bool onOwnFile = !sameFile(output, staged)
        && std::any_of(own.begin(), own.end(), [&](const fs::path& file) { return sameFile(output, file); });
    const Status allowed = refuseOwnFile(output, movie, {voice}, staged);
    if (onOwnFile && allowed)
        broken("an output on one of the plim's own files was allowed", output);

    const std::string leaf = output.filename().string();
    if (!leaf.empty() && leaf != "." && leaf != ".." && leaf.size() <= 255) {
        const fs::path partial = partialSibling(output);
        if (partial.parent_path() != output.parent_path() || partial.filename().string().size() > 255)
            broken("the temporary name leaves the folder or is longer than 255 bytes", output);

        // Publishing as a new file, only where the output stays inside the harness's folder.
        std::error_code error;
        const fs::path folder = fs::weakly_canonical(output.parent_path(), error);
        const fs::path root = fs::canonical(plimDir, error);
        const bool inside = !error && fs::is_directory(folder, error)
            && std::mismatch(root.begin(), root.end(), folder.begin(), folder.end()).first == root.end();
        if (allowed && inside) {
            const auto before = contents(root);
            writeBytes(partial, "published");
            auto published = publishFile(partial, output, Publish::asNewFile);
            auto after = contents(root);
            const fs::path left = fs::weakly_canonical(published ? *published : partial, error);
            if (published && (after[left] != "published" || before.count(left)))
                broken("publishing did not make a file of its own", output);
            fs::remove(left, error);
            after.erase(left);
            if (after != before)
                broken("publishing changed a file that was there", output);
        }
    }
    return 0;
}
