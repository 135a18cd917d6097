// Result sets: the parser of the server's text on in-memory bodies, and the
// containers a caller reads.
#include <tarnwick/exception.h>
#include <tarnwick/recordset.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_lines.h"

using Tarnwick::Exception;
using Tarnwick::Field;
using Tarnwick::FieldDefinition;
using Tarnwick::IntegerField;
using Tarnwick::Record;
using Tarnwick::RecordSet;
using Tarnwick::StringField;
using Tarnwick::WebServiceError;
using TarnwickTest::LogLines;

namespace {

const char kTable[] = "***BEGIN***\n0\na|b\nI|S\n1|x\n***DONE***\n";

std::wstring text(const wchar_t* value) {
    return value != nullptr ? std::wstring(value) : std::wstring(L"<null>");
}

std::vector<std::wstring> columns(const RecordSet& set) {
    std::vector<std::wstring> names;
    for (RecordSet::const_iterator it = set.begin(); it != set.end(); ++it)
        names.push_back(std::wstring((*it)->name()) + L":" + std::wstring(1, (*it)->type()));
    return names;
}

// The exception that `call` throws; a default one when it throws none.
template <typename Call>
Exception thrown(Call call) {
    try {
        call();
    } catch (const Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no exception";
    return Exception();
}

}  // namespace

// ---------------------------------------------------------------- tables

TEST(RecordSetParseTest, TableOfOneRow) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet(kTable, &set));
    EXPECT_EQ(1, set.count());
    EXPECT_EQ(0, set.errorcode());
    EXPECT_EQ(nullptr, set.error());
    EXPECT_EQ(std::vector<std::wstring>({L"a:I", L"b:S"}), columns(set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->count());
    Field* const a = record->field(L"a");
    Field* const b = record->field(L"b");
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(Field::INTEGER, a->type());
    EXPECT_EQ(1, static_cast<int>(a->type()));
    EXPECT_NE(nullptr, dynamic_cast<IntegerField*>(a));
    EXPECT_EQ(L"1", text(a->value()));
    EXPECT_EQ(1, a->toInt());
    EXPECT_EQ(Field::STRING, b->type());
    EXPECT_EQ(2, static_cast<int>(b->type()));
    EXPECT_NE(nullptr, dynamic_cast<StringField*>(b));
    EXPECT_EQ(L"x", text(b->value()));
    EXPECT_EQ("1", record->getValue("a", false));
    EXPECT_EQ("x", record->getValue("b", false));
    EXPECT_EQ(nullptr, set.next());
    set.reset();
    EXPECT_EQ(record, set.next());
}

TEST(RecordSetParseTest, TextAheadOfTheMarkerIsIgnored) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet((std::string("Warning") + kTable).c_str(), &set));
    EXPECT_EQ(1, set.count());
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ("1", record->getValue("a"));
    EXPECT_EQ("x", record->getValue("b"));
}

TEST(RecordSetParseTest, StartMarkerTextBehindTheMarkerAndTheErrorCode) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("junk ***START*** trailing words\n42\nn|c\nS|C\nu|v\n"
                                          "w|z\n***DONE***\n",
                                          &set));
    EXPECT_EQ(42, set.errorcode());
    EXPECT_EQ(2, set.count());
    EXPECT_EQ(std::vector<std::wstring>({L"n:S", L"c:C"}), columns(set));
    Record* const first = set.next();
    Record* const second = set.next();
    ASSERT_NE(nullptr, second);
    EXPECT_EQ("u", first->getValue("n"));
    EXPECT_EQ("v", first->getValue("c"));
    EXPECT_EQ(Field::STRING, first->field(L"c")->type());
    EXPECT_EQ("w", second->getValue("n"));
    EXPECT_EQ("z", second->getValue("c"));
}

TEST(RecordSetParseTest, ErrorCodeThatIsNoNumberReadsAsZero) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\nabc\na\nI\n***DONE***\n", &set));
    EXPECT_EQ(0, set.errorcode());
    RecordSet negative;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n -7x\na\nI\n***DONE***\n", &negative));
    EXPECT_EQ(-7, negative.errorcode());
}

