// Software packages of the software manager: a tar archive holding manifest.json, its detached
// signature manifest.sig (PackageSignature.hpp) and the payload under payload/. The manifest names
// the SHA-256 of the payload, computed over every regular file of payload/ in byte order of their
// relative paths as: path, a zero byte, the size as 8 bytes little-endian, the content.
#pragma once

#include <filesystem>

#include <nlohmann/json.hpp>

#include "ServiceContracts/Manifest.hpp"
#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManagerService/PackageException.hpp"

namespace Zun::Services::SoftwareManager::Service
{

using Services::Internal::Manifest;

// "2026-11-21T10:00:00Z", with a fraction only when it is not zero.
String FormatIsoDate(const DateTime& date);
// Accepts "YYYY-MM-DDTHH:MM:SS[.fraction](Z|+00:00)"; the result is of kind UTC.
DateTime ParseIsoDate(const String& text);

// Every field checked (types, lengths, list sizes, unknown keys); throws PackageException.
Manifest ManifestFromJson(const nlohmann::json& json);
// The manifest's payload digest field, lower-case hex; throws PackageException when absent or malformed.
String PayloadDigestFromJson(const nlohmann::json& json);
nlohmann::json ManifestToJson(const Manifest& manifest);

// SHA-256 (lower-case hex) of a payload folder, in the order described above.
String ComputePayloadDigest(const std::filesystem::path& payloadDirectory);

class Keyring;
class SigningKey;

struct ExtractedPackage
{
    Manifest manifest;
    // The keyring's name of the signer's key; empty for an unsigned package.
    String signer;
};

// Extracts the package read from `fd` into `destination` (created, must not exist): manifest.json
// and payload/. Refuses unsafe or unexpected entries, a missing or malformed manifest, a signature
// that is malformed, not from a key of `keyring` or not matching the manifest, an unsigned package
// unless `allowUnsigned`, and a payload digest that does not match; the signature is checked before
// the manifest is read. `fd` is read twice from its start: first every entry is checked and the
// manifest verified with nothing written, then the payload is extracted.
ExtractedPackage ExtractPackage(int fd, const std::filesystem::path& destination, const Keyring& keyring, bool allowUnsigned);

// Writes a package from a manifest and a payload file or folder; fills in the payload digest and,
// with a key, signs the manifest.
void WritePackage(const nlohmann::json& manifest, const std::filesystem::path& payload, const std::filesystem::path& output,
                  const SigningKey* key = nullptr);

} // namespace Zun::Services::SoftwareManager::Service
