#pragma once
// What the model download shows and logs: its rate, the time left, the sizes, and the
// sentence and log line of each way it can stop.

#include <cstdint>
#include <optional>
#include <string>

namespace plim {

// A smoothed transfer rate. Samples closer than half a second to the previous one change
// nothing; after that the rate is the first instantaneous rate, then 0.3 of each new one
// plus 0.7 of the rate before.
class RateMeter {
public:
    // `bytes` so far at `seconds` (any steady clock); returns the rate in bytes per second.
    std::optional<double> sample(int64_t bytes, double seconds);
    std::optional<double> rate() const { return m_rate; }
    // Forgets the last sample (a new transfer starts) but keeps the rate.
    void restart() { m_last.reset(); }

private:
    struct Sample {
        int64_t bytes;
        double seconds;
    };
    std::optional<Sample> m_last;
    std::optional<double> m_rate;
};

namespace CaptionModelText {
// "about 15 s left", "about 2 min left", "over an hour left"; nothing when the rate is
// unknown, not above 1 byte a second, or nothing remains.
std::optional<std::string> remaining(int64_t bytes, std::optional<double> bytesPerSecond);
// "840 KB", "145 MB", "1.4 GB" (decimal units, as file managers show them).
std::string size(int64_t bytes);
// "2.1 MB/s".
std::string rate(double bytesPerSecond);

// The settings pane's line before, during and after the download, and while preparing.
inline constexpr const char* beforeDownload =
    "More accurate captions in about 100 languages, made on this computer. Until you download it, captions use the built-in recognizer.";
inline constexpr const char* duringDownload =
    "Captions use the built-in recognizer until the download is done. You can keep working.";
inline constexpr const char* downloaded = "Downloaded. Captions are made by Whisper on this computer.";
inline constexpr const char* preparing =
    "Getting the model ready for this computer. This happens once and can take a few minutes.";
inline constexpr const char* pausedTail =
    ". Resume picks up where it stopped. Captions use the built-in recognizer until it is done.";
} // namespace CaptionModelText

// Why a download stopped short of a ready model.
struct CaptionModelFailure {
    enum class Kind { cannotWrite, damagedTwice, serverRefused, offline, noSpace, wontLoad };
    Kind kind = Kind::offline;
    std::string reason;   // the system's or the server's words, for the brackets
    int status = 0;       // serverRefused: the HTTP status
    int64_t needed = 0;   // noSpace
    int64_t available = 0;

    // The whole sentence the person reads.
    std::string message() const;
    // The log line without its "Plim captions: " prefix.
    std::string logMessage() const;
};

} // namespace plim