TEST(RecordSetParseTest, NoRowsGivesAnEmptySet) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nI|S\n***DONE***\n", &set));
    EXPECT_EQ(0, set.count());
    EXPECT_EQ(nullptr, set.next());
    EXPECT_EQ(2u, columns(set).size());
}

TEST(RecordSetParseTest, BodyCutOffKeepsTheCompleteRows) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nI|S\n1|x\n2|y\n3|z", &set));
    EXPECT_EQ(2, set.count());
    EXPECT_EQ("1", set.next()->getValue("a"));
    EXPECT_EQ("2", set.next()->getValue("a"));
    EXPECT_EQ(nullptr, set.next());
}

TEST(RecordSetParseTest, ShortRowYieldsFewerFields) {
    LogLines log;
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nI|S\n1\n***DONE***\n", &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(1, record->count());
    EXPECT_EQ("1", record->getValue("a"));
    const Exception e = thrown([&]() { record->getValue("b"); });
    EXPECT_EQ(Tarnwick::ERR_RECORD_FIELD, e.getErrNo());
    EXPECT_EQ(6, static_cast<int>(e.getErrNo()));
    EXPECT_EQ(5, static_cast<int>(e.getSeverity()));
    EXPECT_EQ("Record", e.getSource());
    EXPECT_EQ("Missing required field: b", e.getDescription());
    EXPECT_TRUE(log.has("%D DEBUG (%t): No such field b"));
}

TEST(RecordSetParseTest, LongRowDropsTheValuesBeyondTheColumns) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nI|S\n1|x|extra|more\n***DONE***\n",
                                          &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->count());
    EXPECT_EQ("x", record->getValue("b"));
}

TEST(RecordSetParseTest, EmptyValuesStayEmptyNotMissing) {
    RecordSet set;
    ASSERT_EQ(0,
              Tarnwick::parseRecordSet("***BEGIN***\n0\na|b|c\nS|S|S\nx||z\n***DONE***\n", &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(3, record->count());
    ASSERT_NE(nullptr, record->field(L"b")->value());
    EXPECT_EQ(L"", text(record->field(L"b")->value()));
    EXPECT_EQ("", record->getValue("b"));
    EXPECT_EQ("z", record->getValue("c"));
}

TEST(RecordSetParseTest, UnknownTypeLetterSkipsTheColumn) {
    LogLines log;
    RecordSet set;
    ASSERT_EQ(
        0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b|c\nI|Xyz|S\n1|2|3\n***DONE***\n", &set));
    EXPECT_EQ(std::vector<std::wstring>({L"a:I", L"b:X", L"c:S"}), columns(set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->count());
    EXPECT_EQ("1", record->getValue("a"));
    EXPECT_EQ("3", record->getValue("c"));
    EXPECT_EQ(nullptr, record->field(L"b"));
    EXPECT_TRUE(log.has("%D ERROR (%t): Unknown field type: X b"));
}

TEST(RecordSetParseTest, ColumnListsOfDifferentLengthPairAsFarAsTheShorterGoes) {
    RecordSet fewerTypes;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b|c\nI|S\n1|2|3\n***DONE***\n",
                                          &fewerTypes));
    EXPECT_EQ(std::vector<std::wstring>({L"a:I", L"b:S"}), columns(fewerTypes));
    RecordSet fewerNames;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nI|S|C\n1|2|3\n***DONE***\n",
                                          &fewerNames));
    EXPECT_EQ(std::vector<std::wstring>({L"a:I", L"b:S"}), columns(fewerNames));
}

TEST(RecordSetParseTest, TwoColumnsOfOneNameKeepTheFirstAndCountBoth) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|a\nS|S\n1|2\n***DONE***\n", &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->count());
    EXPECT_EQ("1", record->getValue("a"));
}

