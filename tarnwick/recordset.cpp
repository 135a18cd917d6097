#include <tarnwick/exception.h>
#include <tarnwick/log.h>
#include <tarnwick/path_encoder.h>
#include <tarnwick/recordset.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <vector>

namespace Tarnwick {

namespace {

// A copy owned by the caller (free with ACE::strdelete); null for null.
wchar_t* copyText(const wchar_t* text) {
    return text != nullptr ? ACE::strnew(text) : nullptr;
}

void replaceText(wchar_t*& member, const wchar_t* text) {
    wchar_t* const copy = copyText(text);
    ACE::strdelete(member);
    member = copy;
}

// Reads a decimal int as _wtoi does; values beyond the range of int are
// clamped.
int wtoi(const wchar_t* text) {
    if (text == nullptr)
        return 0;
    while (*text == L' ' || (*text >= L'\t' && *text <= L'\r'))
        ++text;
    bool negative = false;
    if (*text == L'-' || *text == L'+') {
        negative = *text == L'-';
        ++text;
    }
    long long value = 0;
    for (; *text >= L'0' && *text <= L'9'; ++text) {
        if (value <= static_cast<long long>(INT_MAX) + 1)
            value = value * 10 + (*text - L'0');
    }
    if (negative)
        value = -value;
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

// The first CR or LF at or behind `text`, or null at the end of the text.
wchar_t* lineEnd(wchar_t* text) {
    for (; *text != L'\0'; ++text) {
        if (*text == L'\r' || *text == L'\n')
            return text;
    }
    return nullptr;
}

bool startsWith(const wchar_t* text, const wchar_t* prefix) {
    return std::wcsncmp(text, prefix, std::wcslen(prefix)) == 0;
}

// The value with the store's escaping removed; false when the escaped bytes
// aren't UTF-8 text (a "%00" among them). Unescaping never lengthens text,
// so the value's length plus one is room enough.
bool unescapeValue(const wchar_t* value, std::wstring& out) {
    std::vector<wchar_t> buffer(std::wcslen(value) + 1);
    const ssize_t length = Path_Encoder::Unescape(value, buffer.data(), buffer.size());
    if (length < 0 || static_cast<size_t>(length) >= buffer.size())
        return false;
    out.assign(buffer.data(), static_cast<size_t>(length));
    return true;
}

std::wstring widen(const std::string& text, const char* what) {
    std::wstring wide;
    if (!utf8towcs(text.c_str(), wide)) {
        throw Exception(ERR_CONVERSION, SEVERITY_CRITICAL, "Namespace:Engine",
                        std::string("Conversion to string failed for ") + what);
    }
    return wide;
}

}  // namespace

// The response parser; the containers open their mutators to it.
class RecordSetParser {
public:
    static int parse(const char* body, RecordSet* result);
    static int parse_normal(wchar_t* text, RecordSet* result);
    static int parse_error(wchar_t* text, RecordSet* result);
};

// ------------------------------------------------------------ WebServiceError

WebServiceError::WebServiceError()
    : m_code(0),
      m_severity(nullptr),
      m_server(nullptr),
      m_source(nullptr),
      m_description(nullptr) {}

WebServiceError::~WebServiceError() {
    ACE::strdelete(m_severity);
    ACE::strdelete(m_server);
    ACE::strdelete(m_source);
    ACE::strdelete(m_description);
}

WebServiceError::WebServiceError(const WebServiceError& other)
    : m_code(other.m_code),
      m_severity(copyText(other.m_severity)),
      m_server(copyText(other.m_server)),
      m_source(copyText(other.m_source)),
      m_description(copyText(other.m_description)) {}

WebServiceError& WebServiceError::operator=(const WebServiceError& other) {
    if (this != &other) {
        m_code = other.m_code;
        replaceText(m_severity, other.m_severity);
        replaceText(m_server, other.m_server);
        replaceText(m_source, other.m_source);
        replaceText(m_description, other.m_description);
    }
    return *this;
}

void WebServiceError::severity(const wchar_t* text) {
    replaceText(m_severity, text);
}
void WebServiceError::server(const wchar_t* text) {
    replaceText(m_server, text);
}
void WebServiceError::source(const wchar_t* text) {
    replaceText(m_source, text);
}
void WebServiceError::description(const wchar_t* text) {
    replaceText(m_description, text);
}

// ------------------------------------------------------------ FieldDefinition

FieldDefinition::FieldDefinition(const wchar_t* name, wchar_t type)
    : m_name(copyText(name != nullptr ? name : L"")), m_type(type) {}

FieldDefinition::~FieldDefinition() {
    ACE::strdelete(m_name);
}

// ------------------------------------------------------------------ Field

Field::Field(const wchar_t* name)
    : m_name(copyText(name != nullptr ? name : L"")), m_value(nullptr) {}

Field::Field(const Field& other)
    : m_name(copyText(other.m_name)), m_value(copyText(other.m_value)) {}

Field::~Field() {
    ACE::strdelete(m_name);
    ACE::strdelete(m_value);
}

void Field::value(const wchar_t* value) {
    if (m_value == nullptr)
        m_value = copyText(value);
}

int Field::toInt() const {
    return wtoi(m_value);
}

// ------------------------------------------------------------------ Record

bool Record::NameLess::operator()(const wchar_t* left, const wchar_t* right) const {
    return std::wcscmp(left, right) < 0;
}

Record::Record() : m_count(0) {}

Record::~Record() {
    for (auto& entry : m_fields)
        delete entry.second;
}

int Record::add_field(Field* field) {
    if (!m_fields.emplace(field->name(), field).second)
        delete field;
    ++m_count;
    return 0;
}

Field* Record::field(const wchar_t* name) const {
    const auto found = name != nullptr ? m_fields.find(name) : m_fields.end();
    if (found == m_fields.end()) {
        TW_LOG("%D DEBUG (%t): No such field %W\n", name != nullptr ? name : L"");
        return nullptr;
    }
    return found->second;
}

std::string Record::getValue(const std::string& name, bool unescape) const {
    std::wstring wide;
    const Field* const found = utf8towcs(name.c_str(), wide) ? field(wide.c_str()) : nullptr;
    if (found == nullptr) {
        throw Exception(ERR_RECORD_FIELD, SEVERITY_SEVERE, "Record",
                        "Missing required field: " + name);
    }
    if (found->value() == nullptr) {
        throw Exception(ERR_RECORD_FIELD, SEVERITY_SEVERE, "Record",
                        "Missing required value for field: " + name);
    }
    std::wstring value(found->value());
    std::string text;
    if ((unescape && !unescapeValue(found->value(), value)) || !wcstoutf8(value.c_str(), text)) {
        throw Exception(ERR_RECORD_FIELD, SEVERITY_SEVERE, "Record",
                        "Conversion from wide character failed for field: " + name);
    }
    return text;
}

void Record::setValue(const std::string& name, const std::string& value) {
    const std::wstring wideName = widen(name, name.c_str());
    const std::wstring wideValue = widen(value, value.c_str());
    std::unique_ptr<Field> field(new StringField(wideName.c_str()));
    field->value(wideValue.c_str());
    add_field(field.release());
}

void Record::setValue(const std::string& name, const int64_t& value) {
    const std::wstring wideName = widen(name, name.c_str());
    const std::wstring wideValue = std::to_wstring(value);
    std::unique_ptr<Field> field(new IntegerField(wideName.c_str()));
    field->value(wideValue.c_str());
    add_field(field.release());
}

// --------------------------------------------------------------- RecordSet

RecordSet::RecordSet() : m_cursor(0), m_count(0), m_errorcode(0), m_error(nullptr) {}

RecordSet::~RecordSet() {
    for (Record* record : m_records)
        delete record;
    for (FieldDefinition* definition : m_definitions)
        delete definition;
    delete m_error;
}

Record* RecordSet::next() {
    if (m_cursor >= m_records.size())
        return nullptr;
    return m_records[m_cursor++];
}

void RecordSet::error(WebServiceError* error) {
    if (error != m_error) {
        delete m_error;
        m_error = error;
    }
}

int RecordSet::define(const wchar_t* name, wchar_t type) {
    try {
        std::unique_ptr<FieldDefinition> definition(new FieldDefinition(name, type));
        m_definitions.push_back(definition.get());
        definition.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int RecordSet::insert(Record* record) {
    m_records.push_back(record);
    return ++m_count;
}

int RecordSet::insert(wchar_t* line) {
    std::unique_ptr<Record> record(new (std::nothrow) Record);
    if (!record) {
        errno = ENOMEM;
        return -1;
    }
    for (const FieldDefinition* definition : m_definitions) {
        wchar_t* const separator = std::wcspbrk(line, L"|\n\r");
        if (separator != nullptr)
            *separator = L'\0';
        Field* field = nullptr;
        try {
            switch (definition->type()) {
                case L'I':
                    field = new IntegerField(definition->name());
                    break;
                case L'S':
                case L'C':
                    field = new StringField(definition->name());
                    break;
                default: {
                    const wchar_t letter[2] = {definition->type(), L'\0'};
                    std::string narrow;
                    if (!wcstoutf8(letter, narrow))
                        narrow = "?";
                    TW_LOG("%D ERROR (%t): Unknown field type: %C %W\n", narrow.c_str(),
                           definition->name());
                    break;
                }
            }
            if (field != nullptr) {
                field->value(line);
                record->add_field(field);
            }
        } catch (const std::bad_alloc&) {
            delete field;
            errno = ENOMEM;
        }
        if (separator == nullptr)
            break;
        line = separator + 1;
    }
    try {
        m_records.reserve(m_records.size() + 1);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return insert(record.release());
}

// ------------------------------------------------------------------ parser

int RecordSetParser::parse(const char* body, RecordSet* result) {
    if (result == nullptr) {
        errno = EINVAL;
        return -1;
    }
    wchar_t* const text = utf8towcs_malloced(body);
    if (text == nullptr) {
        TW_LOG(
            "%D ERROR (%t): Could not convert webservice result to wide character string from "
            "UTF-8: %m.\n");
        return -1;
    }
    int status = -1;
    wchar_t* const marker = std::wcsstr(text, L"***");
    if (marker != nullptr) {
        if (startsWith(marker, L"***BEGIN***") || startsWith(marker, L"***START***"))
            status = parse_normal(marker, result);
        else if (startsWith(marker, L"***ERROR***"))
            status = parse_error(marker, result);
    }
    wcsfree(text);
    return status;
}

int RecordSetParser::parse_normal(wchar_t* text, RecordSet* result) {
    wchar_t* const end1 = lineEnd(text);
    if (end1 == nullptr)
        return -1;
    result->errorcode(wtoi(end1 + 1));
    wchar_t* const end2 = lineEnd(end1 + 1);
    if (end2 == nullptr)
        return -1;
    wchar_t* names = end2 + 1;
    wchar_t* const end3 = lineEnd(names);
    if (end3 == nullptr)
        return -1;
    *end3 = L'\0';
    wchar_t* types = end3 + 1;
    wchar_t* const end4 = lineEnd(types);
    if (end4 == nullptr)
        return -1;
    *end4 = L'\0';
    wchar_t* body = end4 + 1;

    // Names and types pair up token by token; the shorter list ends the walk.
    for (;;) {
        wchar_t* const nameBar = std::wcschr(names, L'|');
        wchar_t* const typeBar = std::wcschr(types, L'|');
        if (nameBar != nullptr)
            *nameBar = L'\0';
        if (typeBar != nullptr)
            *typeBar = L'\0';
        if (result->define(names, types[0]) != 0)
            return -1;
        if (nameBar == nullptr || typeBar == nullptr)
            break;
        names = nameBar + 1;
        types = typeBar + 1;
    }

    while (std::wcsncmp(body, L"***DONE***", 10) != 0) {
        wchar_t* const end = lineEnd(body);
        if (end == nullptr)
            break;
        *end = L'\0';
        result->insert(body);
        body = end + 1;
    }
    result->reset();
    return 0;
}

int RecordSetParser::parse_error(wchar_t* text, RecordSet* result) {
    std::unique_ptr<WebServiceError> error(new (std::nothrow) WebServiceError);
    if (!error) {
        errno = ENOMEM;
        return -1;
    }
    wchar_t* const end1 = lineEnd(text);
    if (end1 == nullptr)
        return -1;
    error->code(wtoi(end1 + 1));
    wchar_t* const end2 = lineEnd(end1 + 1);
    if (end2 == nullptr)
        return -1;

    wchar_t* line = end2 + 1;
    bool ended = false;
    for (int pass = 0; pass < 10; ++pass) {
        wchar_t* const end = lineEnd(line);
        if (end == nullptr) {
            result->error(error.release());
            return 0;
        }
        if (startsWith(line, L"severity: ")) {
            *end = L'\0';
            error->severity(line + 10);
        } else if (startsWith(line, L"server: ")) {
            *end = L'\0';
            error->server(line + 8);
        } else if (startsWith(line, L"source: ")) {
            *end = L'\0';
            error->source(line + 8);
        } else {
            ended = true;
            break;
        }
        line = end + 1;
    }
    if (ended && startsWith(line, L"description:")) {
        wchar_t* const done = std::wcsstr(line, L"***DONE***");
        wchar_t* const text = line + 13;
        if (done != nullptr) {
            // The line end in front of the end marker closes the last line
            // of the text and isn't part of it.
            wchar_t* cut = done;
            if (cut > text && (cut[-1] == L'\n' || cut[-1] == L'\r'))
                --cut;
            *cut = L'\0';
        }
        // The text begins one character behind the colon; an end marker
        // within that reach leaves it empty.
        error->description(done != nullptr && done < text ? L"" : text);
    }
    result->error(error.release());
    return 0;
}

int parseRecordSet(const char* body, RecordSet* result) {
    return RecordSetParser::parse(body, result);
}

}  // namespace Tarnwick
