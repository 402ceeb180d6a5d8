// File operations of the software manager that must survive a kill at any moment: every write goes
// to a temporary name, is flushed, and is put in place by rename.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareManager::Service
{

class FileDescriptor
{
public:
    explicit FileDescriptor(int fd = -1) noexcept : fd(fd) {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const noexcept { return fd; }

private:
    int fd;
};

// A new file for writing, mode 0644; fails when the name exists (also as a symbolic link).
int OpenExclusive(const std::filesystem::path& path);
void WriteAll(int fd, const void* data, std::size_t size);
// Flushes the folder itself, so that a rename in it is durable.
void SyncDirectory(const std::filesystem::path& directory);
// Creates one folder (mode 0755); the parent must exist.
void CreateDirectory(const std::filesystem::path& path);
// Writes `content` beside `path`, flushes it and renames it over `path`; a failed write leaves no temporary.
void WriteFileAtomically(const std::filesystem::path& path, const std::string& content);
std::string ReadFile(const std::filesystem::path& path);
// Copies the regular files and folders of `source` to `destination` (created), flushing every file.
void CopyTree(const std::filesystem::path& source, const std::filesystem::path& destination);
// Points the symbolic link `link` at `target` by renaming a new link over it.
void ReplaceSymlink(const std::filesystem::path& link, const std::filesystem::path& target);
// Removes a file or a folder tree; a missing one is fine.
void RemoveAll(const std::filesystem::path& path);

} // namespace Zun::Services::SoftwareManager::Service
