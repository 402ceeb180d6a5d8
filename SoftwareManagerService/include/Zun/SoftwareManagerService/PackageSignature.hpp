// The detached signature of a package: manifest.sig beside manifest.json, a JSON object
//   {"algorithm": "Ed25519", "keyId": "<64 hex>", "signature": "<128 hex>"}
// whose signature is Ed25519 over the exact bytes of manifest.json (which names the payload's
// SHA-256), and whose key id is the SHA-256 of the signer's raw 32-byte public key, in lower-case hex.
#pragma once

#include <cstddef>
#include <string>

#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareManager::Service
{

struct PackageSignature
{
    static constexpr const char* FileName = "manifest.sig";
    static constexpr std::size_t MaxFileSize = 4096;
    static constexpr std::size_t SignatureSize = 64;

    String keyId;
    // SignatureSize raw bytes.
    std::string signature;

    bool operator==(const PackageSignature& other) const { return keyId == other.keyId && signature == other.signature; }
};

// Parses manifest.sig; throws PackageException saying what is wrong.
PackageSignature ReadSignature(const std::string& text);
std::string WriteSignature(const PackageSignature& signature);

// The key id of a raw Ed25519 public key.
String KeyIdOf(const std::string& rawPublicKey);

} // namespace Zun::Services::SoftwareManager::Service
