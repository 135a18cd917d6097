#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/recordset.h>
#include <tarnwick/utf8.h>
#include <tarnwick/webservice.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>

#include <curl/curl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>
#include <sstream>

namespace Tarnwick {

std::atomic<int> WebService::m_closing(0);

namespace {

// The pause between two polls of a running transfer.
const ACE_Time_Value POLL_PAUSE(0, 100000);

std::atomic<long> backoffStepUsec(1000000);

// libcurl's global state is set up once per process, before the first
// handle, by whichever thread gets there first.
void initialiseCurl() {
    static std::once_flag once;
    std::call_once(once, []() { curl_global_init(CURL_GLOBAL_ALL); });
}

void sleepStep(const ACE_Time_Value& pause) {
    ACE_OS::sleep(pause);
}

struct MultiCleanup {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct EasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MimeCleanup {
    void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};

// The handles of one transfer. They go in reverse order: the form and the
// easy handle leave the multi handle before it is cleaned up.
struct Transfer {
    std::unique_ptr<CURLM, MultiCleanup> multi;
    std::unique_ptr<CURL, EasyCleanup> easy;
    std::unique_ptr<curl_mime, MimeCleanup> form;
    bool added = false;

    ~Transfer() {
        if (added)
            curl_multi_remove_handle(multi.get(), easy.get());
        easy.reset();
        form.reset();
        multi.reset();
    }
};

}  // namespace

// ----------------------------------------------------------- WebServiceBuffer

WebServiceBuffer::~WebServiceBuffer() {
    std::free(m_data);
}

size_t WebServiceBuffer::write(void* data, size_t size, size_t nmemb) {
    const size_t limit = std::numeric_limits<size_t>::max();
    const bool overflow = (nmemb != 0 && size > limit / nmemb);
    const size_t n = overflow ? 0 : size * nmemb;
    if (overflow || m_size >= limit - 1 || n > limit - 1 - m_size) {
        reset();
        return 0;
    }
    const size_t needed = static_cast<size_t>(m_size) + n + 1;
    if (needed > m_capacity) {
        // The storage grows by doubling, so that a large body costs a few
        // copies instead of one per piece; near the end of memory the exact
        // size is tried as well.
        void* grown = nullptr;
        if (m_capacity <= limit / 2 && m_capacity * 2 > needed)
            grown = std::realloc(m_data, m_capacity * 2);
        if (grown != nullptr) {
            m_capacity *= 2;
        } else {
            grown = std::realloc(m_data, needed);
            if (grown == nullptr) {
                reset();
                return 0;
            }
            m_capacity = needed;
        }
        m_data = static_cast<char*>(grown);
    }
    if (n > 0)
        std::memcpy(m_data + m_size, data, n);
    m_size += n;
    m_data[m_size] = '\0';
    return n;
}

int WebServiceBuffer::reset() {
    std::free(m_data);
    m_data = nullptr;
    m_size = 0;
    m_capacity = 0;
    return 0;
}

// ----------------------------------------------------------------- WebService

WebService::WebService()
    : m_hasFields(false),
      m_retry(false),
      m_timeout(120),
      m_connectTimeout(30),
      m_startWaitInterval(60),
      m_endWaitInterval(900),
      m_responseCode(0) {
    Configuration* const config = getConfigSingleton();
    if (config != nullptr && config->isOk()) {
        (void)config->getValue("timeout", m_timeout, false, false);
        (void)config->getValue("connect_timeout", m_connectTimeout, false, false);
        (void)config->getValue("start_wait_interval", m_startWaitInterval, false, false);
        (void)config->getValue("end_wait_interval", m_endWaitInterval, false, false);
    }
}

WebService::~WebService() = default;

int WebService::field(const char* name, const char* value) {
    if (name == nullptr || value == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_hasFields = true;
    m_fields.emplace(name, value);
    return 0;
}

int WebService::field(const char* name, const std::string& value) {
    return field(name, value.c_str());
}

int WebService::field(const char* name, const wchar_t* value) {
    char* const text = wcstoutf8_malloced(value);
    if (text == nullptr)
        return -1;
    const int result = field(name, text);
    utf8free(text);
    return result;
}

int WebService::field(const char* name, int64_t value) {
    std::ostringstream text;
    text << value;
    return field(name, text.str());
}

const char* WebService::value(const char* name) const {
    const auto found = name != nullptr ? m_fields.find(name) : m_fields.end();
    if (found == m_fields.end()) {
        TW_LOG("%D ERROR (%t): Field %C not found.\n", name != nullptr ? name : "");
        return nullptr;
    }
    return found->second.c_str();
}

size_t WebService::data_callback(void* data, size_t size, size_t nmemb, void* stream) {
    if (stream == nullptr)
        return 0;
    return static_cast<WebServiceBuffer*>(stream)->write(data, size, nmemb);
}

void WebService::ShutdownAll() {
    TW_LOG("%D DEBUG (%t): Cancelling all webservice calls.\n");
    m_closing.store(1);
}

void WebService::setBackoffStep(const ACE_Time_Value& step) {
    backoffStepUsec.store(static_cast<long>(step.sec() * 1000000 + step.usec()));
}

int WebService::get(int* code) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);

