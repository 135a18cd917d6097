// Fuzz target: arbitrary bytes read as a configuration file through the
// stream constructor, then queried, edited, copied and written back.
//
// Checked on every input that reads:
//   - the written form reads again without an exception, and has every
//     section of the first reading (a rewrite may add sections, from keys
//     that begin with '[', but never loses one);
//   - lookups leave no visible trace: the section list and the written form
//     are the same before and after them;
//   - writing to a stream that is not good throws;
//   - set either refuses a text or stores it so that the written form reads
//     back with that option and no section more.
#include <tarnwick/configfile.h>
#include <tarnwick/exception.h>
#include <tarnwick/tarnwick.h>

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

void check(bool condition) {
    if (!condition)
        std::abort();
}

std::string write(const Tarnwick::ConfigFile& file) {
    std::ostringstream out;
    out << file;
    return out.str();
}

std::vector<std::string> names(const Tarnwick::ConfigFile& file) {
    std::vector<std::string> out;
    check(file.list_sections(out) == 0);
    return out;
}

// Wide form of a stored name; empty when it is no UTF-8 (or holds a NUL).
std::wstring wide(const std::string& text) {
    if (text.find('\0') != std::string::npos)
        return std::wstring();
    wchar_t* converted = Tarnwick::utf8towcs_malloced(text.c_str());
    if (converted == nullptr)
        return std::wstring();
    std::wstring out(converted);
    Tarnwick::wcsfree(converted);
    return out;
}

void exercise(Tarnwick::ConfigFile& file) {
    std::vector<std::string> const before = names(file);
    check(std::is_sorted(before.begin(), before.end()));
    std::string const written = write(file);

    try {
        std::istringstream again(written);
        Tarnwick::ConfigFile reread(again);
        std::vector<std::string> const after = names(reread);
        check(std::includes(after.begin(), after.end(), before.begin(), before.end()));
    } catch (const Tarnwick::Exception&) {
        std::abort();
    }

    static const wchar_t* const KEYS[] = {L"", L"k", L"log", L"var", L"   "};
    for (const std::string& name : before) {
        std::wstring const section = wide(name);
        if (section.empty() && !name.empty())
            continue;
        check(file.hasSection(section.c_str()));
        for (const wchar_t* key : KEYS) {
            ACE_WString const value = file.get(section.c_str(), key);
            check(file.hasOption(section.c_str(), key) || value.length() == 0);
        }
    }
    // No section name holds a line end.
    check(!file.hasSection(L"no\nsuch"));
    check(!file.hasOption(L"no\nsuch", L"k"));
    check(names(file) == before);
    check(write(file) == written);

    std::ostringstream bad;
    bad.setstate(std::ios::badbit);
    bool thrown = false;
    try {
        bad << file;
    } catch (const Tarnwick::Exception&) {
        thrown = true;
    }
    check(thrown);

    Tarnwick::ConfigFile copy(file);
    try {
        copy.setStoragePath("/fuzz/root");
    } catch (const Tarnwick::Exception& e) {
        // A path value with a line end in it can't be stored again.
        check(e.getErrNo() == Tarnwick::ERR_CONFIGFILE_WRITE);
    }
    check(copy.set(L"paths", L"log", L"log") == 0);
    if (!before.empty()) {
        std::wstring const first = wide(before.front());
        if (!first.empty() || before.front().empty()) {
            check(copy.remove(first.c_str()) == 0);
            bool const lineEnd = first.find(L'\r') != std::wstring::npos;
            check(copy.set(first.c_str(), L"k", L"v") == (lineEnd ? -1 : 0));
        }
    }
    std::vector<std::string> listed;
    check(copy.list_sections(listed) == 0);
    write(copy);
}

}  // namespace

// Stores the input's text as a key and as a value; what set accepts must
// read back as exactly that option, in no section but the one named.
void setArbitrary(const std::string& text) {
    std::wstring const value = wide(text);
    if (value.empty())
        return;
    for (int asKey = 0; asKey < 2; ++asKey) {
        std::istringstream empty("[s]\n");
        Tarnwick::ConfigFile file(empty);
        const wchar_t* const key = asKey != 0 ? value.c_str() : L"k";
        const wchar_t* const stored = asKey != 0 ? L"v" : value.c_str();
        if (file.set(L"s", key, stored) != 0)
            continue;
        std::istringstream again(write(file));
        try {
            Tarnwick::ConfigFile reread(again);
            check(names(reread) == std::vector<std::string>{"s"});
        } catch (const Tarnwick::Exception&) {
            std::abort();
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool const silenced = (TarnwickFuzz::silenceLog(), true);
    (void)silenced;

    setArbitrary(std::string(reinterpret_cast<const char*>(data), size));
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    Tarnwick::ConfigFile* file = nullptr;
    try {
        file = new Tarnwick::ConfigFile(in);
    } catch (const Tarnwick::Exception& e) {
        check(e.getErrNo() == Tarnwick::ERR_CONFIGFILE_READ);
        return 0;
    }
    exercise(*file);
    delete file;
    return 0;
}
