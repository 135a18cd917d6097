#include <tarnwick/store_reader.h>

#include <tarnwick/configuration.h>
#include <tarnwick/utf8.h>

#include "store_client.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cwchar>

namespace Tarnwick {

namespace {

const int kReadKind = 1;

// Makes every missing directory of `path`; 0, or a status.
int makeDirectories(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string const prefix = path.substr(0, slash);
        if (!prefix.empty() && ::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST)
            return errno == ENOENT ? CR_E_NOENT : errno == ENOSPC ? CR_E_NOSPACE : CR_E_IO;
        if (slash == std::string::npos)
            return CR_OK;
    }
}

// Whether a stored path stays below the directory it is restored into.
bool confined(const std::string& path) {
    if (path.empty())
        return false;
    size_t start = 0;
    for (;;) {
        size_t const slash = path.find('/', start);
        if (path.compare(start, slash == std::string::npos ? std::string::npos : slash - start,
                         "..") == 0)
            return false;
        if (slash == std::string::npos)
            return path.back() != '/';
        start = slash + 1;
    }
}

std::string narrowSetting(Configuration* configuration, const wchar_t* key) {
    const wchar_t* const value = configuration->asString(key);
    std::string out;
    if (value == nullptr || !wcstoutf8(value, out))
        return std::string();
    return out;
}

}  // namespace

StoreReader::StoreReader() : m_handle(nullptr), m_status(CR_OK) {}

StoreReader::~StoreReader() {
    close();
}

void StoreReader::close() {
    if (m_handle != nullptr)
        (void)CRShutdown(m_handle);
    m_handle = nullptr;
}

int StoreReader::fail(int status) {
    m_status = status;
    return -1;
}

const wchar_t* StoreReader::statusText() const {
    return CRStatusToStringW(m_status);
}

int StoreReader::open(const std::string& url, const std::string& endpoint, const std::string& login,
                      const std::string& password, const std::string& keyDir) {
    close();
    m_status = CR_OK;
    if (url.empty())
        return fail(CR_E_URL);
    CRHandle const handle = CROpen(url.c_str(), endpoint.c_str(), "", 0, kReadKind);
    if (handle == nullptr)
        return fail(*cr_errno_location());
    if (!keyDir.empty()) {
        std::wstring directory;
        if (!utf8towcs(keyDir.c_str(), directory)) {
            (void)CRShutdown(handle);
            return fail(CR_E_INVAL);
        }
        if (directory.back() != L'/')
            directory += L'/';
        std::wstring const key = directory + L"Agent.key";
        std::wstring const cert = directory + L"Agent.cert";
        if (CROptionsSetVa(handle, 23, key.c_str(), 24, cert.c_str(), 0) != 0) {
            int const status = *cr_errno_location();
            (void)CRShutdown(handle);
            return fail(status);
        }
    }
    if (CRAuthenticate(handle, 0, login.c_str(), password.c_str()) != 0) {
        int const status = *cr_errno_location();
        (void)CRShutdown(handle);
        return fail(status);
    }
    m_handle = handle;
    return 0;
}

int StoreReader::open() {
    close();
    m_status = CR_OK;
    Configuration* const configuration = getConfigSingleton();
    if (configuration == nullptr)
        return fail(CR_E_NOTINIT);
    std::string url = narrowSetting(configuration, L"storeurl");
    if (url.empty()) {
        std::string const rtdir = narrowSetting(configuration, L"rtdir");
        if (rtdir.empty())
            return fail(CR_E_URL);
        int pool = 0;
        (void)configuration->getValue(L"storagepoolid", pool, false, false);
        url = "file://" + rtdir + (rtdir.back() == '/' ? "" : "/") + std::to_string(pool) +
              ".current/store";
        if (url.compare(0, 8, "file:///") != 0)
            return fail(CR_E_URL);
    }
    std::string keyDir;
    wchar_t located[4096];
    wchar_t directory[4095];
    if (CRConfigLocateW(L"Corvanta\\Tarnwick\\Agent", located, 4096) != 0 &&
        InifileGetPathW(L"Paths", L"KeyDir", located, directory, 4095, nullptr) != 0 &&
        !wcstoutf8(directory, keyDir))
        keyDir.clear();
    return open(url, narrowSetting(configuration, L"storeendpoint"),
                narrowSetting(configuration, L"login"), narrowSetting(configuration, L"passwd"),
                keyDir);
}

int StoreReader::list(int dsid, std::vector<std::string>& paths) {
    paths.clear();
    if (m_handle == nullptr)
        return fail(CR_E_NOTINIT);
    int const status = CRFileList(m_handle, dsid, paths);
    return status == CR_OK ? 0 : fail(status);
}

int StoreReader::restore(int dsid, const std::string& path, const std::string& target) {
    if (m_handle == nullptr)
        return fail(CR_E_NOTINIT);
    if (path.empty() || target.empty())
        return fail(CR_E_INVAL);
    int const status = CRFileGet(m_handle, dsid, path, target);
    return status == CR_OK ? 0 : fail(status);
}

int StoreReader::restoreAll(int dsid, const std::string& directory) {
    std::vector<std::string> paths;
    if (directory.empty())
        return fail(CR_E_INVAL);
    if (list(dsid, paths) != 0)
        return -1;
    int restored = 0;
    for (const std::string& path : paths) {
        if (!confined(path))
            return fail(CR_E_INVAL);
        std::string const target = directory + (path[0] == '/' ? "" : "/") + path;
        if (int const status = makeDirectories(target.substr(0, target.rfind('/')));
            status != CR_OK)
            return fail(status);
        if (restore(dsid, path, target) != 0)
            return -1;
        ++restored;
    }
    return restored;
}

}  // namespace Tarnwick
