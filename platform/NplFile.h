// File and path helpers of the platform library.
#pragma once

#include <string>

// Joins a folder and a name with exactly one "/" between them.
std::string NplFile_AddPathComponent(const std::string& folder, const std::string& component);
bool NplFile_FileExists(const std::string& path);
// Deletes a folder and everything below it; true when it is gone.
bool NplFile_DeleteFolder(const std::string& path);
