#include "s3_server.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <sstream>

namespace TarnwickTest {

namespace {

std::string hex(const unsigned char* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

std::string sha256Hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr);
    return hex(digest, size);
}

std::string hmac(const std::string& key, const std::string& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &size);
    return std::string(reinterpret_cast<char*>(out), size);
}

std::string urlDecode(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string xmlEscape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

std::string trim(const std::string& text) {
    size_t const b = text.find_first_not_of(" \t");
    size_t const e = text.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : text.substr(b, e - b + 1);
}

bool sendAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t const n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string reply(int status, const std::string& body, bool head = false, size_t length = 0) {
    const char* const reason = status == 200   ? "OK"
                               : status == 403 ? "Forbidden"
                               : status == 404 ? "Not Found"
                                               : "Error";
    std::ostringstream out;
    out << "HTTP/1.1 " << status << " " << reason
        << "\r\nContent-Length: " << (head ? length : body.size())
        << "\r\nContent-Type: application/xml\r\n\r\n";
    if (!head)
        out << body;
    return out.str();
}

}  // namespace

S3Server::S3Server(const std::string& bucket, const std::string& access, const std::string& secret,
                   const std::string& tlsDir)
    : m_bucket(bucket),
      m_access(access),
      m_secret(secret),
      m_listen(-1),
      m_port(0),
      m_stopping(false),
      m_down(false),
      m_stopAfter(-1),
      m_received(0),
      m_refused(0),
      m_handshakesRefused(0),
      m_tls(nullptr),
      m_failCount(0),
      m_failStatus(0) {
    if (!tlsDir.empty()) {
        SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
        if (context == nullptr ||
            SSL_CTX_use_certificate_file(context, (tlsDir + "/server.cert").c_str(),
                                         SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_use_PrivateKey_file(context, (tlsDir + "/server.key").c_str(),
                                        SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_load_verify_locations(context, (tlsDir + "/ca.cert").c_str(), nullptr) != 1) {
            SSL_CTX_free(context);
            return;
        }
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        m_tls = context;
        // SSL_write to a client that went away must not end the test process.
        ::signal(SIGPIPE, SIG_IGN);
    }
    if (listen(0))
        m_acceptor = std::thread(&S3Server::acceptLoop, this);
}

bool S3Server::listen(int port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int const on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof address;
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_listen = fd;
    m_port = ntohs(address.sin_port);
    return true;
}

void S3Server::stopAfterPuts(int count) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_stopAfter = count;
}

bool S3Server::restart() {
    // The accepting thread closes the listening socket once it sees the stop.
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_listen < 0)
                break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!listen(m_port))
        return false;
    m_down = false;
    return true;
}

S3Server::~S3Server() {
    m_stopping = true;
    if (m_acceptor.joinable())
        m_acceptor.join();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (int fd : m_clients)
            ::shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& thread : m_threads)
        thread.join();
    for (int fd : m_clients)
        ::close(fd);
    if (m_listen >= 0)
        ::close(m_listen);
    SSL_CTX_free(static_cast<SSL_CTX*>(m_tls));
}

std::string S3Server::endpoint() const {
    return m_port == 0 ? std::string()
                       : (m_tls != nullptr ? "https" : "http") + std::string("://127.0.0.1:") +
                             std::to_string(m_port);
}

void S3Server::failPuts(int count, int status) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_failCount = count;
    m_failStatus = status;
}

size_t S3Server::objectCount(const std::string& prefix) const {
    std::lock_guard<std::mutex> guard(m_lock);
    size_t count = 0;
    for (const auto& object : m_objects)
        count += object.first.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    return count;
}

void S3Server::acceptLoop() {
    while (!m_stopping) {
        int listening;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_down && m_listen >= 0) {
                ::close(m_listen);
                m_listen = -1;
            }
            listening = m_listen;
        }
        if (listening < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        pollfd waiting{listening, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0)
            continue;
        int const fd = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_down) {
            ::close(fd);
            continue;
        }
        m_clients.push_back(fd);
        m_threads.emplace_back(&S3Server::serve, this, fd);
    }
}

