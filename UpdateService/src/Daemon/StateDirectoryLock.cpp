#include "Zun/UpdateService/Daemon/StateDirectoryLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/PosixCall.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using System::Commons::InvalidOperationException;
using System::Commons::PosixCall;
using System::Commons::PosixCallAllowing;

StateDirectoryLock::StateDirectoryLock(const String& directory)
{
    const std::filesystem::path folder(static_cast<const std::string&>(directory));
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
    {
        throw InvalidOperationException("Cannot create the state directory '{0}': {1}", folder.string(), error.message());
    }
    const std::string path = (folder / "lock").string();
    fd = PosixCall("open", ::open, path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    int lockError = 0;
    PosixCallAllowing("flock", {EWOULDBLOCK}, lockError, ::flock, fd, LOCK_EX | LOCK_NB);
    if (lockError != 0)
    {
        char holder[32] = {};
        const ssize_t n = ::pread(fd, holder, sizeof holder - 1, 0);
        ::close(fd);
        fd = -1;
        std::string pid = n > 0 ? std::string(holder, static_cast<std::size_t>(n)) : std::string("unknown");
        while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' '))
        {
            pid.pop_back();
        }
        throw InvalidOperationException("Another update service (process {0}) uses the state directory '{1}'.", pid, folder.string());
    }
    const std::string self = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, self.data(), self.size(), 0) < 0)
    {
        // The id is only for the message of a refused second service; the lock holds regardless.
    }
}

StateDirectoryLock::~StateDirectoryLock()
{
    if (fd >= 0)
    {
        ::close(fd);
    }
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
