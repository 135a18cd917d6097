// A small HTTP/1.1 server on 127.0.0.1 for the tests of web service calls.
// Each connection gets a thread; every request is recorded (method, path,
// headers, body and the fields of a multipart/form-data body) and answered by
// the next scripted reply. Replies can stall, cut the connection or send a
// large body. With a certificate and key it speaks TLS.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace TarnwickTest {

struct HttpRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    // The parts of a multipart/form-data body, in the order they came.
    std::vector<std::pair<std::string, std::string>> fields;
    // When the whole request had come.
    std::chrono::steady_clock::time_point arrived;
};

struct HttpReply {
    enum Kind {
        NORMAL,  // status line, Content-Length, body, close
        STALL,   // headers and `body` go out, then nothing until the server stops
        RESET,   // the connection is reset without an answer
        LARGE,   // `size` bytes of 'x' as the body
        DELAY    // a NORMAL reply after `delay_ms` milliseconds
    };
    int status = 200;
    std::string body;
    Kind kind = NORMAL;
    size_t size = 0;
    int delay_ms = 0;

    static HttpReply ok(const std::string& body) { return make(200, body, NORMAL); }
    static HttpReply status_only(int status, const std::string& body = "") {
        return make(status, body, NORMAL);
    }
    static HttpReply stall(const std::string& head = "") { return make(200, head, STALL); }
    static HttpReply reset() { return make(0, "", RESET); }
    static HttpReply delayed(int ms, const std::string& body) {
        HttpReply reply = make(200, body, DELAY);
        reply.delay_ms = ms;
        return reply;
    }
    static HttpReply large(size_t bytes) {
        HttpReply reply = make(200, "", LARGE);
        reply.size = bytes;
        return reply;
    }

private:
    static HttpReply make(int status, const std::string& body, Kind kind) {
        HttpReply reply;
        reply.status = status;
        reply.body = body;
        reply.kind = kind;
        return reply;
    }
};

class HttpServer {
public:
    // Plain HTTP; with `certificate` and `key` (PEM files) HTTPS.
    HttpServer();
    HttpServer(const std::string& certificate, const std::string& key);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds a free port of 127.0.0.1 and starts accepting; false on failure.
    bool start();
    // Ends stalled replies, stops accepting and joins every thread.
    void stop();

    int port() const { return m_port; }
    // "http://127.0.0.1:PORT" + path (https for a TLS server).
    std::string url(const std::string& path = "/") const;

    // Replies are used in order; the last one keeps answering once the
    // others are used up. Without any script the answer is 200 and "".
    void script(const std::vector<HttpReply>& replies);
    std::vector<HttpRequest> requests() const;
    // Waits up to `ms` for at least `count` requests; true when they came.
    bool waitForRequests(size_t count, int ms) const;

private:
    void acceptLoop();
    void serve(int fd);
    HttpReply nextReply();
    void record(const HttpRequest& request);

    std::string m_certificate;
    std::string m_key;
    void* m_tls;  // SSL_CTX*
    int m_listen;
    int m_port;
    bool m_stopping;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::deque<HttpReply> m_script;
    std::vector<HttpRequest> m_requests;
    std::thread m_acceptor;
    std::vector<std::thread> m_workers;
    std::vector<int> m_open;
};

// Writes a self-signed certificate and key for 127.0.0.1 into `dir`
// (server.cert, server.key) with the openssl command; true on success.
bool makeSelfSignedCertificate(const std::string& dir);

}  // namespace TarnwickTest