bool S3Server::signatureValid(const std::string& method, const std::string& target,
                              const std::map<std::string, std::string>& headers,
                              const std::string& body) const {
    auto const found = headers.find("authorization");
    auto const date = headers.find("x-amz-date");
    if (found == headers.end() || date == headers.end())
        return false;
    std::string const& text = found->second;
    std::string const prefix = "AWS4-HMAC-SHA256 Credential=" + m_access + "/";
    size_t const signedAt = text.find("SignedHeaders=");
    size_t const signatureAt = text.find("Signature=");
    if (text.compare(0, prefix.size(), prefix) != 0 || signedAt == std::string::npos ||
        signatureAt == std::string::npos)
        return false;
    std::string const scope =
        text.substr(prefix.size(), text.find(',', prefix.size()) - prefix.size());
    std::string const signedHeaders =
        text.substr(signedAt + 14, text.find(',', signedAt) - signedAt - 14);
    std::string const signature = trim(text.substr(signatureAt + 10));
    // The canonical request.
    size_t const question = target.find('?');
    std::string const path = target.substr(0, question);
    std::vector<std::string> parameters;
    if (question != std::string::npos) {
        std::string query = target.substr(question + 1);
        std::istringstream parts(query);
        std::string part;
        while (std::getline(parts, part, '&'))
            parameters.push_back(part.find('=') == std::string::npos ? part + "=" : part);
        std::sort(parameters.begin(), parameters.end());
    }
    std::string canonicalQuery;
    for (const std::string& parameter : parameters)
        canonicalQuery += (canonicalQuery.empty() ? "" : "&") + parameter;
    std::string canonicalHeaders;
    std::istringstream names(signedHeaders);
    std::string name;
    while (std::getline(names, name, ';')) {
        auto const header = headers.find(name);
        if (header == headers.end())
            return false;
        canonicalHeaders += name + ":" + trim(header->second) + "\n";
    }
    auto const payload = headers.find("x-amz-content-sha256");
    std::string const payloadHash = payload != headers.end() ? payload->second : sha256Hex(body);
    if (payload != headers.end() && payload->second != "UNSIGNED-PAYLOAD" &&
        payload->second != sha256Hex(body))
        return false;
    std::string const canonical = method + "\n" + path + "\n" + canonicalQuery + "\n" +
                                  canonicalHeaders + "\n" + signedHeaders + "\n" + payloadHash;
    std::string const toSign =
        "AWS4-HMAC-SHA256\n" + date->second + "\n" + scope + "\n" + sha256Hex(canonical);
    std::vector<std::string> parts;
    std::istringstream scopeParts(scope);
    std::string part;
    while (std::getline(scopeParts, part, '/'))
        parts.push_back(part);
    if (parts.size() != 4)
        return false;
    std::string key = hmac("AWS4" + m_secret, parts[0]);
    key = hmac(key, parts[1]);
    key = hmac(key, parts[2]);
    key = hmac(key, parts[3]);
    std::string const expected = hmac(key, toSign);
    return hex(reinterpret_cast<const unsigned char*>(expected.data()), expected.size()) ==
           signature;
}

