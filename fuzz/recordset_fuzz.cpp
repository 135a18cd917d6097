// Fuzz target: arbitrary bytes read as the body of a web service answer by
// the result set parser, then every record read back through the caller's
// interface.
//
// Checked on every input:
//   - the parser returns 0 or -1, and -1 leaves no records and no error;
//   - an error block and a table never come together;
//   - next() walks exactly count() records, and reset() starts over;
//   - no record counts more fields than there are columns, or finds more
//     than it counts;
//   - every field a record finds by a column name carries that name, and
//     getValue either gives its value or throws the library's Exception.
#include <tarnwick/exception.h>
#include <tarnwick/recordset.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

void check(bool condition) {
    if (!condition)
        std::abort();
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; *text != L'\0'; ++text)
        out += *text < 0x80 ? static_cast<char>(*text) : '?';
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = (TarnwickFuzz::silenceLog(), true);
    (void)quiet;
    const std::string body(reinterpret_cast<const char*>(data), size);
    Tarnwick::RecordSet set;
    const int result = Tarnwick::parseRecordSet(body.c_str(), &set);
    check(result == 0 || result == -1);
    if (result == -1) {
        check(set.count() == 0 && set.error() == nullptr);
        return 0;
    }
    if (set.error() != nullptr) {
        check(set.count() == 0);
        check(set.begin() == set.end());
        return 0;
    }
    std::vector<const wchar_t*> columns;  // distinct names
    const int definitions = static_cast<int>(set.end() - set.begin());
    for (auto it = set.begin(); it != set.end(); ++it) {
        bool known = false;
        for (const wchar_t* column : columns)
            known = known || std::wcscmp(column, (*it)->name()) == 0;
        if (!known)
            columns.push_back((*it)->name());
    }
    check(set.begin() != set.end());

    for (int pass = 0; pass < 2; ++pass) {
        int seen = 0;
        while (Tarnwick::Record* record = set.next()) {
            ++seen;
            check(record->count() <= definitions);
            int found = 0;
            for (const wchar_t* column : columns) {
                const Tarnwick::Field* const field = record->field(column);
                if (field == nullptr)
                    continue;
                ++found;
                check(std::wcscmp(field->name(), column) == 0);
                check(field->type() == Tarnwick::Field::INTEGER ||
                      field->type() == Tarnwick::Field::STRING);
                check(field->value() != nullptr);
                (void)field->toInt();
                try {
                    (void)record->getValue(narrow(column), pass == 1);
                } catch (const Tarnwick::Exception&) {
                }
            }
            check(found <= record->count());
        }
        check(seen == set.count());
        check(set.next() == nullptr);
        set.reset();
    }
    return 0;
}
