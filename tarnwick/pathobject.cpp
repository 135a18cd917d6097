#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/pathobject.h>
#include <tarnwick/utf8.h>

#include "store_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

namespace Tarnwick {

namespace {

// Logical directory names longer than this are cut, as a name buffer of 261
// characters would cut them.
const size_t kDirnameLimit = 260;

void logAccess(const char* path) {
    TW_LOG("%D ERROR (%t): Could not access %C: %W\n", path,
           CRStatusToStringW(*cr_errno_location()));
}

}  // namespace

struct PathObject::Record {
    void* po;
    char* text;
};

PathObject::PathObject() : m_record(new (std::nothrow) Record{nullptr, nullptr}) {}

PathObject::PathObject(void* po) : m_record(new (std::nothrow) Record{po, nullptr}) {}

PathObject::~PathObject() {
    if (m_record == nullptr)
        return;
    PODestroy(m_record->po);
    if (m_record->text != nullptr)
        POStringDestroy(m_record->text);
    delete m_record;
}

PathObject* PathObject::adopt(void* po) {
    PathObject* object = new (std::nothrow) PathObject(po);
    if (object != nullptr && object->m_record == nullptr) {
        delete object;
        object = nullptr;
    }
    if (object == nullptr) {
        errno = ENOMEM;
        std::free(po);
    }
    return object;
}

void* PathObject::handle() const {
    return m_record != nullptr ? m_record->po : nullptr;
}

PathObject* PathObject::fromString(const char* text) {
    void* const po = POCreateFromString(text);
    if (po == nullptr)
        return nullptr;
    return adopt(po);
}

PathObject* PathObject::fromPath(const wchar_t* path) {
    std::string narrow;
    if (path == nullptr || !wcstoutf8(path, narrow)) {
        *cr_errno_location() = CR_E_INVAL;
        TW_LOG("%D ERROR (%t): Could not access %W: %W\n", path != nullptr ? path : L"(null)",
               CRStatusToStringW(CR_E_INVAL));
        return nullptr;
    }
    void* const po = POCreateFromStat(narrow.c_str(), 0, "empty", PO_FIELDS_ALL, 1);
    if (po == nullptr) {
        logAccess(narrow.c_str());
        return nullptr;
    }
    return adopt(po);
}

PathObject* PathObject::fromLogicalPath(const wchar_t* path, bool ctype_flag,
                                        bool no_special_flags) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    void* const po = POCreate();
    if (po == nullptr) {
        TW_LOG("%D ERROR (%t): Cannot create PO: %W\n", CRStatusToStringW(*cr_errno_location()));
        return nullptr;
    }
    const wchar_t* const slash = std::wcsrchr(path, L'/');
    std::wstring const dirname =
        slash == nullptr
            ? std::wstring(L".")
            : std::wstring(path, std::min(static_cast<size_t>(slash - path), kDirnameLimit));
    const wchar_t* const basename = slash == nullptr ? path : slash + 1;
    const char* failure = nullptr;
    if (POSetDirname(po, dirname.c_str()) == -1)
        failure = "%D ERROR (%t): Cannot set dirname in PO: %W\n";
    else if (POSetBasename(po, basename) == -1)
        failure = "%D ERROR (%t): Cannot set basename in PO: %W\n";
    else if (POSetType(po, ctype_flag ? 0 : 1) == -1)
        failure = "%D ERROR (%t): Cannot set CTYPE in PO: %W\n";
    else if (!no_special_flags && POSetSpecialFlags(po, PO_FLAG_LOGICAL) == -1)
        failure = "%D ERROR (%t): Cannot set special flags in PO: %W\n";
    if (failure != nullptr) {
        TW_LOG(failure, CRStatusToStringW(*cr_errno_location()));
        PODestroy(po);
        return nullptr;
    }
    return adopt(po);
}

void PathObject::doDelete(PathObject* object) {
    delete object;
}

const char* PathObject::toString() {
    if (m_record == nullptr)
        return nullptr;
    if (m_record->text == nullptr)
        m_record->text = POToStringMalloced(m_record->po);
    return m_record->text;
}

// ---- PathObjectGenerator ---------------------------------------------------

namespace {

enum { READING = 0, FAILED = 1, ENDED = 2 };

}  // namespace

PathObjectGenerator::PathObjectGenerator() : m_status(READING) {}

PathObjectGenerator::~PathObjectGenerator() {
    m_reader.close();
}

// A reader can't be shared: the copy opens its own on the same directory,
// which starts at the first entry again.
PathObjectGenerator::PathObjectGenerator(const PathObjectGenerator& other)
    : m_directory(other.m_directory), m_status(other.m_status) {
    std::string narrow;
    if (m_directory.length() > 0 && wcstoutf8(m_directory.c_str(), narrow))
        (void)m_reader.open(narrow.c_str());
}

PathObjectGenerator& PathObjectGenerator::operator=(const PathObjectGenerator& other) {
    if (this != &other) {
        m_reader.close();
        m_directory = other.m_directory;
        m_status = other.m_status;
        std::string narrow;
        if (m_directory.length() > 0 && wcstoutf8(m_directory.c_str(), narrow))
            (void)m_reader.open(narrow.c_str());
    }
    return *this;
}

int PathObjectGenerator::open(const wchar_t* directory) {
    std::string narrow;
    if (directory == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (!wcstoutf8(directory, narrow))
        return -1;
    m_directory = directory;
    m_status = READING;
    m_reader.close();
    return m_reader.open(narrow.c_str());
}

PathObject* PathObjectGenerator::next() {
    for (;;) {
        ACE_DIRENT* const entry = m_reader.read();
        if (entry == nullptr) {
            m_status = ENDED;
            return nullptr;
        }
        char* const name = ::strdup(entry->d_name);
        if (name == nullptr) {
            m_status = FAILED;
            return nullptr;
        }
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
            std::free(name);
            continue;
        }
        std::string path;
        if (!wcstoutf8(m_directory.c_str(), path)) {
            std::free(name);
            m_status = FAILED;
            return nullptr;
        }
        Path::Join(path, name);
        std::free(name);
        void* const po = POCreateFromStat(path.c_str(), 0, "empty", PO_FIELDS_ALL, 1);
        if (po == nullptr) {
            logAccess(path.c_str());
            m_status = FAILED;
            return nullptr;
        }
        PathObject* const object = PathObject::adopt(po);
        if (object == nullptr)
            m_status = FAILED;
        return object;
    }
}

bool PathObjectGenerator::eof() const {
    return m_status == ENDED;
}

bool PathObjectGenerator::error() const {
    return m_status == FAILED;
}

}  // namespace Tarnwick
