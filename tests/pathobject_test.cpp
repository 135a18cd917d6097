// Path objects: logical records, records of files on disk, the text form
// and its round trip, the directory generator, and the URL coding of paths.
#include <tarnwick/path_encoder.h>
#include <tarnwick/pathobject.h>

#include "../tarnwick/store_client.h"
#include "log_capture.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

using Tarnwick::Path_Encoder;
using Tarnwick::PathObject;
using Tarnwick::PathObjectGenerator;
using Tarnwick::POFields;
using TarnwickTest::LogCapture;
using TarnwickTest::ScratchDir;

namespace {

struct Deleter {
    void operator()(PathObject* object) const { PathObject::doDelete(object); }
};
typedef std::unique_ptr<PathObject, Deleter> Owned;

POFields fieldsOf(const PathObject& object) {
    POFields fields;
    EXPECT_TRUE(Tarnwick::POGetFields(object.handle(), fields));
    return fields;
}

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

}  // namespace

TEST(PathObject, LogicalPathWithoutSeparatorHasDotDirectory) {
    Owned object(PathObject::fromLogicalPath(L"file", true, false));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ(".", fields.dirname);
    EXPECT_EQ("file", fields.basename);
    EXPECT_EQ(Tarnwick::PO_TYPE_FILE, fields.type);
    EXPECT_EQ(32, fields.flags);
}

TEST(PathObject, LogicalPathAtRootHasEmptyDirectory) {
    Owned object(PathObject::fromLogicalPath(L"/file", false, true));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ("", fields.dirname);
    EXPECT_EQ("file", fields.basename);
    EXPECT_EQ(Tarnwick::PO_TYPE_DIRECTORY, fields.type);
    EXPECT_EQ(0, fields.flags);
}

TEST(PathObject, LogicalPathWithTrailingSeparatorHasEmptyBaseName) {
    Owned object(PathObject::fromLogicalPath(L"a/b/", true, false));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ("a/b", fields.dirname);
    EXPECT_EQ("", fields.basename);
}

TEST(PathObject, BackslashIsNoSeparator) {
    Owned object(PathObject::fromLogicalPath(L"a\\b", true, false));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ(".", fields.dirname);
    EXPECT_EQ("a\\b", fields.basename);
}

TEST(PathObject, LongLogicalDirectoryIsCutAt260) {
    std::wstring const path = std::wstring(300, L'd') + L"/name";
    Owned object(PathObject::fromLogicalPath(path.c_str(), true, false));
    ASSERT_TRUE(object);
    EXPECT_EQ(std::string(260, 'd'), fieldsOf(*object).dirname);
}

TEST(PathObject, LogicalPathThatIsNoTextIsLogged) {
    LogCapture capture;
    wchar_t const path[] = {L'a', L'/', static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ(nullptr, PathObject::fromLogicalPath(path, true, false));
    EXPECT_EQ(
        std::vector<std::string>{"%D ERROR (%t): Cannot set basename in PO: invalid argument"},
        capture.lines());
}

TEST(PathObject, ToStringTwiceGivesTheSameKeptText) {
    Owned object(PathObject::fromLogicalPath(L"dir/name", true, false));
    ASSERT_TRUE(object);
    const char* const first = object->toString();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, object->toString());
    EXPECT_STREQ(
        "PO1\t0\t32\t0\t0\t0\t0\t0\t0.000000000\t0.000000000\t0.000000000\t0\t\tdir\tname\t",
        first);
}

TEST(PathObject, DoDeleteOfNullDoesNothing) {
    PathObject::doDelete(nullptr);
}

TEST(PathObject, FromPathRecordsTheStatData) {
    ScratchDir dir("pathobject");
    std::string const file = dir.path() + "/data.bin";
    writeFile(file, "twelve bytes");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0640));
    struct stat st;
    ASSERT_EQ(0, ::lstat(file.c_str(), &st));
    Owned object(PathObject::fromPath(wide(file).c_str()));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ(Tarnwick::PO_TYPE_FILE, fields.type);
    EXPECT_EQ(255, fields.mask);
    EXPECT_EQ(st.st_mode, fields.mode);
    EXPECT_EQ(st.st_uid, fields.uid);
    EXPECT_EQ(st.st_gid, fields.gid);
    EXPECT_EQ(12u, fields.size);
    EXPECT_EQ(st.st_mtim.tv_sec, fields.mtime_sec);
    EXPECT_EQ(st.st_mtim.tv_nsec, fields.mtime_nsec);
    EXPECT_EQ(dir.path(), fields.dirname);
    EXPECT_EQ("data.bin", fields.basename);
    EXPECT_EQ("empty", fields.volume);
}

