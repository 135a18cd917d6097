#include <tarnwick/configuration.h>
#include <tarnwick/contentrouter.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/path_encoder.h>
#include <tarnwick/utf8.h>

#include "store_client.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>

namespace Tarnwick {

namespace {

// A name that is not UTF-8 as store text: the bytes that are not UTF-8 as
// percent forms. Empty if it can't be escaped.
std::string escapedName(const char* name) {
    size_t const length = std::strlen(name);
    ssize_t const escaped = storeEscape(name, length, nullptr, 0);
    if (escaped < 0)
        return std::string();
    std::string text(static_cast<size_t>(escaped) + 1, '\0');
    if (storeEscape(name, length, &text[0], text.size()) != escaped)
        return std::string();
    text.resize(static_cast<size_t>(escaped));
    return text;
}

// Notes the directory `path` (symbolic links followed) as entered by the
// upload under way. False when it was entered before: a symbolic link back
// to it or to an ancestor would otherwise make the walk go round for ever,
// and links that join the tree again would make it grow without bound.
bool enterOnce(const wchar_t* path, std::set<std::pair<dev_t, ino_t>>& entered) {
    struct stat info;
    if (::stat(utf8String(path).c_str(), &info) != 0)
        return false;
    return entered.insert(std::make_pair(info.st_dev, info.st_ino)).second;
}

const char kClientVersion[] = "6.1.0.0";
const int kClientNumber = 17904;
const size_t kPathBuffer = 4096;

}  // namespace

struct ContentRouter::Record {
    void* handle;
    int dsid;
    int kind;
    int extraFlags;
    int errors;
    int count;
};

ContentRouter::ContentRouter() : m_record(new (std::nothrow) Record{nullptr, 0, 0, 0, 0, 0}) {}

ContentRouter::~ContentRouter() {
    if (m_record != nullptr && m_record->handle != nullptr && CRShutdown(m_record->handle) != 0)
        TW_LOG("%D ERROR (%t): An error occurred while closing the contentrouter connection.\n");
    delete m_record;
}

int ContentRouter::count() {
    return m_record != nullptr ? m_record->count : 0;
}

int ContentRouter::errors() {
    return m_record != nullptr ? m_record->errors : 0;
}

int ContentRouter::connect(int dsid, int kind) {
    Record* const r = m_record;
    if (r == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    if (r->dsid != 0 && r->kind != 0 && (r->dsid != dsid || r->kind != kind)) {
        if (r->handle != nullptr) {
            int const result = CRShutdown(r->handle);
            r->handle = nullptr;
            if (result != 0) {
                ++r->errors;
                return -1;
            }
        }
    } else if (r->handle != nullptr) {
        return 0;
    }
    r->dsid = dsid;
    r->kind = kind;
    r->errors = 0;
    r->count = 0;

    Configuration* const configuration = getConfigSingleton();
    ACE_WString configfile;
    if (configuration == nullptr ||
        configuration->productConfigfilePath(L"Agent", configfile) != 0) {
        TW_LOG("%D ERROR (%t): Can not find Agent configfile\n");
        return -1;
    }
    const wchar_t* const rtdir = configuration->asString(L"rtdir");
    if (rtdir == nullptr || *rtdir == L'\0') {
        TW_LOG("%D ERROR (%t): rtdir setting is not configured\n");
        return -1;
    }
    // The runtime directory joined as Path::Join joins.
    std::wstring runtime(rtdir);
    int pool = 0;
    (void)configuration->getValue(L"storagepoolid", pool, true, false);
    wchar_t current[4096];
    std::swprintf(current, sizeof current / sizeof current[0], L"%d.current", pool);
    current[sizeof current / sizeof current[0] - 1] = L'\0';
    if (runtime.back() != L'/')
        runtime += L'/';
    runtime += current;

    int const flags = r->extraFlags | kind | 1024;
    r->handle =
        CRInit(configfile.c_str(), runtime.c_str(), dsid, flags, kClientVersion, kClientNumber);
    if (r->handle == nullptr) {
        ++r->errors;
        TW_LOG("%D ERROR (%t): CRInit failed!\n");
        return -1;
    }

    std::string login, password;
    if (configuration->getValue("login", login, true, false) != 0) {
        TW_LOG_ERRNO("%D ERROR (%t): Authentication failure: login not set.");
        return -1;
    }
    if (configuration->getValue("passwd", password, true, false) != 0) {
        TW_LOG_ERRNO("%D ERROR (%t): Authentication failure: password not set.");
        return -1;
    }
    if (CRAuthenticate(r->handle, dsid, login.c_str(), password.c_str()) != 0) {
        TW_LOG_ERRNO("%D ERROR (%t): Authentication failed.");
        return -1;
    }

    // The client's default when the setting is absent.
    int fingerprint = 1;
    (void)configuration->getValue(L"FingerprintType", fingerprint, true, false);
    if (CRFPTypeIsValid(fingerprint) == 0) {
        TW_LOG("%D ERROR (%t): Incorrect ENT_FingerprintType value or system not configured");
        return -1;
    }

    wchar_t located[kPathBuffer];
    if (CRConfigLocateW(L"Corvanta\\Tarnwick\\Agent", located, kPathBuffer) == 0)
        std::exit(1);

    wchar_t keydir[4095];
    if (InifileGetPathW(L"Paths", L"KeyDir", located, keydir, sizeof keydir / sizeof keydir[0],
                        nullptr) == 0) {
        TW_LOG("%D ERROR (%t): Incorrect key dir value or system not configured");
        return -1;
    }
    std::wstring directory(keydir);
    if (directory.back() != L'/')
        directory += L'/';
    wchar_t keyPath[kPathBuffer];
    wchar_t certPath[kPathBuffer];
    std::swprintf(keyPath, kPathBuffer, L"%lsAgent.key", directory.c_str());
    std::swprintf(certPath, kPathBuffer, L"%lsAgent.cert", directory.c_str());
    keyPath[kPathBuffer - 1] = certPath[kPathBuffer - 1] = L'\0';

    if (CROptionsSetVa(r->handle, 18, 0, 22,
                       static_cast<int>(static_cast<unsigned char>(fingerprint)), 23, keyPath, 24,
                       certPath, 0) != 0) {
        TW_LOG("%D ERROR (%t): set options failed.");
        return -1;
    }
    return 0;
}

struct ContentRouter::Entered {
    std::set<std::pair<dev_t, ino_t>> directories;
};

int ContentRouter::upload(const wchar_t* path, int dsid) {
    Entered entered;
    return uploadPath(path, dsid, entered);
}

int ContentRouter::uploadPath(const wchar_t* path, int dsid, Entered& entered) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (connect(dsid, 1) == -1)
        return -1;
    TW_LOG("%D DEBUG (%t): Uploading %W\n", path);
    if (Path::IsFile(path)) {
        int const status = CRFilePut(m_record->handle, path, 0, 0, nullptr, 0, nullptr, 0, nullptr);
        ++m_record->count;
        if (status != CR_OK && status != CR_OK_PRESENT) {
            ++m_record->errors;
            TW_LOG("%D ERROR (%t): Can not upload file: %W, %W\n", path, CRStatusToStringW(status));
            return -1;
        }
        TW_LOG("%D ERROR (%t): Result: %W, %W\n", path, CRStatusToStringW(status));
    } else if (Path::IsDirectory(path) && enterOnce(path, entered.directories)) {
        std::string const narrow = utf8String(path);
        std::unique_ptr<DIR, int (*)(DIR*)> const directory(::opendir(narrow.c_str()), ::closedir);
        if (!directory)
            return -1;
        while (const struct dirent* const entry = ::readdir(directory.get())) {
            const char* const name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            std::wstring wide;
            if (utf8towcs(name, wide)) {
                ACE_WString child;
                Path::Join(child, path);
                Path::Join(child, wide.c_str());
                (void)uploadPath(child.c_str(), dsid, entered);
                continue;
            }
            // A name that is no UTF-8 has no wide form, so no path of the
            // upload can name it: it is a failed file, named with its bytes
            // escaped, rather than one left out without a word.
            ++m_record->count;
            ++m_record->errors;
            TW_LOG("%D ERROR (%t): Can not upload file: %C/%C, %W\n", narrow.c_str(),
                   escapedName(name).c_str(), CRStatusToStringW(CR_E_INVAL));
        }
    }
    TW_LOG("%D ERROR (%t): File Type not supported.\n");
    return -1;
}

int ContentRouter::upload(const wchar_t* path, int dsid, char* context, size_t size) {
    if (path == nullptr || m_record == nullptr) {
        errno = path == nullptr ? EINVAL : ENOMEM;
        return -1;
    }
    void* const tref = CRTRefNewContextDSID(m_record, path, dsid, context);
    if (tref == nullptr) {
        TW_LOG("%D ERROR (%t): %W: failed to create tref (%W)\n", path,
               CRStatusToStringW(*cr_errno_location()));
        return -1;
    }
    if (connect(dsid, 1) == -1)
        return -1;
    TW_LOG("%D DEBUG (%t): Uploading %W\n", path);
    if (!Path::IsFile(path)) {
        TW_LOG("%D ERROR (%t): File Type not supported!\n");
        return -1;
    }
    uint64_t result = 0;
    int const status = CRFilePut(m_record->handle, path, 0, 0, context, size, &result, 0, tref);
    if (status != CR_OK && status != CR_OK_PRESENT) {
        TW_LOG("%D ERROR (%t): Can not upload : %W, %W\n", path, CRStatusToStringW(status));
        return -1;
    }
    (void)CRSync(m_record->handle);
    return 0;
}

}  // namespace Tarnwick
