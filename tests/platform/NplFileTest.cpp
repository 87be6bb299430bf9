#include "platform/NplFile.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

TEST(NplFile, FolderOfAPath)
{
    EXPECT_EQ(NplFile_FolderOf("/a/b/service"), "/a/b");
    EXPECT_EQ(NplFile_FolderOf("/service"), "/");
    EXPECT_EQ(NplFile_FolderOf("service"), ".");
    EXPECT_EQ(NplFile_FolderOf(""), ".");
    EXPECT_EQ(NplFile_AddPathComponent(NplFile_FolderOf("/a/b/"), "x"), "/a/b/x");
}

// The executable and its folder are the ones this test runs from.
TEST(NplFile, ExecutablePathAndFolder)
{
    const std::string path = NplFile_ExecutablePath();
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(path.substr(path.rfind('/') + 1), "platform_file_test");
    EXPECT_EQ(access(path.c_str(), X_OK), 0);
    EXPECT_EQ(NplFile_ExecutableFolder(), path.substr(0, path.rfind('/')));
}

} // namespace