    if (m_url.empty()) {
        TW_LOG("%D ERROR (%t): No URL specified\n");
        return -1;
    }
    initialiseCurl();
    Transfer transfer;
    transfer.multi.reset(curl_multi_init());
    if (transfer.multi)
        transfer.easy.reset(curl_easy_init());
    if (!transfer.multi || !transfer.easy) {
        TW_LOG("%D ERROR (%t): Can't initialize webservice network layer.\n");
        return -1;
    }
    CURL* const easy = transfer.easy.get();
    curl_easy_setopt(easy, CURLOPT_URL, m_url.c_str());

    if (m_hasFields) {
        transfer.form.reset(curl_mime_init(easy));
        if (!transfer.form) {
            TW_LOG("%D ERROR (%t): Can't initialize webservice network layer.\n");
            return -1;
        }
        for (const auto& entry : m_fields) {
            curl_mimepart* const part = curl_mime_addpart(transfer.form.get());
            if (part == nullptr || curl_mime_name(part, entry.first.c_str()) != CURLE_OK ||
                curl_mime_data(part, entry.second.data(), entry.second.size()) != CURLE_OK) {
                TW_LOG("%D ERROR (%t): Can't initialize webservice network layer.\n");
                return -1;
            }
        }
        curl_easy_setopt(easy, CURLOPT_MIMEPOST, transfer.form.get());
    }
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &WebService::data_callback);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &m_buffer);
    m_buffer.reset();

    char errors[CURL_ERROR_SIZE];
    std::memset(errors, 0, sizeof errors);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(m_timeout));
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(m_connectTimeout));
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errors);

    curl_multi_add_handle(transfer.multi.get(), easy);
    transfer.added = true;
    int running = 1;
    CURLMcode last = CURLM_OK;
    TW_LOG("%D DEBUG (%t): Webservice network layer initialization done for URL %C.\n",
           m_url.c_str());

    const ACE_Time_Value start = ACE_OS::gettimeofday();
    bool interrupted = false;
    if (closing()) {
        interrupted = true;
    } else {
        const ACE_Time_Value deadline = start + ACE_Time_Value(m_timeout + 10);
        for (long pass = 1;; ++pass) {
            // A libcurl that doesn't keep its own timeout is stopped here.
            if (ACE_OS::gettimeofday() > deadline) {
                TW_LOG("%D ERROR (%t): Webservice call timed out. (curl call did not)\n");
                return -1;
            }
            if (running == 0)
                break;
            if (pass % 50 == 0)
                TW_LOG("%D DEBUG (%t): Still Performing webservice call.\n");
            last = curl_multi_perform(transfer.multi.get(), &running);
            if (last != CURLM_CALL_MULTI_PERFORM)
                sleepStep(POLL_PAUSE);
            if (closing()) {
                interrupted = true;
                break;
            }
        }
    }

    TW_LOG("%D DEBUG (%t): Webservice call complete, reading data.\n");
    CURLcode result = CURLE_OK;
    int queued = 0;
    const CURLMsg* const message = curl_multi_info_read(transfer.multi.get(), &queued);
    if (message != nullptr && message->msg == CURLMSG_DONE)
        result = message->data.result;

    TW_LOG("%D DEBUG (%t): Webservice call done, cleaning up.\n");
    curl_multi_remove_handle(transfer.multi.get(), easy);
    transfer.added = false;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    m_responseCode = status;
    if (code != nullptr)
        *code = static_cast<int>(status);
    transfer.easy.reset();
    transfer.form.reset();
    transfer.multi.reset();

    if (interrupted) {
        TW_LOG(
            "%D ERROR (%t): Webservice call was interrupted because the application is shutting "
            "down.\n");
        return -1;
    }
    if (last != CURLM_OK || result != CURLE_OK) {
        // libcurl leaves its error buffer empty for some failures (a URL it
        // can't parse, for one); the text of the result code stands in then.
        const char* const text = errors[0] != '\0'  ? errors
                                 : last != CURLM_OK ? curl_multi_strerror(last)
                                                    : curl_easy_strerror(result);
        TW_LOG("%D ERROR (%t): Network error during webservice call: %C\n", text);
        return -1;
    }
    return 0;
}

