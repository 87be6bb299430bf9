#include "platform/NplFile.h"
#include "platform/NplTime.h"
#include "platform/NplTypes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(NplTypesTest, RelativeTimespec)
{
    struct timespec ts = NplMakeRelativeTimespec(NplTimeout(1500000001));
    EXPECT_EQ(ts.tv_sec, 1);
    EXPECT_EQ(ts.tv_nsec, 500000001);
    ts = NplMakeRelativeTimespec(NplTimeout(999));
    EXPECT_EQ(ts.tv_sec, 0);
    EXPECT_EQ(ts.tv_nsec, 999);
    for (int64_t value : {int64_t(0), int64_t(-1), int64_t(-5000000000)}) {
        ts = NplMakeRelativeTimespec(NplTimeout(value));
        EXPECT_EQ(ts.tv_sec, 0);
        EXPECT_EQ(ts.tv_nsec, 0);
    }
    EXPECT_TRUE(NplTimeout().IsInfinite());
    EXPECT_FALSE(NplTimeout(0).IsInfinite());
    EXPECT_EQ(Int64(-7).Value(), -7);
}

TEST(NplTimeTest, ClocksAndTimeString)
{
    const int64_t a = NplTime_GetMonotonicNanoseconds();
    const int64_t b = NplTime_GetMonotonicNanoseconds();
    EXPECT_LE(a, b);
    // After 2020 in nanoseconds since the epoch.
    EXPECT_GT(NplTime_GetTimeOfDayNanoseconds(), int64_t(1577836800) * 1000000000);

    char text[32];
    const size_t length = NplTime_GetCurrentTimeString(text, sizeof text);
    EXPECT_EQ(length, strlen(text));
    EXPECT_EQ(length, strlen("2024-01-02 03:04:05.678 "));
    EXPECT_EQ(text[4], '-');
    EXPECT_EQ(text[10], ' ');
    EXPECT_EQ(text[19], '.');
    char small[8];
    EXPECT_EQ(NplTime_GetCurrentTimeString(small, sizeof small), 7u);
    EXPECT_EQ(strlen(small), 7u);
}

TEST(NplFileTest, AddPathComponentPutsOneSlash)
{
    EXPECT_EQ(NplFile_AddPathComponent("/tmp", "a.log"), "/tmp/a.log");
    EXPECT_EQ(NplFile_AddPathComponent("/tmp/", "a.log"), "/tmp/a.log");
    EXPECT_EQ(NplFile_AddPathComponent("/tmp//", "/a.log"), "/tmp/a.log");
    EXPECT_EQ(NplFile_AddPathComponent("/", "etc"), "/etc");
    EXPECT_EQ(NplFile_AddPathComponent("", "etc"), "etc");
    EXPECT_EQ(NplFile_AddPathComponent("dir", ""), "dir/");
}

TEST(NplFileTest, DeleteFolderRemovesTheTreeButNotLinkTargets)
{
    char root[] = "/tmp/npl-file-test-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string base = root;
    const std::string keep = base + "-keep";
    std::ofstream(keep) << "outside";
    const std::string tree = NplFile_AddPathComponent(base, "tree");
    ASSERT_EQ(mkdir(tree.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((tree + "/sub").c_str(), 0700), 0);
    std::ofstream(tree + "/sub/file.txt") << "x";
    std::ofstream(tree + "/top.txt") << "y";
    ASSERT_EQ(symlink(keep.c_str(), (tree + "/link").c_str()), 0);

    EXPECT_TRUE(NplFile_FileExists(tree + "/sub/file.txt"));
    EXPECT_TRUE(NplFile_DeleteFolder(tree));
    EXPECT_FALSE(NplFile_FileExists(tree));
    EXPECT_TRUE(NplFile_FileExists(keep));
    // Deleting what is not there counts as gone.
    EXPECT_TRUE(NplFile_DeleteFolder(tree));
    EXPECT_FALSE(NplFile_DeleteFolder(""));
    EXPECT_FALSE(NplFile_FileExists(""));

    EXPECT_TRUE(NplFile_DeleteFolder(base));
    unlink(keep.c_str());
}

} // namespace
