// Tests of Directory_Iterator: the entries of one directory as full paths,
// with and without a filter.
#include <tarnwick/directory_iterator.h>

#include <gtest/gtest.h>
#include <scratch_dir.h>
#include <wide_text.h>

#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <string>

using Tarnwick::Directory_Iterator;
using TarnwickTest::narrow;
using TarnwickTest::ScratchDir;
using TarnwickTest::wide;

namespace {

void touch(const std::string& path) {
    std::ofstream(path) << "x";
}

std::set<std::string> walk(Directory_Iterator& iterator, const wchar_t* filter) {
    std::set<std::string> found;
    while (const wchar_t* path = iterator.next(filter))
        EXPECT_TRUE(found.insert(narrow(path)).second) << "given twice: " << narrow(path);
    return found;
}

TEST(Directory_Iterator, EmptyDirectoryGivesNullAtOnce) {
    ScratchDir dir("tarnwick-diriter");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path()).c_str()));
    EXPECT_EQ(nullptr, iterator.next(nullptr));
    EXPECT_EQ(nullptr, iterator.next(nullptr)) << "stays at the end";
}

TEST(Directory_Iterator, GivesEveryEntryAsAFullPathWithoutDescending) {
    ScratchDir dir("tarnwick-diriter");
    touch(dir.path() + "/a.txt");
    touch(dir.path() + "/b");
    ASSERT_EQ(0, ::mkdir((dir.path() + "/sub").c_str(), 0700));
    touch(dir.path() + "/sub/inner");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path()).c_str()));
    std::set<std::string> const expected = {dir.path() + "/a.txt", dir.path() + "/b",
                                            dir.path() + "/sub"};
    EXPECT_EQ(expected, walk(iterator, nullptr));
}

TEST(Directory_Iterator, FilterIsACaseSensitiveSubstring) {
    ScratchDir dir("tarnwick-diriter");
    touch(dir.path() + "/catalog.txt");
    touch(dir.path() + "/LOG.txt");
    touch(dir.path() + "/log");
    touch(dir.path() + "/other");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path()).c_str()));
    std::set<std::string> const expected = {dir.path() + "/catalog.txt", dir.path() + "/log"};
    EXPECT_EQ(expected, walk(iterator, L"log"));
}

TEST(Directory_Iterator, WildcardsAreText) {
    ScratchDir dir("tarnwick-diriter");
    touch(dir.path() + "/a.log");
    touch(dir.path() + "/b*.log");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path()).c_str()));
    std::set<std::string> const expected = {dir.path() + "/b*.log"};
    EXPECT_EQ(expected, walk(iterator, L"*"));
}

TEST(Directory_Iterator, TrailingSeparatorIsNotDoubled) {
    ScratchDir dir("tarnwick-diriter");
    touch(dir.path() + "/f");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path() + "/").c_str()));
    const wchar_t* const path = iterator.next(nullptr);
    ASSERT_NE(nullptr, path);
    EXPECT_EQ(dir.path() + "/f", narrow(path));
}

TEST(Directory_Iterator, NamesThatAreNotUtf8AreSkipped) {
    ScratchDir dir("tarnwick-diriter");
    touch(dir.path() + "/bad\xff\xfe");
    touch(dir.path() + "/good-\xc3\xa9");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(dir.path()).c_str()));
    std::set<std::string> const expected = {dir.path() + "/good-\xc3\xa9"};
    EXPECT_EQ(expected, walk(iterator, nullptr));
}

TEST(Directory_Iterator, Failures) {
    ScratchDir dir("tarnwick-diriter");
    Directory_Iterator iterator;
    EXPECT_EQ(nullptr, iterator.next(nullptr)) << "before open";
    errno = 0;
    EXPECT_EQ(-1, iterator.open(wide(dir.path() + "/missing").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(nullptr, iterator.next(nullptr));
    touch(dir.path() + "/file");
    errno = 0;
    EXPECT_EQ(-1, iterator.open(wide(dir.path() + "/file").c_str()));
    EXPECT_EQ(ENOTDIR, errno);
    errno = 0;
    EXPECT_EQ(-1, iterator.open(nullptr));
    EXPECT_EQ(EINVAL, errno);
}

TEST(Directory_Iterator, OpenAgainStartsANewWalk) {
    ScratchDir one("tarnwick-diriter");
    ScratchDir two("tarnwick-diriter");
    touch(one.path() + "/first");
    touch(two.path() + "/second");
    Directory_Iterator iterator;
    ASSERT_EQ(0, iterator.open(wide(one.path()).c_str()));
    ASSERT_EQ(0, iterator.open(wide(two.path()).c_str()));
    std::set<std::string> const expected = {two.path() + "/second"};
    EXPECT_EQ(expected, walk(iterator, nullptr));
    ASSERT_EQ(0, iterator.open(wide(two.path()).c_str()));
    EXPECT_EQ(expected, walk(iterator, nullptr)) << "from the start again";
}

}  // namespace
