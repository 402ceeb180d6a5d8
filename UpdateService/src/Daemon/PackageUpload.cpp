#include "Zun/UpdateService/Daemon/PackageUpload.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "Zun/UpdateService/Protocol/ProtocolError.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using Protocol::ProtocolError;
using Protocol::StatusNames;

struct PackageUpload::Digest
{
    Digest() : context(EVP_MD_CTX_new())
    {
        if (context == nullptr || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1)
        {
            EVP_MD_CTX_free(context);
            throw ProtocolError(StatusNames::BadInternalError, "SHA-256 is not available.");
        }
    }
    ~Digest() { EVP_MD_CTX_free(context); }
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    EVP_MD_CTX* context;
};

namespace
{
ProtocolError WriteFailure(const std::string& what, const std::string& path, int error)
{
    return ProtocolError(StatusNames::BadResourceUnavailable, fmt::format("{} '{}' failed: {}", what, path, std::strerror(error)));
}

// Reserves the file's space; ENOSPC and friends become a clear refusal.
void Reserve(int fd, std::uint64_t size, const std::string& path)
{
    const int error = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (error == ENOSPC || error == EFBIG || error == EDQUOT)
    {
        throw ProtocolError(StatusNames::BadResourceUnavailable,
                            fmt::format("Not enough disk space for the package: {} bytes are needed in {}.", size, path));
    }
    if (error != 0)
    {
        throw WriteFailure("Reserving space for", path, error);
    }
}

void WriteAt(int fd, const std::uint8_t* data, std::size_t size, off_t offset, const std::string& path)
{
    while (size > 0)
    {
        const ssize_t n = ::pwrite(fd, data, size, offset);
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            throw WriteFailure("Writing", path, n < 0 ? errno : EIO);
        }
        data += n;
        size -= static_cast<std::size_t>(n);
        offset += n;
    }
}

// False when `to` exists.
bool CopyFile(int from, std::uint64_t size, const std::string& to)
{
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (out < 0)
    {
        if (errno == EEXIST)
        {
            return false;
        }
        throw WriteFailure("Creating", to, errno);
    }
    try
    {
        Reserve(out, size, to);
        std::vector<std::uint8_t> buffer(1 << 16);
        for (std::uint64_t done = 0; done < size;)
        {
            const ssize_t n = ::pread(from, buffer.data(), buffer.size(), static_cast<off_t>(done));
            if (n <= 0)
            {
                throw WriteFailure("Reading the spooled package for", to, n < 0 ? errno : EIO);
            }
            WriteAt(out, buffer.data(), static_cast<std::size_t>(n), static_cast<off_t>(done), to);
            done += static_cast<std::uint64_t>(n);
        }
        ::close(out);
    }
    catch (...)
    {
        ::close(out);
        ::unlink(to.c_str());
        throw;
    }
    return true;
}

// Moves the spooled file to `target`, or copies it there across file systems; false when `target` exists.
bool PlaceAt(const std::string& spoolPath, int fd, std::uint64_t size, const std::string& target)
{
    if (::renameat2(AT_FDCWD, spoolPath.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0)
    {
        return true;
    }
    if (errno == EEXIST)
    {
        return false;
    }
    if (errno != EXDEV)
    {
        throw WriteFailure("Moving the package to", target, errno);
    }
    return CopyFile(fd, size, target);
}
} // namespace

PackageUpload::PackageUpload(const std::string& spoolDirectory, std::uint64_t id, String component, std::uint64_t size,
                             std::string sha256, std::string fileName)
    : id(id), component(std::move(component)), size(size), expectedSha256(std::move(sha256)), fileName(std::move(fileName)),
      spoolPath(fmt::format("{}/{}.part", spoolDirectory, id)), digest(std::make_unique<Digest>())
{
    for (char& c : expectedSha256)
    {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    ::mkdir(spoolDirectory.c_str(), 0750);
    fd = ::open(spoolPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0)
    {
        throw WriteFailure("Creating", spoolPath, errno);
    }
    try
    {
        Reserve(fd, size, spoolDirectory);
    }
    catch (...)
    {
        ::close(fd);
        ::unlink(spoolPath.c_str());
        throw;
    }
}

PackageUpload::~PackageUpload()
{
    if (fd >= 0)
    {
        ::close(fd);
    }
    ::unlink(spoolPath.c_str());
    if (!placedPath.empty())
    {
        ::unlink(placedPath.c_str());
    }
}

void PackageUpload::Write(std::uint64_t offset, const std::vector<std::uint8_t>& data)
{
    if (offset != received)
    {
        throw ProtocolError(StatusNames::BadInvalidArgument,
                            fmt::format("The chunk's offset is {} but {} bytes have been received.", offset, received));
    }
    if (data.size() > size - received)
    {
        throw ProtocolError(StatusNames::BadInvalidArgument,
                            fmt::format("The chunk of {} bytes goes beyond the package's size of {} bytes.", data.size(), size));
    }
    WriteAt(fd, data.data(), data.size(), static_cast<off_t>(offset), spoolPath);
    EVP_DigestUpdate(digest->context, data.data(), data.size());
    received += data.size();
}

std::string PackageUpload::Place(const std::string& packageDirectory)
{
    if (received != size)
    {
        throw ProtocolError(StatusNames::BadInvalidState,
                            fmt::format("Only {} of {} bytes have been received.", received, size));
    }
    if (!expectedSha256.empty())
    {
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(digest->context, hash, &length);
        std::string actual;
        for (unsigned int i = 0; i < length; ++i)
        {
            actual += fmt::format("{:02x}", hash[i]);
        }
        if (actual != expectedSha256)
        {
            throw ProtocolError(StatusNames::BadInvalidArgument,
                                fmt::format("The package's SHA-256 is {} but {} was expected.", actual, expectedSha256));
        }
    }
    // The plain file name when it is free, so the software manager's messages name it; otherwise a
    // name of this upload's own. Only the move itself tells: another upload of the same name may take
    // it after any check made before.
    const std::string own = fmt::format(".upload-{}-{}-{}", ::getpid(), id, fileName);
    const std::string folder = packageDirectory + "/";
    for (const std::string& relative : {fileName, own})
    {
        const std::string target = folder + relative;
        if (PlaceAt(spoolPath, fd, size, target))
        {
            placedPath = target;
            return relative;
        }
    }
    throw WriteFailure("Moving the package to", folder + own, EEXIST);
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