TEST(RecordSetParseTest, CarriageReturnLineFeedIsNotATable) {
    LogLines log;
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\r\n0\r\na|b\r\nI|S\r\n1|x\r\n***DONE***\r\n",
                                          &set));
    // Each CR LF is two line ends: the names line is "0", the types line is
    // the empty line behind it, and "a|b" is taken as the first row.
    EXPECT_EQ(std::vector<std::wstring>({std::wstring(L"0:") + L'\0'}), columns(set));
    EXPECT_EQ(6, set.count());
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(0, record->count());
    EXPECT_EQ(nullptr, record->field(L"a"));
    EXPECT_THROW(record->getValue("a"), Exception);
    EXPECT_EQ(6, log.count("%D ERROR (%t): Unknown field type:  0"));
}

TEST(RecordSetParseTest, UnicodeValuesComeBackAsUtf8) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\nname|Gr\xc3\xb6\xc3\x9f"
                                          "e\nS|I\n\xe2\x82\xac 5|12\n***DONE***\n",
                                          &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ("\xe2\x82\xac 5", record->getValue("name"));
    EXPECT_EQ(L"\u20ac 5", text(record->field(L"name")->value()));
    EXPECT_EQ("12", record->getValue("Gr\xc3\xb6\xc3\x9f"
                                     "e"));
}

TEST(RecordSetParseTest, RowsMayHoldEmptyLines) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\na|b\nS|S\n\n1|2\n***DONE***\n", &set));
    EXPECT_EQ(2, set.count());
    Record* const empty = set.next();
    EXPECT_EQ(1, empty->count());
    EXPECT_EQ("", empty->getValue("a"));
}

// ---------------------------------------------------------- failures

TEST(RecordSetParseTest, NoMarkerUnknownMarkerAndCutHeadsFail) {
    LogLines log;
    const char* const bodies[] = {
        "",
        "no marker at all\n",
        "***\n",
        "***BEGAN***\n0\na\nI\n***DONE***\n",
        "**BEGIN***\n0\na\nI\n***DONE***\n",
        "***BEGIN***",
        "***BEGIN***\n0",
        "***BEGIN***\n0\na|b",
        "***BEGIN***\n0\na|b\nI|S",
        "***ERROR***",
        "***ERROR***\n5",
    };
    for (const char* body : bodies) {
        RecordSet set;
        EXPECT_EQ(-1, Tarnwick::parseRecordSet(body, &set)) << body;
        EXPECT_EQ(0, set.count()) << body;
        EXPECT_EQ(nullptr, set.error()) << body;
    }
    EXPECT_EQ(0u, log.lines().size()) << log.text();
}

TEST(RecordSetParseTest, InvalidUtf8IsLogged) {
    LogLines log;
    RecordSet set;
    EXPECT_EQ(-1, Tarnwick::parseRecordSet("***BEGIN***\n0\na\nS\n\xff\xfe\n***DONE***\n", &set));
    EXPECT_EQ(0, set.count());
    EXPECT_EQ(std::vector<std::string>({"%D ERROR (%t): Could not convert webservice result to "
                                        "wide character string from UTF-8: Invalid or incomplete "
                                        "multibyte or wide character."}),
              log.lines());
}

TEST(RecordSetParseTest, NullArgumentsFail) {
    RecordSet set;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::parseRecordSet(kTable, nullptr));
    EXPECT_EQ(EINVAL, errno);
    LogLines log;
    EXPECT_EQ(-1, Tarnwick::parseRecordSet(nullptr, &set));
    EXPECT_EQ(1u, log.lines().size());
}

// ---------------------------------------------------------- error blocks

TEST(RecordSetErrorTest, FullErrorBlock) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n5\nseverity: high\nserver: s1\nsource: db\n"
                                          "description: broken\n***DONE***\n",
                                          &set));
    const WebServiceError* const error = set.error();
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(5, error->code());
    EXPECT_EQ(L"high", text(error->severity()));
    EXPECT_EQ(L"s1", text(error->server()));
    EXPECT_EQ(L"db", text(error->source()));
    EXPECT_EQ(L"broken", text(error->description()));
    EXPECT_EQ(0, set.count());
}

