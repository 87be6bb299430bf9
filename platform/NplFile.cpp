#include "platform/NplFile.h"

#include <cerrno>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

std::string NplFile_AddPathComponent(const std::string& folder, const std::string& component)
{
    if (folder.empty())
        return component;
    size_t end = folder.size();
    while (end > 1 && folder[end - 1] == '/')
        --end;
    size_t start = 0;
    while (start < component.size() && component[start] == '/')
        ++start;
    std::string result = folder.substr(0, end);
    if (result != "/")
        result += '/';
    result.append(component, start, std::string::npos);
    return result;
}

bool NplFile_FileExists(const std::string& path)
{
    struct stat st;
    return !path.empty() && lstat(path.c_str(), &st) == 0;
}

static int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*)
{
    const int rc = (type == FTW_DP) ? rmdir(path) : unlink(path);
    return (rc == 0 || errno == ENOENT) ? 0 : -1;
}

bool NplFile_DeleteFolder(const std::string& path)
{
    if (path.empty())
        return false;
    if (!NplFile_FileExists(path))
        return true;
    // Depth first, without following links: a link inside the folder is
    // removed, never what it points to.
    nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    return !NplFile_FileExists(path);
}
