// One package arriving in chunks over the local API: spooled to a file whose full size is reserved
// at once, hashed as it arrives, then placed in the software manager's package folder for staging.
// The destructor removes every file the upload made.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ZUN_EXPORT PackageUpload
{
public:
    // Creates "<spoolDirectory>/<id>.part" and reserves `size` bytes. Throws ProtocolError:
    // Bad_ResourceUnavailable (not enough space, saying how much and where; nothing is left).
    PackageUpload(const std::string& spoolDirectory, std::uint64_t id, String component, std::uint64_t size,
                  std::string sha256, std::string fileName);
    ~PackageUpload();
    PackageUpload(const PackageUpload&) = delete;
    PackageUpload& operator=(const PackageUpload&) = delete;

    std::uint64_t GetId() const noexcept { return id; }
    const String& GetComponent() const noexcept { return component; }
    std::uint64_t GetReceived() const noexcept { return received; }

    // Appends a chunk at `offset`. Throws ProtocolError: Bad_InvalidArgument for a wrong offset or
    // too much data (nothing written), Bad_ResourceUnavailable when writing fails (the upload is
    // then unusable).
    void Write(std::uint64_t offset, const std::vector<std::uint8_t>& data);
    // Checks completeness (Bad_InvalidState) and the hash (Bad_InvalidArgument), then moves the file
    // into `packageDirectory` (copying across file systems) and returns its name relative to that
    // folder. Bad_ResourceUnavailable when it cannot be placed.
    std::string Place(const std::string& packageDirectory);

private:
    struct Digest;

    std::uint64_t id;
    String component;
    std::uint64_t size;
    std::string expectedSha256;
    std::string fileName;
    std::string spoolPath;
    std::string placedPath;
    int fd = -1;
    std::uint64_t received = 0;
    std::unique_ptr<Digest> digest;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
