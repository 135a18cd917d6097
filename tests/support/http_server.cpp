#include "http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace TarnwickTest {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    const size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

const char* reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 404:
            return "Not Found";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

// One accepted connection, plain or TLS, whose reads give up when the
// server stops.
class Connection {
public:
    Connection(int fd, SSL_CTX* tls, const bool& stopping, std::mutex& mutex)
        : m_fd(fd), m_ssl(nullptr), m_stopping(stopping), m_mutex(mutex) {
        if (tls != nullptr) {
            m_ssl = SSL_new(tls);
            SSL_set_fd(m_ssl, fd);
        }
    }
    ~Connection() {
        if (m_ssl != nullptr)
            SSL_free(m_ssl);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool handshake() {
        if (m_ssl == nullptr)
            return true;
        for (;;) {
            if (!readable())
                return false;
            const int result = SSL_accept(m_ssl);
            if (result == 1)
                return true;
            const int error = SSL_get_error(m_ssl, result);
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
                return false;
        }
    }

    // Some bytes, or -1 at the end, on an error or when the server stops.
    long read(char* buffer, size_t size) {
        if (m_ssl != nullptr && SSL_pending(m_ssl) > 0)
            return SSL_read(m_ssl, buffer, static_cast<int>(size));
        if (!readable())
            return -1;
        const long got = m_ssl != nullptr ? SSL_read(m_ssl, buffer, static_cast<int>(size))
                                          : ::recv(m_fd, buffer, size, 0);
        return got > 0 ? got : -1;
    }

    bool writeAll(const char* data, size_t size) {
        while (size > 0) {
            const long put = m_ssl != nullptr ? SSL_write(m_ssl, data, static_cast<int>(size))
                                              : ::send(m_fd, data, size, MSG_NOSIGNAL);
            if (put <= 0)
                return false;
            data += put;
            size -= static_cast<size_t>(put);
        }
        return true;
    }

    void closeTls() {
        if (m_ssl != nullptr)
            SSL_shutdown(m_ssl);
    }

private:
    bool stopping() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stopping;
    }
    bool readable() {
        for (;;) {
            if (stopping())
                return false;
            pollfd entry{m_fd, POLLIN, 0};
            const int ready = ::poll(&entry, 1, 50);
            if (ready > 0)
                return true;
            if (ready < 0 && errno != EINTR)
                return false;
        }
    }

    int m_fd;
    SSL* m_ssl;
    const bool& m_stopping;
    std::mutex& m_mutex;
};

// The fields of a multipart/form-data body with the boundary of its
// Content-Type header.
std::vector<std::pair<std::string, std::string>> formFields(const std::string& contentType,
                                                            const std::string& body) {
    std::vector<std::pair<std::string, std::string>> fields;
    const size_t at = contentType.find("boundary=");
    if (lower(contentType).find("multipart/form-data") == std::string::npos ||
        at == std::string::npos)
        return fields;
    std::string boundary = contentType.substr(at + 9);
    if (!boundary.empty() && boundary[0] == '"')
        boundary = boundary.substr(1, boundary.find('"', 1) - 1);
    const std::string delimiter = "--" + boundary;
    size_t position = body.find(delimiter);
    while (position != std::string::npos) {
        position += delimiter.size();
        if (body.compare(position, 2, "--") == 0)
            break;
        position += 2;  // CR LF
        const size_t headersEnd = body.find("\r\n\r\n", position);
        if (headersEnd == std::string::npos)
            break;
        const std::string headers = body.substr(position, headersEnd - position);
        const size_t next = body.find("\r\n" + delimiter, headersEnd + 4);
        if (next == std::string::npos)
            break;
        std::string name;
        const size_t nameAt = headers.find("name=\"");
        if (nameAt != std::string::npos)
            name = headers.substr(nameAt + 6, headers.find('"', nameAt + 6) - nameAt - 6);
        fields.emplace_back(name, body.substr(headersEnd + 4, next - headersEnd - 4));
        position = next + 2;
    }
    return fields;
}

}  // namespace

HttpServer::HttpServer() : m_tls(nullptr), m_listen(-1), m_port(0), m_stopping(false) {}

HttpServer::HttpServer(const std::string& certificate, const std::string& key) : HttpServer() {
    m_certificate = certificate;
    m_key = key;
}

HttpServer::~HttpServer() {
    stop();
    if (m_tls != nullptr)
        SSL_CTX_free(static_cast<SSL_CTX*>(m_tls));
}

bool HttpServer::start() {
    if (!m_certificate.empty()) {
        SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
        if (context == nullptr)
            return false;
        m_tls = context;
        if (SSL_CTX_use_certificate_file(context, m_certificate.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_use_PrivateKey_file(context, m_key.c_str(), SSL_FILETYPE_PEM) != 1)
            return false;
    }
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listen < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listen, 64) != 0 ||
        ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(m_listen);
        m_listen = -1;
        return false;
    }
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this]() { acceptLoop(); });
    return true;
}

