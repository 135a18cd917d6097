// A small S3-compatible object server on 127.0.0.1 for the tests of the S3
// store: PUT, GET and HEAD of objects and the ListObjectsV2 listing of one
// bucket, every request checked against its AWS Signature Version 4 for one
// access key. It counts the bytes it receives, so that a test can measure
// what an upload sends, and can answer a number of requests with a status
// of its choice or cut them.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace TarnwickTest {

class S3Server {
public:
    // With `tlsDir` the server speaks HTTPS with `tlsDir`/server.key and
    // server.cert, and accepts only clients whose certificate the authority
    // `tlsDir`/ca.cert signed (the files of tests/support/make_certs.sh).
    S3Server(const std::string& bucket, const std::string& access, const std::string& secret,
             const std::string& tlsDir = std::string());
    ~S3Server();
    S3Server(const S3Server&) = delete;
    S3Server& operator=(const S3Server&) = delete;

    // "http://127.0.0.1:PORT" ("https://" with TLS); empty when the server couldn't start.
    std::string endpoint() const;
    // Bytes of requests received so far, headers included.
    uint64_t bytesReceived() const { return m_received.load(); }
    // Requests refused for a bad or missing signature.
    int refused() const { return m_refused.load(); }
    // TLS handshakes that failed (no or a foreign client certificate).
    int handshakesRefused() const { return m_handshakesRefused.load(); }
    // The next `count` object PUTs are answered with `status` (0: the
    // connection is cut once the body has come).
    void failPuts(int count, int status);
    // After `count` more objects are stored the server stops as a killed one
    // does: the request of the last one gets no answer (the object is kept),
    // every connection is cut and new ones are refused, until restart().
    void stopAfterPuts(int count);
    // Listens again on the same port, with the objects it had. False when
    // the port can't be had again.
    bool restart();
    bool stopped() const { return m_down.load(); }
    // Number of objects stored whose key starts with `prefix`.
    size_t objectCount(const std::string& prefix) const;

private:
    void acceptLoop();
    void serve(int fd);
    bool signatureValid(const std::string& method, const std::string& target,
                        const std::map<std::string, std::string>& headers,
                        const std::string& body) const;

    std::string m_bucket, m_access, m_secret;
    int m_listen;
    int m_port;
    bool listen(int port);

    std::atomic<bool> m_stopping;
    std::atomic<bool> m_down;
    int m_stopAfter;
    std::atomic<uint64_t> m_received;
    std::atomic<int> m_refused;
    std::atomic<int> m_handshakesRefused;
    void* m_tls;  // SSL_CTX when speaking HTTPS
    mutable std::mutex m_lock;
    std::map<std::string, std::string> m_objects;
    int m_failCount;
    int m_failStatus;
    std::vector<int> m_clients;
    std::vector<std::thread> m_threads;
    std::thread m_acceptor;
};

}  // namespace TarnwickTest