TEST(PathObject, FromPathRecordsASymbolicLinkAsALink) {
    ScratchDir dir("pathobject");
    std::string const link = dir.path() + "/link";
    ASSERT_EQ(0, ::symlink("target/elsewhere", link.c_str()));
    Owned object(PathObject::fromPath(wide(link).c_str()));
    ASSERT_TRUE(object);
    POFields const fields = fieldsOf(*object);
    EXPECT_EQ(Tarnwick::PO_TYPE_SYMLINK, fields.type);
    EXPECT_EQ("target/elsewhere", fields.link);
}

TEST(PathObject, FromPathOfAMissingFileLogsTheStatus) {
    ScratchDir dir("pathobject");
    std::string const missing = dir.path() + "/missing";
    LogCapture capture;
    EXPECT_EQ(nullptr, PathObject::fromPath(wide(missing).c_str()));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): Could not access " + missing +
                                       ": no such file or directory"},
              capture.lines());
}

TEST(PathObject, TextFormRoundTripsNamesThatAreNotUTF8) {
    ScratchDir dir("pathobject");
    std::string const file = dir.path() + "/" + std::string("odd\xff\x01%x");
    writeFile(file, "x");
    // A name that isn't UTF-8 has no wide form: the generator reads it.
    PathObjectGenerator generator;
    ASSERT_EQ(0, generator.open(wide(dir.path()).c_str()));
    Owned object(generator.next());
    ASSERT_TRUE(object);
    const char* const text = object->toString();
    ASSERT_NE(nullptr, text);
    EXPECT_NE(nullptr, std::strstr(text, "\todd%FF%01%25x\t"));
    Owned copy(PathObject::fromString(text));
    ASSERT_TRUE(copy);
    EXPECT_EQ("odd\xff\x01%x", fieldsOf(*copy).basename);
    EXPECT_STREQ(text, copy->toString());
}

TEST(PathObject, MalformedTextGivesNull) {
    EXPECT_EQ(nullptr, PathObject::fromString("PO2\t0"));
    EXPECT_EQ(Tarnwick::CR_E_PARSE, *Tarnwick::cr_errno_location());
    EXPECT_EQ(nullptr,
              PathObject::fromString(
                  "PO1\tx\t0\t0\t0\t0\t0\t0\t0.000000000\t0.000000000\t0.000000000\t0\t\t.\tn\t"));
    EXPECT_EQ(nullptr, PathObject::fromString(nullptr));
}

TEST(PathObjectGenerator, EmptyDirectoryGivesNullAtEof) {
    ScratchDir dir("pathobject");
    PathObjectGenerator generator;
    ASSERT_EQ(0, generator.open(wide(dir.path()).c_str()));
    EXPECT_EQ(nullptr, generator.next());
    EXPECT_TRUE(generator.eof());
    EXPECT_FALSE(generator.error());
}

TEST(PathObjectGenerator, GivesEveryEntryOnce) {
    ScratchDir dir("pathobject");
    writeFile(dir.path() + "/a", "1");
    writeFile(dir.path() + "/b", "22");
    ASSERT_EQ(0, ::mkdir((dir.path() + "/sub").c_str(), 0755));
    PathObjectGenerator generator;
    ASSERT_EQ(0, generator.open(wide(dir.path()).c_str()));
    std::set<std::string> names;
    while (PathObject* const object = generator.next()) {
        Owned owned(object);
        POFields const fields = fieldsOf(*object);
        names.insert(fields.basename + ":" + std::to_string(fields.type));
    }
    EXPECT_TRUE(generator.eof());
    EXPECT_FALSE(generator.error());
    EXPECT_EQ((std::set<std::string>{"a:0", "b:0", "sub:1"}), names);
}

TEST(PathObjectGenerator, OpenOfAMissingDirectoryFails) {
    ScratchDir dir("pathobject");
    PathObjectGenerator generator;
    EXPECT_EQ(-1, generator.open(wide(dir.path() + "/missing").c_str()));
}

TEST(PathEncoderURL, EncodeGivesURLEncodedUTF8AndDecodeReverses) {
    char out[64];
    ASSERT_EQ(out, Path_Encoder::encode(L"a b/\u00e9~", out));
    EXPECT_STREQ("a%20b%2F%C3%A9~", out);
    wchar_t back[64];
    ASSERT_EQ(back, Path_Encoder::decode(out, back));
    EXPECT_STREQ(L"a b/\u00e9~", back);
}

TEST(PathEncoderURL, DecodeRefusesBadEscapesAndBytesThatAreNotUTF8) {
    wchar_t back[16];
    EXPECT_EQ(nullptr, Path_Encoder::decode("%G1", back));
    EXPECT_EQ(nullptr, Path_Encoder::decode("%FF", back));
    EXPECT_EQ(nullptr, Path_Encoder::decode("a%2", back));
    char out[16];
    wchar_t const surrogate[] = {static_cast<wchar_t>(0xDC00), 0};
    EXPECT_EQ(nullptr, Path_Encoder::encode(surrogate, out));
}
