// Result sets: the tabular answer of a web service call, or the error block
// the management server sent instead, and the parser of the text that
// carries them.
//
// The server's text is UTF-8 and line oriented. Everything before the first
// "***" is ignored; the eleven characters there choose the form:
//
//   ***BEGIN*** (or ***START***)      ***ERROR***
//   <error code>                       <error code>
//   name|name|...                      severity: <text>   (any order, at most
//   type|type|...                      server: <text>      ten such lines)
//   value|value|...   (one per row)    source: <text>
//   ***DONE***                         description: <text, many lines>
//                                      ***DONE***
//
// A line ends at one CR or one LF; a CR LF pair counts as two line ends.
// Type letters: "I" integer, "S" and "C" string.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tarnwick {

class RecordSetParser;
class WebService;

// The error block of a response: a code and four texts, each null when the
// server didn't send it. Owns its texts.
class TARNWICK_EXPORT WebServiceError {
public:
    WebServiceError();
    ~WebServiceError();
    // Copies are deep: each object owns its texts.
    WebServiceError(const WebServiceError& other);
    WebServiceError& operator=(const WebServiceError& other);

    void code(int code) { m_code = code; }
    int code() const { return m_code; }
    // Each setter replaces the text by a copy of `text` (null clears it).
    void severity(const wchar_t* text);
    void server(const wchar_t* text);
    void source(const wchar_t* text);
    void description(const wchar_t* text);
    const wchar_t* severity() const { return m_severity; }
    const wchar_t* server() const { return m_server; }
    const wchar_t* source() const { return m_source; }
    const wchar_t* description() const { return m_description; }

private:
    int m_code;
    wchar_t* m_severity;
    wchar_t* m_server;
    wchar_t* m_source;
    wchar_t* m_description;
};

// One column of a table: its name and its type letter.
class TARNWICK_EXPORT FieldDefinition {
public:
    FieldDefinition(const wchar_t* name, wchar_t type);
    ~FieldDefinition();
    FieldDefinition(const FieldDefinition&) = delete;
    FieldDefinition& operator=(const FieldDefinition&) = delete;

    const wchar_t* name() const { return m_name; }
    wchar_t type() const { return m_type; }

private:
    wchar_t* m_name;
    wchar_t m_type;
};

// One value of a record, under its column name. The value is null until it
// is set, and the first value set stays.
class TARNWICK_EXPORT Field {
public:
    enum Type { INTEGER = 1, STRING = 2 };

    explicit Field(const wchar_t* name);
    Field(const Field& other);
    Field& operator=(const Field&) = delete;
    virtual ~Field();

    virtual Type type() const = 0;

    const wchar_t* name() const { return m_name; }
    const wchar_t* value() const { return m_value; }
    // Stores a copy of `value` unless a value is already set; later calls
    // change nothing.
    void value(const wchar_t* value);
    // The value read as a decimal int the way _wtoi reads it: leading blanks
    // and a sign are taken, reading stops at the first other character, and
    // text that isn't a number (or no value) gives 0.
    int toInt() const;

private:
    wchar_t* m_name;
    wchar_t* m_value;
};

class TARNWICK_EXPORT IntegerField : public Field {
public:
    explicit IntegerField(const wchar_t* name) : Field(name) {}
    IntegerField(const IntegerField& other) : Field(other) {}
    Type type() const override { return INTEGER; }
};

class TARNWICK_EXPORT StringField : public Field {
public:
    explicit StringField(const wchar_t* name) : Field(name) {}
    StringField(const StringField& other) : Field(other) {}
    Type type() const override { return STRING; }
};

// One row: its fields by name (names compared code unit by code unit). Owns
// its fields. Narrow names and values at this interface are UTF-8.
class TARNWICK_EXPORT Record {
public:
    Record();
    ~Record();
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    // The number of fields added, including those whose name was already
    // taken (and which the record didn't keep).
    int count() const { return m_count; }
    // The field of that name, owned by the record; null (logged at debug
    // priority) when there is none.
    Field* field(const wchar_t* name) const;
    // The value of a field as UTF-8. With `unescape` the store's escaping is
    // removed from it first. Throws Exception (6, severity 5, "Record") when
    // the field or its value is missing or the value doesn't convert.
    std::string getValue(const std::string& name, bool unescape = false) const;
    // Add a string or integer field; a name already present keeps its field
    // and only the count rises. Throws Exception (1, severity 6) when the
    // name or value isn't valid UTF-8.
    void setValue(const std::string& name, const std::string& value);
    void setValue(const std::string& name, const int64_t& value);

protected:
    friend class RecordSet;
    friend class RecordSetParser;
    // Takes ownership of `field` and files it under its name; a name that is
    // already present keeps the earlier field and `field` is deleted. The
    // count rises in both cases. Returns 0.
    int add_field(Field* field);

private:
    struct NameLess {
        bool operator()(const wchar_t* left, const wchar_t* right) const;
    };
    std::map<const wchar_t*, Field*, NameLess> m_fields;
    int m_count;
};

// The result of one call: the column definitions and the records of a table
// in arrival order, the error code of the table, or the server's error
// block. Owns everything it holds. Not copyable.
class TARNWICK_EXPORT RecordSet {
public:
    typedef std::vector<FieldDefinition*>::const_iterator const_iterator;

    RecordSet();
    ~RecordSet();
    RecordSet(const RecordSet&) = delete;
    RecordSet& operator=(const RecordSet&) = delete;

    // The number of records inserted.
    int count() const { return m_count; }
    // The error block the server sent, owned by the set; null when none.
    WebServiceError* error() const { return m_error; }
    // The error code of a table (its second line).
    int errorcode() const { return m_errorcode; }
    // Rewinds the cursor to the first record.
    void reset() { m_cursor = 0; }
    // The record at the cursor (owned by the set), and a step forward; null
    // at the end.
    Record* next();
    // The column definitions.
    const_iterator begin() const { return m_definitions.begin(); }
    const_iterator iter() const { return m_definitions.begin(); }
    const_iterator end() const { return m_definitions.end(); }

protected:
    friend class RecordSetParser;
    friend class WebService;
    // Takes ownership of `error`, replacing (and deleting) an earlier one.
    void error(WebServiceError* error);
    void errorcode(int code) { m_errorcode = code; }
    // Appends a column definition; 0, or -1 with errno ENOMEM.
    int define(const wchar_t* name, wchar_t type);
    // Appends `record` (ownership passes) and returns the new count.
    int insert(Record* record);
    // Makes a record of one row: values in `line` separated by "|", one per
    // definition, cut in place. Returns the new count, or -1 with errno
    // ENOMEM.
    int insert(wchar_t* line);

private:
    size_t m_cursor;
    std::vector<Record*> m_records;
    std::vector<FieldDefinition*> m_definitions;
    int m_count;
    int m_errorcode;
    WebServiceError* m_error;
};

// Converts the UTF-8 response `body` and parses it into `result`. 0 when a
// table or an error block was understood (an error block is then in
// result->error()); -1 for text that doesn't convert (logged), has no
// marker or an unknown one, or is cut off in its first lines, and for a null
// argument (errno EINVAL).
TARNWICK_EXPORT int parseRecordSet(const char* body, RecordSet* result);

}  // namespace Tarnwick
