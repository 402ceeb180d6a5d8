// An Ed25519 private key that signs package manifests: made by "keygen" or by
// `openssl genpkey -algorithm ed25519`, read from PEM by the package builder.
#pragma once

#include <filesystem>
#include <string>

#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManagerService/PackageSignature.hpp"

struct evp_pkey_st;

namespace Zun::Services::SoftwareManager::Service
{

class SigningKey
{
public:
    static SigningKey Generate();
    // A PKCS#8 PEM file; throws PackageException when it is not an Ed25519 private key.
    static SigningKey Load(const std::filesystem::path& pemFile);

    ~SigningKey();
    SigningKey(SigningKey&& other) noexcept;
    SigningKey& operator=(SigningKey&& other) noexcept;
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;

    std::string PrivatePem() const;
    // The public half, as a keyring holds it.
    std::string PublicPem() const;
    const String& GetKeyId() const noexcept { return keyId; }

    PackageSignature Sign(const std::string& manifest) const;

private:
    explicit SigningKey(evp_pkey_st* key);

    evp_pkey_st* key;
    String keyId;
};

} // namespace Zun::Services::SoftwareManager::Service
