// The public keys that the software manager trusts to sign packages: every *.pem file of one folder.
// Several keys may be trusted at once, so that a new signing key can be rolled out before the old
// one is withdrawn.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManagerService/PackageSignature.hpp"

namespace Zun::Services::SoftwareManager::Service
{

class Keyring : private System::Commons::Diagnostics::Logging::Loggable<Keyring>
{
public:
    // An empty keyring; `directory` only names it in messages.
    explicit Keyring(std::filesystem::path directory = {});

    // Every *.pem file of `directory`, in name order; a missing folder is an empty keyring. A file
    // that is not an Ed25519 public key is logged and skipped.
    static Keyring Load(const std::filesystem::path& directory);

    // Throws PackageException when `pem` is not an Ed25519 public key.
    void Add(const String& name, const std::string& pem);

    // The name of the key that made `signature` over `manifest`; throws PackageException saying
    // why not (a signer outside the keyring, a signature that does not match).
    const String& Verify(const std::string& manifest, const PackageSignature& signature) const;

    std::size_t Size() const noexcept { return keys.size(); }
    const std::filesystem::path& GetDirectory() const noexcept { return directory; }

private:
    struct Key
    {
        String name;
        String keyId;
        std::string rawPublicKey;
    };

    std::filesystem::path directory;
    std::vector<Key> keys;
};

} // namespace Zun::Services::SoftwareManager::Service