TEST(RecordSetErrorTest, DescriptionRunsOverLinesToTheEndMarkerOrTheEnd) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("Notice\n***ERROR***\n-3\nsource: a\nsource: b\n"
                                          "description: line one\nline two\n***DONE***\ntail",
                                          &set));
    ASSERT_NE(nullptr, set.error());
    EXPECT_EQ(-3, set.error()->code());
    EXPECT_EQ(L"b", text(set.error()->source()));
    EXPECT_EQ(L"<null>", text(set.error()->severity()));
    EXPECT_EQ(L"line one\nline two", text(set.error()->description()));

    RecordSet open;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n1\ndescription: no end\nmarker", &open));
    ASSERT_NE(nullptr, open.error());
    EXPECT_EQ(L"no end\nmarker", text(open.error()->description()));

    RecordSet tight;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n1\ndescription:x\n***DONE***\n", &tight));
    ASSERT_NE(nullptr, tight.error());
    EXPECT_EQ(L"", text(tight.error()->description()));
}

TEST(RecordSetErrorTest, MoreThanTenHeaderLinesStopAfterTenWithoutDescription) {
    std::string body = "***ERROR***\n7\n";
    for (int i = 0; i < 11; ++i)
        body += "server: s" + std::to_string(i) + "\n";
    body += "description: lost\n***DONE***\n";
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet(body.c_str(), &set));
    ASSERT_NE(nullptr, set.error());
    EXPECT_EQ(7, set.error()->code());
    EXPECT_EQ(L"s9", text(set.error()->server()));
    EXPECT_EQ(nullptr, set.error()->description());
}

TEST(RecordSetErrorTest, BlockEndingEarlyOrWithAnotherLineHasNoDescription) {
    RecordSet ended;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n2\nseverity: low", &ended));
    ASSERT_NE(nullptr, ended.error());
    EXPECT_EQ(2, ended.error()->code());
    EXPECT_EQ(nullptr, ended.error()->severity());
    EXPECT_EQ(nullptr, ended.error()->description());

    RecordSet other;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n2\nseverity: low\nsomething\n"
                                          "description: x\n***DONE***\n",
                                          &other));
    ASSERT_NE(nullptr, other.error());
    EXPECT_EQ(L"low", text(other.error()->severity()));
    EXPECT_EQ(nullptr, other.error()->description());

    RecordSet unterminated;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***ERROR***\n2\ndescription: x", &unterminated));
    ASSERT_NE(nullptr, unterminated.error());
    EXPECT_EQ(nullptr, unterminated.error()->description());
}

// ---------------------------------------------------------- containers

TEST(RecordSetFieldTest, FirstValueStays) {
    StringField field(L"f");
    EXPECT_EQ(nullptr, field.value());
    EXPECT_EQ(0, field.toInt());
    field.value(L"a");
    field.value(L"b");
    EXPECT_EQ(L"a", text(field.value()));
    EXPECT_EQ(L"f", text(field.name()));

    StringField copy(field);
    EXPECT_EQ(L"a", text(copy.value()));
    EXPECT_NE(field.value(), copy.value());
}

TEST(RecordSetFieldTest, ToIntReadsLikeWtoi) {
    const std::pair<const wchar_t*, int> cases[] = {
        {L"42", 42},
        {L"  -17abc", -17},
        {L"+8", 8},
        {L"abc", 0},
        {L"", 0},
        {L"99999999999", 2147483647},
        {L"-99999999999", -2147483647 - 1},
    };
    for (const auto& c : cases) {
        IntegerField field(L"n");
        field.value(c.first);
        EXPECT_EQ(c.second, field.toInt()) << text(c.first);
    }
}

TEST(RecordSetFieldTest, DefinitionKeepsNameAndLetter) {
    FieldDefinition definition(L"col", L'C');
    EXPECT_EQ(L"col", text(definition.name()));
    EXPECT_EQ(L'C', definition.type());
}