void S3Server::serve(int fd) {
    // Whatever ends the exchange ends the connection; the descriptor is
    // closed by the destructor, so that it can't be reused meanwhile.
    struct Ender {
        int fd;
        ~Ender() { ::shutdown(fd, SHUT_RDWR); }
    } ender{fd};
    std::unique_ptr<SSL, void (*)(SSL*)> ssl(nullptr, SSL_free);
    if (m_tls != nullptr) {
        ssl.reset(SSL_new(static_cast<SSL_CTX*>(m_tls)));
        if (!ssl || SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1) {
            ++m_handshakesRefused;
            return;
        }
    }
    auto receive = [&ssl, fd](char* data, size_t size) -> ssize_t {
        if (!ssl)
            return ::recv(fd, data, size, 0);
        int const n = SSL_read(ssl.get(), data, static_cast<int>(size));
        return n > 0 ? n : -1;
    };
    auto transmit = [&ssl, fd](const std::string& data) {
        if (!ssl)
            return sendAll(fd, data);
        return data.empty() || SSL_write(ssl.get(), data.data(), static_cast<int>(data.size())) ==
                                   static_cast<int>(data.size());
    };
    std::string buffer;
    char chunk[65536];
    for (;;) {
        size_t headEnd;
        while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            ssize_t const n = receive(chunk, sizeof chunk);
            if (n <= 0)
                return;
            m_received += static_cast<uint64_t>(n);
            buffer.append(chunk, static_cast<size_t>(n));
        }
        std::istringstream head(buffer.substr(0, headEnd));
        std::string line, method, target;
        std::getline(head, line);
        std::istringstream(line) >> method >> target;
        std::map<std::string, std::string> headers;
        while (std::getline(head, line)) {
            size_t const colon = line.find(':');
            if (colon == std::string::npos)
                continue;
            std::string headerName = line.substr(0, colon);
            std::transform(headerName.begin(), headerName.end(), headerName.begin(), ::tolower);
            headers[headerName] = trim(line.substr(colon + 1));
        }
        size_t const length =
            headers.count("content-length") ? std::stoul(headers["content-length"]) : 0;
        buffer.erase(0, headEnd + 4);
        while (buffer.size() < length) {
            ssize_t const n = receive(chunk, sizeof chunk);
            if (n <= 0)
                return;
            m_received += static_cast<uint64_t>(n);
            buffer.append(chunk, static_cast<size_t>(n));
        }
        std::string const body = buffer.substr(0, length);
        buffer.erase(0, length);

        std::string answer;
        std::string const bucketPath = "/" + m_bucket;
        size_t const question = target.find('?');
        std::string const path = target.substr(0, question);
        if (!signatureValid(method, target, headers, body)) {
            ++m_refused;
            answer =
                reply(403, "<Error><Code>SignatureDoesNotMatch</Code></Error>", method == "HEAD");
        } else if ((path == bucketPath || path == bucketPath + "/") && method == "GET") {
            std::string prefix;
            std::istringstream parts(question == std::string::npos ? ""
                                                                   : target.substr(question + 1));
            std::string part;
            while (std::getline(parts, part, '&'))
                if (part.compare(0, 7, "prefix=") == 0)
                    prefix = urlDecode(part.substr(7));
            std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><ListBucketResult><Name>" +
                              m_bucket + "</Name><IsTruncated>false</IsTruncated>";
            {
                std::lock_guard<std::mutex> guard(m_lock);
                for (const auto& object : m_objects)
                    if (object.first.compare(0, prefix.size(), prefix) == 0)
                        xml += "<Contents><Key>" + xmlEscape(object.first) + "</Key><Size>" +
                               std::to_string(object.second.size()) + "</Size></Contents>";
            }
            answer = reply(200, xml + "</ListBucketResult>");
        } else if (path.compare(0, bucketPath.size() + 1, bucketPath + "/") == 0) {
            std::string const key = urlDecode(path.substr(bucketPath.size() + 1));
            std::lock_guard<std::mutex> guard(m_lock);
            if (method == "PUT") {
                if (m_failCount > 0) {
                    --m_failCount;
                    if (m_failStatus == 0)
                        return;  // cut: the connection ends without an answer
                    answer = reply(m_failStatus, "<Error><Code>ServiceUnavailable</Code></Error>");
                } else {
                    m_objects[key] = body;
                    answer = reply(200, "");
                    if (m_stopAfter > 0 && --m_stopAfter == 0) {
                        // Killed after storing: no answer, every connection cut.
                        m_stopAfter = -1;
                        m_down = true;
                        for (int client : m_clients)
                            ::shutdown(client, SHUT_RDWR);
                        return;
                    }
                }
            } else {
                auto const found = m_objects.find(key);
                if (found == m_objects.end())
                    answer = reply(404, "<Error><Code>NoSuchKey</Code></Error>", method == "HEAD");
                else
                    answer = reply(200, found->second, method == "HEAD", found->second.size());
            }
        } else {
            answer = reply(404, "<Error><Code>NoSuchBucket</Code></Error>", method == "HEAD");
        }
        if (!transmit(answer))
            return;
    }
}

}  // namespace TarnwickTest
