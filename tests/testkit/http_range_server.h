#pragma once
// A small HTTP/1.1 server on 127.0.0.1 for download tests: it serves files held in memory,
// answers "Range: bytes=N-" with 206 and the rest of the file, and on request misbehaves
// the ways real servers and networks do: it throttles, drops the connection partway,
// stalls with the connection open, sends a damaged copy, answers with an error status,
// or ignores the range and sends the whole file with 200. Each connection is answered
// once and closed. It records every request it was sent.

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace plim::testkit {

struct HttpRangeBehaviour {
    int status = 0;              // set: answer every request with this status and a short text
    bool ignoreRange = false;    // answer a ranged request with 200 and the whole file
    int64_t bytesPerSecond = 0;  // 0: as fast as the socket takes it
    int64_t dropAfter = -1;      // close after this many body bytes...
    int drops = 0;               // ...in this many answers
    int64_t stallAfter = -1;     // stop sending after this many body bytes, connection kept open...
    int stalls = 0;              // ...in this many answers
    int corruptions = 0;         // this many answers carry one byte changed
};
struct HttpRangeRequest {
    std::string path;
    std::optional<std::string> range; // the Range header's value
};

class HttpRangeServer {
public:
    using Behaviour = HttpRangeBehaviour;
    using Request = HttpRangeRequest;

    HttpRangeServer();
    ~HttpRangeServer();

    bool isUp() const { return m_listen >= 0; }
    std::string baseUrl() const; // "http://127.0.0.1:PORT"
    void serve(const std::string& path, std::string content, Behaviour behaviour = {});
    void setBehaviour(const std::string& path, Behaviour behaviour);
    std::vector<Request> requests() const;

private:
    struct Entry {
        std::string content;
        Behaviour behaviour;
    };
    void acceptLoop();
    void answer(int socket);
    bool waitWhileOpen(int socket, int milliseconds) const;

    int m_listen = -1;
    int m_port = 0;
    int m_wake[2] = {-1, -1};
    mutable std::mutex m_mutex;
    std::map<std::string, Entry> m_files;
    std::vector<Request> m_requests;
    std::vector<std::thread> m_connections;
    std::thread m_acceptor;
};

} // namespace plim::testkit