TEST(RecordSetFieldTest, ErrorSettersReplaceAndCopiesAreDeep) {
    WebServiceError error;
    EXPECT_EQ(0, error.code());
    EXPECT_EQ(nullptr, error.severity());
    EXPECT_EQ(nullptr, error.description());
    error.code(9);
    error.severity(L"one");
    error.severity(L"two");
    error.server(L"srv");
    error.source(L"src");
    error.description(L"text");
    EXPECT_EQ(L"two", text(error.severity()));

    WebServiceError copy;
    copy = error;
    WebServiceError constructed(error);
    error.description(nullptr);
    EXPECT_EQ(9, copy.code());
    EXPECT_EQ(L"text", text(copy.description()));
    EXPECT_EQ(L"srv", text(constructed.server()));
    EXPECT_EQ(L"src", text(constructed.source()));
    EXPECT_EQ(nullptr, error.description());
}

TEST(RecordSetRecordTest, SetValueAddsAndNeverReplaces) {
    Record record;
    record.setValue("s", std::string("v"));
    record.setValue("n", static_cast<int64_t>(-9000000000LL));
    record.setValue("s", std::string("other"));
    EXPECT_EQ(3, record.count());
    EXPECT_EQ("v", record.getValue("s"));
    EXPECT_EQ("-9000000000", record.getValue("n"));
    EXPECT_EQ(Field::INTEGER, record.field(L"n")->type());
    EXPECT_EQ(Field::STRING, record.field(L"s")->type());
}

TEST(RecordSetRecordTest, MissingFieldAndValueThrowTheirTexts) {
    LogLines log;
    Record record;
    const Exception missing = thrown([&]() { record.getValue("nope"); });
    EXPECT_EQ("Missing required field: nope", missing.getDescription());
    EXPECT_EQ(6, static_cast<int>(missing.getErrNo()));
    EXPECT_EQ(5, static_cast<int>(missing.getSeverity()));
    EXPECT_EQ("Record", missing.getSource());
    EXPECT_TRUE(log.has("%D DEBUG (%t): No such field nope"));
}

TEST(RecordSetRecordTest, InvalidUtf8NameOrValueThrowsConversion) {
    Record record;
    const Exception e = thrown([&]() { record.setValue("bad\xff", std::string("v")); });
    EXPECT_EQ(1, static_cast<int>(e.getErrNo()));
    EXPECT_EQ(6, static_cast<int>(e.getSeverity()));
    EXPECT_EQ("Namespace:Engine", e.getSource());
    EXPECT_EQ("Conversion to string failed for bad\xff", e.getDescription());
    EXPECT_EQ(0, record.count());
}

TEST(RecordSetRecordTest, UnescapeRemovesTheStoreEscaping) {
    RecordSet set;
    ASSERT_EQ(0, Tarnwick::parseRecordSet("***BEGIN***\n0\np|z|bad\nS|S|S\n"
                                          "dir%2Fsub%25x%C3%A9|x%00y|%FF\n***DONE***\n",
                                          &set));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ("dir%2Fsub%25x%C3%A9", record->getValue("p", false));
    EXPECT_EQ("dir/sub%x\xc3\xa9", record->getValue("p", true));
    EXPECT_EQ("x%00y", record->getValue("z", false));
    EXPECT_EQ("Conversion from wide character failed for field: z",
              thrown([&]() { record->getValue("z", true); }).getDescription());
    EXPECT_EQ("%FF", record->getValue("bad", false));
    const Exception e = thrown([&]() { record->getValue("bad", true); });
    EXPECT_EQ(6, static_cast<int>(e.getErrNo()));
    EXPECT_EQ(5, static_cast<int>(e.getSeverity()));
    EXPECT_EQ("Record", e.getSource());
    EXPECT_EQ("Conversion from wide character failed for field: bad", e.getDescription());
}

TEST(RecordSetRecordTest, MissingValueThrowsItsText) {
    // A record made by a caller may hold a field that has no value yet.
    class Bare : public Record {
    public:
        void addBare(const wchar_t* name) { add_field(new StringField(name)); }
    };
    Bare record;
    record.addBare(L"empty");
    const Exception e = thrown([&]() { record.getValue("empty"); });
    EXPECT_EQ("Missing required value for field: empty", e.getDescription());
    EXPECT_EQ(6, static_cast<int>(e.getErrNo()));
}
