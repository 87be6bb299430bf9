// File and path helpers of the platform library.
#pragma once

#include <string>

// Joins a folder and a name with exactly one "/" between them.
std::string NplFile_AddPathComponent(const std::string& folder, const std::string& component);
// The folder part of a path: "." when it has none, "/" for a name in the root.
std::string NplFile_FolderOf(const std::string& path);
// The running executable's full path (empty when the system does not say),
// and the folder it lies in ("." when unknown). Modules and helper programs
// are installed next to the executable and found from here.
std::string NplFile_ExecutablePath();
std::string NplFile_ExecutableFolder();
bool NplFile_FileExists(const std::string& path);
// Deletes a folder and everything below it; true when it is gone.
bool NplFile_DeleteFolder(const std::string& path);