int WebService::getWithRetry(int max_retry_time) {
    // A wait base below one second would divide by zero below.
    int interval = m_startWaitInterval > 0 ? m_startWaitInterval : 1;
    std::srand(static_cast<unsigned>(std::time(nullptr)));

    int status = 0;
    int result = get(&status);
    if (status != 503)
        return result;
    for (int attempt = 1;; ++attempt) {
        const int wait = interval + std::rand() % interval;
        std::ostringstream params;
        params << "HTTP 503 params: min interval: " << m_startWaitInterval
               << "s, max: " << m_endWaitInterval << "s, max retry time: " << max_retry_time
               << "s \n"
               << "                 current interval: " << interval
               << "s, current total retry time: " << wait << "s \n";
        TW_LOG("%D DEBUG (%t): %C", params.str().c_str());
        if (max_retry_time > 0 && wait >= max_retry_time) {
            TW_LOG(
                "%D WARN  (%t): HTTP responsecode was still 503 after %d attempts and %d seconds. "
                "Aborting.\n",
                attempt, wait);
            return -1;
        }
        std::ostringstream retrying;
        retrying << "HTTP responsecode was " << m_responseCode << ", retrying " << attempt << " in "
                 << wait << " seconds\n";
        TW_LOG("%D WARN  (%t): %C", retrying.str().c_str());
        for (int second = 0; second < wait; ++second) {
            if (closing())
                return -1;
            sleepStep(ACE_Time_Value(1));
        }
        const int doubled = interval > std::numeric_limits<int>::max() / 2
                                ? std::numeric_limits<int>::max()
                                : interval * 2;
        interval = doubled < m_endWaitInterval ? doubled : m_endWaitInterval;
        if (interval < 1)
            interval = 1;
        status = 0;
        result = get(&status);
        if (status != 503)
            return result;
    }
}

int WebService::parse(RecordSet*& result) {
    return parseRecordSet(m_buffer.data(), result);
}

int WebService::get(RecordSet* result, int max_retry_time) {
    if (closing())
        return -1;
    if (result == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int delay = 2;
    while (getWithRetry(max_retry_time) == -1) {
        if (!m_retry)
            return -1;
        const long stepUsec = backoffStepUsec.load();
        const ACE_Time_Value step(stepUsec / 1000000, stepUsec % 1000000);
        for (int second = 0; second < delay; ++second) {
            if (closing())
                return -1;
            sleepStep(step);
        }
        if (delay < 300) {
            delay *= 2;
            TW_LOG("%D WARN  (%t): Retrying webservice call in %d seconds\n", delay);
        }
        if (closing())
            return -1;
    }

    if (parse(result) == -1) {
        TW_LOG("%D ERROR (%t): The data returned by the webservice could not be parsed.\n");
        return -1;
    }
    if (result->error() != nullptr) {
        const wchar_t* const description = result->error()->description();
        TW_LOG("%D ERROR (%t): The webservice returned an error : %W\n",
               description != nullptr ? description : L"");
        return -1;
    }
    return 0;
}

}  // namespace Tarnwick
