#pragma once
// Fetching one model file, resumed from what is already on disk. The transport appends the
// body to a CaptionModelSink (the partial file); the real one is libcurl
// (caption_model_transport_curl.cpp), the sink a plain file (caption_model_file_sink.cpp).
//
// Threads: fetch() runs on the caller's thread and calls `progress` and the sink there. It
// returns when the body ended, failed, or `stop` was requested (seen within a second, also
// while the connection is stalled).

#include "base/error.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace plim {

namespace fs = std::filesystem;

// Where a fetched body goes. Errors carry the system's reason ("No space left on device").
class CaptionModelSink {
public:
    virtual ~CaptionModelSink() = default;
    virtual int64_t length() const = 0;
    virtual Status append(std::string_view bytes) = 0;
    // Empties the file: the server sent the whole file rather than the rest of it.
    virtual Status restart() = 0;
};

// Opens (creating) the partial file at `path` for appending.
Result<std::unique_ptr<CaptionModelSink>> openCaptionModelFile(const fs::path& path);
using CaptionModelSinkOpener = std::function<Result<std::unique_ptr<CaptionModelSink>>(const fs::path&)>;

struct CaptionTransportError {
    enum class Kind {
        http,        // the server answered with an error status
        write,       // the sink refused the bytes
        dropped,     // the connection broke, stalled or ended early
        unreachable, // no connection could be made
        stopped,     // the caller asked to stop
    };
    Kind kind = Kind::dropped;
    int status = 0;
    std::string reason;
};
using CaptionTransportResult = std::expected<void, CaptionTransportError>;

struct CaptionTransportLimits {
    long connectSeconds = 30;
    // A connection slower than this many bytes a second for this long counts as dropped.
    long lowSpeedBytes = 1024;
    long lowSpeedSeconds = 30;
};

class CaptionModelTransport {
public:
    virtual ~CaptionModelTransport() = default;
    // Fetches `url` from byte sink.length() on, appending to the sink. A ranged request is a
    // resume only when the server answers 206 from that very byte; a 200 restarts the
    // file. `progress` gets the sink's length after each block and about once a second.
    virtual CaptionTransportResult fetch(const std::string& url, CaptionModelSink& sink,
        const std::function<void(int64_t)>& progress, StopToken stop) = 0;
};

std::unique_ptr<CaptionModelTransport> makeCurlCaptionTransport(CaptionTransportLimits limits = {});

} // namespace plim
