#include "Zun/SoftwareManagerService/FileSystem.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "Zun/Commons/PosixCall.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace fs = std::filesystem;
using System::Commons::PosixCall;

FileDescriptor::~FileDescriptor()
{
    if (fd >= 0)
    {
        ::close(fd);
    }
}

int OpenExclusive(const fs::path& path)
{
    return PosixCall("open", ::open, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, static_cast<mode_t>(0644));
}

void WriteAll(int fd, const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0)
    {
        const ssize_t written = PosixCall("write", ::write, fd, static_cast<const void*>(bytes), size);
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

void SyncDirectory(const fs::path& directory)
{
    FileDescriptor fd(PosixCall("open", ::open, directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    PosixCall("fsync", ::fsync, fd.Get());
}

void CreateDirectory(const fs::path& path)
{
    PosixCall("mkdir", ::mkdir, path.c_str(), static_cast<mode_t>(0755));
}

void WriteFileAtomically(const fs::path& path, const std::string& content)
{
    const fs::path temporary = path.string() + ".tmp";
    RemoveAll(temporary);
    try
    {
        FileDescriptor fd(OpenExclusive(temporary));
        WriteAll(fd.Get(), content.data(), content.size());
        PosixCall("fsync", ::fsync, fd.Get());
    }
    catch (...)
    {
        // A part written on a full disk would keep the space that the next try needs.
        ::unlink(temporary.c_str());
        throw;
    }
    PosixCall("rename", ::rename, temporary.c_str(), path.c_str());
    SyncDirectory(path.parent_path());
}

std::string ReadFile(const fs::path& path)
{
    FileDescriptor fd(PosixCall("open", ::open, path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string content;
    std::vector<char> buffer(64 * 1024);
    for (;;)
    {
        const ssize_t count = PosixCall("read", ::read, fd.Get(), static_cast<void*>(buffer.data()), buffer.size());
        if (count == 0)
        {
            return content;
        }
        content.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

void CopyTree(const fs::path& source, const fs::path& destination)
{
    CreateDirectory(destination);
    std::vector<char> buffer(64 * 1024);
    for (const fs::directory_entry& entry : fs::directory_iterator(source))
    {
        const fs::file_status status = entry.symlink_status();
        const fs::path target = destination / entry.path().filename();
        if (fs::is_directory(status))
        {
            CopyTree(entry.path(), target);
            continue;
        }
        if (!fs::is_regular_file(status))
        {
            continue;
        }
        FileDescriptor in(PosixCall("open", ::open, entry.path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        FileDescriptor out(OpenExclusive(target));
        for (;;)
        {
            const ssize_t count = PosixCall("read", ::read, in.Get(), static_cast<void*>(buffer.data()), buffer.size());
            if (count == 0)
            {
                break;
            }
            WriteAll(out.Get(), buffer.data(), static_cast<std::size_t>(count));
        }
        PosixCall("fsync", ::fsync, out.Get());
    }
    SyncDirectory(destination);
}

void ReplaceSymlink(const fs::path& link, const fs::path& target)
{
    const fs::path temporary = link.string() + ".tmp";
    RemoveAll(temporary);
    PosixCall("symlink", ::symlink, target.c_str(), temporary.c_str());
    PosixCall("rename", ::rename, temporary.c_str(), link.c_str());
    SyncDirectory(link.parent_path());
}

void RemoveAll(const fs::path& path)
{
    std::error_code error;
    fs::remove_all(path, error);
    if (error)
    {
        throw System::Commons::SystemException("remove_all", error.value());
    }
}

} // namespace Zun::Services::SoftwareManager::Service
