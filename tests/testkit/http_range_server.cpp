#include "testkit/http_range_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace plim::testkit {

namespace {

bool sendAll(int socket, const char* data, size_t length)
{
    while (length > 0) {
        ssize_t n = ::send(socket, data, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        length -= size_t(n);
    }
    return true;
}

std::string reasonPhrase(int status)
{
    static const std::map<int, std::string> phrases{{200, "OK"}, {206, "Partial Content"}, {404, "Not Found"},
        {416, "Range Not Satisfiable"}, {503, "Service Unavailable"}};
    return phrases.contains(status) ? phrases.at(status) : "Status";
}

} // namespace

HttpRangeServer::HttpRangeServer()
{
    if (::pipe2(m_wake, O_CLOEXEC) != 0)
        return;
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {.s_addr = htonl(INADDR_LOOPBACK)}};
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 16) != 0
        || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        return;
    }
    m_listen = fd;
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this] { acceptLoop(); });
}

HttpRangeServer::~HttpRangeServer()
{
    if (m_wake[1] >= 0)
        (void)!::write(m_wake[1], "q", 1); // never read: it stays readable for every waiter
    if (m_acceptor.joinable())
        m_acceptor.join();
    for (auto& connection : m_connections)
        connection.join();
    if (m_listen >= 0)
        ::close(m_listen);
    for (int fd : m_wake)
        if (fd >= 0)
            ::close(fd);
}

std::string HttpRangeServer::baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

void HttpRangeServer::serve(const std::string& path, std::string content, Behaviour behaviour)
{
    std::lock_guard lock(m_mutex);
    m_files[path] = Entry{std::move(content), behaviour};
}

void HttpRangeServer::setBehaviour(const std::string& path, Behaviour behaviour)
{
    std::lock_guard lock(m_mutex);
    m_files[path].behaviour = behaviour;
}

std::vector<HttpRangeServer::Request> HttpRangeServer::requests() const
{
    std::lock_guard lock(m_mutex);
    return m_requests;
}

void HttpRangeServer::acceptLoop()
{
    for (;;) {
        pollfd fds[2] = {{m_listen, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        if (fds[1].revents)
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        int socket = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            continue;
        std::lock_guard lock(m_mutex);
        m_connections.emplace_back([this, socket] {
            answer(socket);
            ::close(socket);
        });
    }
}

// Waits up to `milliseconds`; false when the server is stopping or the client went away.
bool HttpRangeServer::waitWhileOpen(int socket, int milliseconds) const
{
    pollfd fds[2] = {{socket, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
    if (::poll(fds, 2, milliseconds) <= 0)
        return true;
    if (fds[1].revents)
        return false;
    char byte;
    return ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

void HttpRangeServer::answer(int socket)
{
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (!waitWhileOpen(socket, 5000))
            return;
        ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
        if (n <= 0)
            return;
        head.append(buffer, size_t(n));
    }
    Request request;
    const auto firstSpace = head.find(' ');
    const auto secondSpace = head.find(' ', firstSpace + 1);
    request.path = head.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    for (const char* header : {"\r\nRange: ", "\r\nrange: "})
        if (const size_t at = head.find(header); at != std::string::npos)
            request.range = head.substr(at + 9, head.find("\r\n", at + 9) - at - 9);

    std::optional<Entry> entry;
    bool corrupt = false, drop = false, stall = false;
    {
        std::lock_guard lock(m_mutex);
        m_requests.push_back(request);
        if (auto it = m_files.find(request.path); it != m_files.end()) {
            entry = it->second; // as it was before this answer spends its counts
            auto& behaviour = it->second.behaviour;
            corrupt = behaviour.corruptions > 0 && behaviour.corruptions-- > 0;
            drop = behaviour.dropAfter >= 0 && behaviour.drops > 0 && behaviour.drops-- > 0;
            stall = behaviour.stallAfter >= 0 && behaviour.stalls > 0 && behaviour.stalls-- > 0;
        }
    }
    const Behaviour behaviour = entry ? entry->behaviour : Behaviour{};
    auto sendHead = [&](int status, int64_t length, const std::string& extra) {
        std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) + "\r\nContent-Length: "
            + std::to_string(length) + "\r\n" + extra + "Connection: close\r\n\r\n";
        return sendAll(socket, text.data(), text.size());
    };
    if (!entry || behaviour.status) {
        const int status = entry ? behaviour.status : 404;
        const std::string body = reasonPhrase(status) + "\n";
        if (sendHead(status, int64_t(body.size()), ""))
            sendAll(socket, body.data(), body.size());
        return;
    }

    std::string content = std::move(entry->content);
    if (corrupt && !content.empty())
        content[content.size() / 2] ^= 0x5a;
    const int64_t size = int64_t(content.size());
    int64_t from = 0;
    if (request.range && !behaviour.ignoreRange && request.range->rfind("bytes=", 0) == 0)
        from = std::strtoll(request.range->c_str() + 6, nullptr, 10);
    int status = 200;
    std::string extra;
    if (from > 0 || (request.range && !behaviour.ignoreRange)) {
        if (from >= size) {
            sendHead(416, 0, "Content-Range: bytes */" + std::to_string(size) + "\r\n");
            return;
        }
        status = 206;
        extra = "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(size - 1) + "/"
            + std::to_string(size) + "\r\n";
    }
    extra += "Accept-Ranges: bytes\r\n";
    if (!sendHead(status, size - from, extra))
        return;

    int64_t limit = size - from;
    if (drop)
        limit = std::min(limit, behaviour.dropAfter);
    if (stall)
        limit = std::min(limit, behaviour.stallAfter);
    const int64_t chunk = behaviour.bytesPerSecond > 0 ? std::max<int64_t>(behaviour.bytesPerSecond / 20, 1) : 65536;
    for (int64_t sent = 0; sent < limit;) {
        const int64_t n = std::min(chunk, limit - sent);
        if (!sendAll(socket, content.data() + from + sent, size_t(n)))
            return;
        sent += n;
        if (behaviour.bytesPerSecond > 0 && !waitWhileOpen(socket, 50))
            return;
    }
    if (stall) {
        // Keep the connection open and silent until the client gives up or the server stops.
        while (waitWhileOpen(socket, 100)) {
        }
    }
}

} // namespace plim::testkit
