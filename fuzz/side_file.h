#pragma once
// Shared by the fuzz harnesses: the input becomes a side file beside a movie in a
// folder of this process's own; the reader runs on it, and the file must come out
// byte for byte as it went in (readers never change what they read).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace plim::fuzz {

namespace fs = std::filesystem;

inline const fs::path& folder()
{
    // Removed with everything in it when the process ends normally.
    struct Owned {
        fs::path path;
        ~Owned()
        {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    };
    static const Owned dir{[] {
        fs::path d = fs::temp_directory_path() / ("plim-fuzz-" + std::to_string(::getpid()));
        fs::create_directories(d);
        return d;
    }()};
    return dir.path;
}

// Writes the input to folder()/B.<suffix>, calls read(movie, file), then checks the file.
template<typename Read>
void withSideFile(const uint8_t* data, size_t size, const std::string& suffix, Read read)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const fs::path movie = folder() / "B.mov";
    const fs::path file = folder() / ("B." + suffix);
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    read(movie, file);
    std::ifstream in(file, std::ios::binary);
    std::string after((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (after != bytes) {
        std::fprintf(stderr, "the reader changed %s\n", file.c_str());
        std::abort();
    }
}

} // namespace plim::fuzz
