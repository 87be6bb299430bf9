#include "platform/NplFile.h"
#include "platform/NplTime.h"
#include "platform/NplTypes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(NplHelpers, RelativeTimespecAndTimeString)
{
    const struct {
        int64_t ns;
        long sec, nsec;
    } cases[] = {{1500000001, 1, 500000001}, {999, 0, 999}, {0, 0, 0}, {-1, 0, 0}, {-5000000000, 0, 0}};
    for (const auto& c : cases) {
        const timespec ts = NplMakeRelativeTimespec(NplTimeout(c.ns));
        EXPECT_EQ(ts.tv_sec, c.sec) << c.ns;
        EXPECT_EQ(ts.tv_nsec, c.nsec) << c.ns;
    }
    char text[32];
    EXPECT_EQ(NplTime_GetCurrentTimeString(text, sizeof text), strlen("2024-01-02 03:04:05.678 "));
    EXPECT_EQ(text[4], '-');
    EXPECT_EQ(text[19], '.');
    char small[8];
    EXPECT_EQ(NplTime_GetCurrentTimeString(small, sizeof small), 7u);
    EXPECT_EQ(strlen(small), 7u);
}

TEST(NplHelpers, PathComponentsAndFolderDeletion)
{
    EXPECT_EQ(NplFile_AddPathComponent("/tmp", "a.log"), "/tmp/a.log");
    EXPECT_EQ(NplFile_AddPathComponent("/tmp//", "/a.log"), "/tmp/a.log");
    EXPECT_EQ(NplFile_AddPathComponent("/", "etc"), "/etc");
    EXPECT_EQ(NplFile_AddPathComponent("", "etc"), "etc");

    char root[] = "/tmp/npl-file-test-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string tree = root, outside = tree + "-keep";
    std::ofstream(outside) << "outside";
    ASSERT_EQ(mkdir((tree + "/sub").c_str(), 0700), 0);
    std::ofstream(tree + "/sub/file.txt") << "x";
    ASSERT_EQ(symlink(outside.c_str(), (tree + "/link").c_str()), 0);
    EXPECT_TRUE(NplFile_DeleteFolder(tree));
    EXPECT_FALSE(NplFile_FileExists(tree));
    EXPECT_TRUE(NplFile_FileExists(outside)); // links are removed, not followed
    EXPECT_TRUE(NplFile_DeleteFolder(tree));  // what is not there counts as gone
    EXPECT_FALSE(NplFile_DeleteFolder(""));
    unlink(outside.c_str());
}

} // namespace
