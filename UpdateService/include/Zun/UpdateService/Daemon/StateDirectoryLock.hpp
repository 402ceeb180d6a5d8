// Holds an exclusive lock (flock) on a file in the update service's state directory for as long as
// the object lives, so that two services never share one store and one spool.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ZUN_EXPORT StateDirectoryLock
{
public:
    // Creates the directory (0750) if needed and locks "<directory>/lock", writing this process's
    // id into it. Throws InvalidOperationException naming the holder's process id when another
    // process holds the lock, SystemException when the directory or file cannot be made.
    explicit StateDirectoryLock(const String& directory);
    ~StateDirectoryLock();
    StateDirectoryLock(const StateDirectoryLock&) = delete;
    StateDirectoryLock& operator=(const StateDirectoryLock&) = delete;

private:
    int fd = -1;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