void HttpServer::stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    if (m_acceptor.joinable())
        m_acceptor.join();
    for (std::thread& worker : m_workers)
        worker.join();
    m_workers.clear();
    if (m_listen >= 0) {
        ::close(m_listen);
        m_listen = -1;
    }
}

std::string HttpServer::url(const std::string& path) const {
    return std::string(m_tls != nullptr ? "https" : "http") +
           "://127.0.0.1:" + std::to_string(m_port) + path;
}

void HttpServer::script(const std::vector<HttpReply>& replies) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_script.assign(replies.begin(), replies.end());
}

std::vector<HttpRequest> HttpServer::requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

bool HttpServer::waitForRequests(size_t count, int ms) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(ms),
                              [&]() { return m_requests.size() >= count; });
}

HttpReply HttpServer::nextReply() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_script.empty())
        return HttpReply::ok("");
    HttpReply reply = m_script.front();
    if (m_script.size() > 1)
        m_script.pop_front();
    return reply;
}

void HttpServer::record(const HttpRequest& request) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(request);
    }
    m_changed.notify_all();
}

void HttpServer::acceptLoop() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
                return;
        }
        pollfd entry{m_listen, POLLIN, 0};
        if (::poll(&entry, 1, 50) <= 0)
            continue;
        const int fd = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        m_workers.emplace_back([this, fd]() { serve(fd); });
    }
}

void HttpServer::serve(int fd) {
    Connection connection(fd, static_cast<SSL_CTX*>(m_tls), m_stopping, m_mutex);
    if (!connection.handshake()) {
        ::close(fd);
        return;
    }
    std::string data;
    char buffer[65536];
    size_t headerEnd;
    while ((headerEnd = data.find("\r\n\r\n")) == std::string::npos) {
        const long got = connection.read(buffer, sizeof buffer);
        if (got < 0) {
            ::close(fd);
            return;
        }
        data.append(buffer, static_cast<size_t>(got));
    }
    HttpRequest request;
    const std::string head = data.substr(0, headerEnd);
    data.erase(0, headerEnd + 4);
    size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const size_t space = requestLine.find(' ');
    request.method = requestLine.substr(0, space);
    request.path = requestLine.substr(space + 1, requestLine.rfind(' ') - space - 1);
    while (lineEnd != std::string::npos) {
        const size_t start = lineEnd + 2;
        lineEnd = head.find("\r\n", start);
        const std::string line =
            head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
        const size_t colon = line.find(':');
        if (colon != std::string::npos)
            request.headers[lower(line.substr(0, colon))] = trim(line.substr(colon + 1));
    }
    if (lower(request.headers["expect"]) == "100-continue")
        connection.writeAll("HTTP/1.1 100 Continue\r\n\r\n", 25);
    const size_t length = std::strtoull(request.headers["content-length"].c_str(), nullptr, 10);
    while (data.size() < length) {
        const long got = connection.read(buffer, sizeof buffer);
        if (got < 0)
            break;
        data.append(buffer, static_cast<size_t>(got));
    }
    request.body = data.substr(0, length);
    request.fields = formFields(request.headers["content-type"], request.body);
    request.arrived = std::chrono::steady_clock::now();
    const HttpReply reply = nextReply();
    record(request);

    if (reply.kind == HttpReply::DELAY) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(reply.delay_ms),
                           [this]() { return m_stopping; });
    }
    switch (reply.kind) {
        case HttpReply::NORMAL:
        case HttpReply::DELAY: {
            const std::string answer =
                "HTTP/1.1 " + std::to_string(reply.status) + " " + reason(reply.status) +
                "\r\nContent-Type: text/plain; charset=utf-8\r\n"
                "Content-Length: " +
                std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n" + reply.body;
            connection.writeAll(answer.data(), answer.size());
            connection.closeTls();
            break;
        }
        case HttpReply::STALL: {
            const std::string answer =
                "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\nConnection: close\r\n\r\n" +
                reply.body;
            connection.writeAll(answer.data(), answer.size());
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this]() { return m_stopping; });
            break;
        }
        case HttpReply::RESET: {
            linger hard{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            break;
        }
        case HttpReply::LARGE: {
            const std::string answer =
                "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(reply.size) +
                "\r\nConnection: close\r\n\r\n";
            if (!connection.writeAll(answer.data(), answer.size()))
                break;
            const std::string chunk(1 << 20, 'x');
            for (size_t left = reply.size; left > 0;) {
                const size_t piece = std::min(left, chunk.size());
                if (!connection.writeAll(chunk.data(), piece))
                    break;
                left -= piece;
            }
            connection.closeTls();
            break;
        }
    }
    ::close(fd);
}

bool makeSelfSignedCertificate(const std::string& dir) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout '" +
        dir + "/server.key' -out '" + dir +
        "/server.cert' -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 "
        ">/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

}  // namespace TarnwickTest
