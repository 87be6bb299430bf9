#include "platform/NplFile.h"

#include <cerrno>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

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

std::string NplFile_FolderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NplFile_ExecutablePath()
{
    // readlink does not tell the length it needs: grow until the link fits.
    std::vector<char> buffer(256);
    for (;;) {
        const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length <= 0)
            return std::string();
        if (static_cast<size_t>(length) < buffer.size())
            return std::string(buffer.data(), static_cast<size_t>(length));
        buffer.resize(buffer.size() * 2);
    }
}

std::string NplFile_ExecutableFolder()
{
    const std::string path = NplFile_ExecutablePath();
    return path.empty() ? std::string(".") : NplFile_FolderOf(path);
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
