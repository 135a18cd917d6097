// Calls to the management server over HTTP: one blocking call with its own
// time limit, back-off on HTTP 503, optional retry of transport failures, and
// an abort of every call when the application shuts down.
#pragma once

#include <tarnwick/export.h>

#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace Tarnwick {

class RecordSet;

// The body of one transfer, grown with realloc as pieces arrive. Once
// anything was written the data is followed by one zero byte that size()
// doesn't count. Owns its storage.
class TARNWICK_EXPORT WebServiceBuffer {
public:
    WebServiceBuffer() : m_data(nullptr), m_size(0), m_capacity(0) {}
    ~WebServiceBuffer();
    WebServiceBuffer(const WebServiceBuffer&) = delete;
    WebServiceBuffer& operator=(const WebServiceBuffer&) = delete;

    // Appends size * nmemb bytes. Returns that count, or 0 when the storage
    // can't grow: the buffer is then freed and empty, and libcurl fails the
    // transfer.
    size_t write(void* data, size_t size, size_t nmemb);
    // Frees the storage; returns 0.
    int reset();
    // The body (null when empty), owned by the buffer.
    const char* data() const { return m_data; }
    uint64_t size() const { return m_size; }

private:
    char* m_data;
    uint64_t m_size;
    size_t m_capacity;  // bytes allocated
};

// One HTTP client of the management server. Fill in the URL and the form
// fields, then call get(). Fields are sent as a multipart/form-data POST; an
// object that never got a field sends a plain GET. The transfer runs on the
// libcurl multi interface, polled every 100 ms on the caller's thread.
// Server certificates are not verified. The user and password are kept but
// never sent.
//
// The settings "timeout", "connect_timeout", "start_wait_interval" and
// "end_wait_interval" (seconds) are read from the configuration store at
// construction when it is open; otherwise the defaults 120, 30, 60 and 900
// stand.
//
// Every status result is 0 for success or -1 for failure, with the cause in
// the log.
class TARNWICK_EXPORT WebService {
public:
    WebService();
    ~WebService();
    WebService(const WebService&) = delete;
    WebService& operator=(const WebService&) = delete;

    void url(const char* url) { m_url = url != nullptr ? url : ""; }
    const std::string& url() const { return m_url; }
    void user(const char* user) { m_user = user != nullptr ? user : ""; }
    void password(const char* password) { m_password = password != nullptr ? password : ""; }

    // Add a form field. The first value given for a name stays: a later call
    // with that name changes nothing and still returns 0. Fields stay for
    // later calls. The wide form sends UTF-8 (-1 and nothing added when the
    // value doesn't convert); the integer form plain decimal. A null name or
    // value gives -1 (errno EINVAL).
    int field(const char* name, const char* value);
    int field(const char* name, const std::string& value);
    int field(const char* name, const wchar_t* value);
    int field(const char* name, int64_t value);
    // The value of a field (owned by this object), or null (logged).
    const char* value(const char* name) const;
    const std::map<std::string, std::string>& getFields() const { return m_fields; }

    void timeout(int seconds) { m_timeout = seconds; }
    int timeout() const { return m_timeout; }
    // From now on, get(RecordSet*, int) retries failed transfers until they
    // succeed or ShutdownAll() is called.
    void enable_retry() { m_retry = true; }
    // The HTTP status of the latest finished transfer; 0 before any.
    long getResponseCode() const { return m_responseCode; }
    // The body of the latest transfer (null when none), owned by this object.
    const char* data() const { return m_buffer.data(); }
    const WebServiceBuffer& buffer() const { return m_buffer; }

    // One transfer. 0 when the server answered, whatever the HTTP status,
    // which goes to `code` (when not null) and getResponseCode(); -1 when
    // there is no URL, the transfer failed or timed out, or the application
    // is shutting down.
    int get(int* code);
    // A transfer that waits and tries again while the server answers 503.
    // `max_retry_time` (seconds; 0 or less: no limit) ends the retries when a
    // single wait would reach it. The result of the last transfer, or -1.
    int getWithRetry(int max_retry_time);
    // The whole call: transfer (with the retries above, and with
    // enable_retry() again and again after failures), then the body parsed
    // into `result`. -1 also when the body isn't understood or holds the
    // server's error block, which is then in result->error().
    int get(RecordSet* result, int max_retry_time);

    // The libcurl write function; `stream` is a WebServiceBuffer. 0 for a
    // null stream.
    static size_t data_callback(void* data, size_t size, size_t nmemb, void* stream);
    // Abandons every running call of the process within one poll or one
    // second of a wait, and makes every later call fail. There is no way
    // back.
    static void ShutdownAll();

    // The length of each of the one-second steps in which the retry of
    // failed transfers sleeps its delay (2, 4, ... 512 s): one second unless
    // a test shortens it.
    static void setBackoffStep(const ACE_Time_Value& step);

private:
    int parse(RecordSet*& result);
    static bool closing() { return m_closing.load() == 1; }

    std::map<std::string, std::string> m_fields;
    bool m_hasFields;
    WebServiceBuffer m_buffer;
    std::string m_url;
    std::string m_user;
    std::string m_password;
    bool m_retry;
    int m_timeout;
    int m_connectTimeout;
    int m_startWaitInterval;
    int m_endWaitInterval;
    long m_responseCode;
    ACE_Thread_Mutex m_lock;

    static std::atomic<int> m_closing;
};

}  // namespace Tarnwick
