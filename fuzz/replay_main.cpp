// Without libFuzzer, a harness is a program that feeds it every file under the folders
// it is given: the seeds run as a test, under whatever sanitizers the build has. With
// `--mutate SECONDS` it then keeps feeding it mutants of the seeds for that long (random
// byte edits, JSON tokens, splices, and numbers and names at the edge put in place of a
// JSON value; no coverage guidance), so CI fuzzes every reader a
// little on every run. `--seed N` repeats a run. An input that brings the program down is
// written to crash-<harness>-<seed> in the working folder first.
//
//   <harness> [--mutate SECONDS] [--seed N] FOLDER...

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define PLIM_HAVE_SANITIZER_CALLBACK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PLIM_HAVE_SANITIZER_CALLBACK 1
#endif
#endif
#ifdef PLIM_HAVE_SANITIZER_CALLBACK
#include <sanitizer/common_interface_defs.h>
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

// What is being fed now, and where it goes if the program dies on it.
const std::string* current = nullptr;
char crashPath[512] = "";

void saveCurrent()
{
    if (!current || !crashPath[0])
        return;
    FILE* out = std::fopen(crashPath, "wb");
    if (!out)
        return;
    std::fwrite(current->data(), 1, current->size(), out);
    std::fclose(out);
    std::fprintf(stderr, "the input that brought the harness down is in %s\n", crashPath);
    current = nullptr;
}

extern "C" void onFatalSignal(int signal)
{
    saveCurrent();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void feed(const std::string& bytes)
{
    current = &bytes;
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    current = nullptr;
}

// Pieces of JSON and text that readers treat specially, for insertion.
constexpr std::string_view tokens[] = {"{", "}", "[", "]", "\"", ":", ",", "null", "true", "false", "-0", "1e999",
    "-1e-400", "18446744073709551616", "9223372036854775807", "0.1", "\\u0000", "\\ud800", "\xc3\xa9", "\xff", "\n",
    "\t", "\"version\"", "\"t\"", "\"x\"", "\"samples\"", "2038-01-19T03:14:08Z", "9999-12-31T23:59:60.999Z"};

// Values at the edge that stay valid JSON: numbers no reader should trust, and names no
// reader knows.
constexpr std::string_view extremeNumbers[] = {"1e308", "-1e308", "1e-300", "1e-9", "0", "-1", "1e9", "100000",
    "4294967296", "-2147483649", "0.5"};
constexpr std::string_view unknownNames[] = {"\"wipe\"", "\"\"", "\"Ring\"", "\"\u00e9\"", "\"image:\"",
    "\"#zzzzzz\"", "\"#12\""};

// Start and length of each number and each string after a colon, found outside strings.
struct Tokens {
    std::vector<std::pair<size_t, size_t>> numbers;
    std::vector<std::pair<size_t, size_t>> values;
};

Tokens scan(const std::string& s)
{
    Tokens found;
    char before = 0; // the last structural character outside strings
    for (size_t i = 0; i < s.size();) {
        const char c = s[i];
        if (c == '"') {
            size_t end = i + 1;
            while (end < s.size() && s[end] != '"')
                end += s[end] == '\\' ? 2 : 1;
            end = std::min(end + 1, s.size());
            if (before == ':')
                found.values.push_back({i, end - i});
            before = 0;
            i = end;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            size_t end = i + 1;
            while (end < s.size() && std::string_view("0123456789.eE+-").find(s[end]) != std::string_view::npos)
                ++end;
            found.numbers.push_back({i, end - i});
            i = end;
        } else {
            if (c == ':' || c == ',' || c == '[' || c == '{')
                before = c;
            ++i;
        }
    }
    return found;
}

// One number or one string value of a JSON text replaced by a value at the edge.
void replaceValue(std::string& s, std::mt19937_64& random)
{
    const Tokens found = scan(s);
    const bool number = found.values.empty() || (!found.numbers.empty() && random() % 2 == 0);
    const auto& spots = number ? found.numbers : found.values;
    if (spots.empty())
        return;
    const auto [at, length] = spots[random() % spots.size()];
    s.replace(at, length,
        number ? extremeNumbers[random() % std::size(extremeNumbers)] : unknownNames[random() % std::size(unknownNames)]);
}

std::string mutant(const std::vector<std::string>& pool, std::mt19937_64& random)
{
    std::string s = pool[random() % pool.size()];
    const int edits = 1 + static_cast<int>(random() % 8);
    for (int e = 0; e < edits; ++e) {
        const size_t at = s.empty() ? 0 : random() % (s.size() + 1);
        switch (random() % 9) {
        case 7: // a value at the edge, keeping the text valid JSON
        case 8:
            replaceValue(s, random);
            break;
        case 0: // change a byte
            if (!s.empty())
                s[at % s.size()] = static_cast<char>(random());
            break;
        case 1: // flip a bit
            if (!s.empty())
                s[at % s.size()] ^= static_cast<char>(1u << (random() % 8));
            break;
        case 2: // insert a token
            s.insert(at, tokens[random() % std::size(tokens)]);
            break;
        case 3: { // delete a run
            size_t length = std::min(s.size() - std::min(at, s.size()), static_cast<size_t>(random() % 64));
            s.erase(std::min(at, s.size()), length);
            break;
        }
        case 4: { // repeat a run
            size_t length = std::min(s.size() - std::min(at, s.size()), static_cast<size_t>(random() % 256));
            s.insert(at, s.substr(std::min(at, s.size()), length));
            break;
        }
        case 5: // cut the end off
            s.resize(at);
            break;
        default: { // splice in a piece of another input
            const std::string& other = pool[random() % pool.size()];
            if (!other.empty()) {
                size_t from = random() % other.size();
                s.insert(at, other.substr(from, random() % 512));
            }
            break;
        }
        }
    }
    if (s.size() > 65536)
        s.resize(65536);
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 0;
    uint64_t seed = std::random_device{}();
    std::vector<std::string> pool;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--mutate" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
            continue;
        }
        if (arg == "--seed" && i + 1 < argc) {
            seed = std::strtoull(argv[++i], nullptr, 10);
            continue;
        }
        for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file())
                continue;
            std::ifstream in(entry.path(), std::ios::binary);
            pool.emplace_back((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        }
    }
    std::snprintf(crashPath, sizeof crashPath, "%s/crash-%s-%llu", fs::current_path().c_str(),
        fs::path(argv[0]).filename().c_str(), static_cast<unsigned long long>(seed));
#ifdef PLIM_HAVE_SANITIZER_CALLBACK
    __sanitizer_set_death_callback(saveCurrent);
#endif
    for (int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL})
        std::signal(signal, onFatalSignal);

    for (const std::string& bytes : pool)
        feed(bytes);
    std::printf("replayed %zu inputs\n", pool.size());
    if (pool.empty())
        return 1;

    if (seconds > 0) {
        std::mt19937_64 random(seed);
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        const size_t seeds = pool.size();
        long runs = 0;
        while (std::chrono::steady_clock::now() < end) {
            std::string input = mutant(pool, random);
            feed(input);
            ++runs;
            // Mutants that ran become material too, so edits pile up over the run.
            if (pool.size() < seeds + 256)
                pool.push_back(std::move(input));
            else
                pool[seeds + random() % 256] = std::move(input);
        }
        std::printf("fed %ld mutants in %.0f s (--seed %llu repeats them)\n", runs, seconds,
            static_cast<unsigned long long>(seed));
    }
    return 0;
}
