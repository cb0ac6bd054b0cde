#include "captions/caption_model_transport.h"

#include <cctype>
#include <cstring>
#include <curl/curl.h>
#include <mutex>
#include <optional>

namespace plim {

namespace {

struct Transfer {
    CURL* curl = nullptr;
    CaptionModelSink* sink = nullptr;
    int64_t offset = 0;
    const std::function<void(int64_t)>* progress = nullptr;
    StopToken stop;
    bool decided = false;             // the answer's status has been looked at
    std::optional<int64_t> rangeStart; // from the latest answer's Content-Range
    std::optional<CaptionTransportError> failure;
};

bool startsWithNoCase(std::string_view text, std::string_view prefix)
{
    if (text.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i])
            return false;
    return true;
}

size_t onHeader(char* data, size_t size, size_t count, void* user)
{
    auto* transfer = static_cast<Transfer*>(user);
    std::string_view line(data, size * count);
    if (startsWithNoCase(line, "http/"))
        transfer->rangeStart.reset(); // a new answer (after a redirect)
    else if (startsWithNoCase(line, "content-range:")) {
        // "Content-Range: bytes 1024-2047/4096"
        auto at = line.find_first_of("0123456789");
        if (at != std::string_view::npos)
            transfer->rangeStart = std::strtoll(std::string(line.substr(at)).c_str(), nullptr, 10);
    }
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* user)
{
    auto* transfer = static_cast<Transfer*>(user);
    if (!transfer->decided) {
        transfer->decided = true;
        long status = 0;
        curl_easy_getinfo(transfer->curl, CURLINFO_RESPONSE_CODE, &status);
        if (status == 206) {
            if (transfer->rangeStart.value_or(-1) != transfer->offset) {
                transfer->failure = CaptionTransportError{CaptionTransportError::Kind::dropped, int(status),
                    "the server sent a different part of the file than the one asked for"};
                return 0;
            }
        } else if (transfer->offset > 0) {
            // The whole file came instead of the rest of it: start the file again.
            if (auto restarted = transfer->sink->restart(); !restarted) {
                transfer->failure = CaptionTransportError{CaptionTransportError::Kind::write, 0, restarted.error().sentence};
                return 0;
            }
        }
    }
    if (auto written = transfer->sink->append(std::string_view(data, size * count)); !written) {
        transfer->failure = CaptionTransportError{CaptionTransportError::Kind::write, 0, written.error().sentence};
        return 0;
    }
    if (*transfer->progress)
        (*transfer->progress)(transfer->sink->length());
    return size * count;
}

int onTick(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    auto* transfer = static_cast<Transfer*>(user);
    if (transfer->stop.stop_requested())
        return 1;
    if (*transfer->progress)
        (*transfer->progress)(transfer->sink->length());
    return transfer->stop.stop_requested() ? 1 : 0;
}

class CurlTransport final : public CaptionModelTransport {
public:
    explicit CurlTransport(CaptionTransportLimits limits) : m_limits(limits)
    {
        static std::once_flag once;
        std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    }

    CaptionTransportResult fetch(const std::string& url, CaptionModelSink& sink,
        const std::function<void(int64_t)>& progress, StopToken stop) override
    {
        using Kind = CaptionTransportError::Kind;
        if (stop.stop_requested())
            return std::unexpected(CaptionTransportError{Kind::stopped, 0, "stopped"});
        CURL* curl = curl_easy_init();
        if (!curl)
            return std::unexpected(CaptionTransportError{Kind::unreachable, 0, "the network library could not start"});
        Transfer transfer;
        transfer.curl = curl;
        transfer.sink = &sink;
        transfer.offset = sink.length();
        transfer.progress = &progress;
        transfer.stop = stop;
        char message[CURL_ERROR_SIZE] = {};
        const std::string range = std::to_string(transfer.offset) + "-";
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 10L);
        curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_USERAGENT, "Plim");
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, message);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, m_limits.connectSeconds);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, m_limits.lowSpeedBytes);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, m_limits.lowSpeedSeconds);
        if (transfer.offset > 0)
            curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onTick);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
        const CURLcode code = curl_easy_perform(curl);
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_cleanup(curl);

        if (transfer.failure)
            return std::unexpected(*transfer.failure);
        const std::string reason = *message ? std::string(message) : std::string(curl_easy_strerror(code));
        switch (code) {
        case CURLE_OK:
            if (!transfer.decided && transfer.offset > 0 && status == 200) {
                // An empty 200 to a ranged request: the file is empty on the server.
                if (auto restarted = sink.restart(); !restarted)
                    return std::unexpected(CaptionTransportError{Kind::write, 0, restarted.error().sentence});
            }
            return {};
        case CURLE_ABORTED_BY_CALLBACK:
            return std::unexpected(CaptionTransportError{Kind::stopped, 0, "stopped"});
        case CURLE_HTTP_RETURNED_ERROR:
            return std::unexpected(CaptionTransportError{Kind::http, int(status), reason});
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT:
            return std::unexpected(CaptionTransportError{Kind::unreachable, 0, reason});
        default:
            return std::unexpected(CaptionTransportError{Kind::dropped, 0, reason});
        }
    }

private:
    CaptionTransportLimits m_limits;
};

} // namespace

std::unique_ptr<CaptionModelTransport> makeCurlCaptionTransport(CaptionTransportLimits limits)
{
    return std::make_unique<CurlTransport>(limits);
}

} // namespace plim
