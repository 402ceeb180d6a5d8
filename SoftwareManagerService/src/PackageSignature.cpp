#include "Zun/SoftwareManagerService/PackageSignature.hpp"

#include <openssl/evp.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "Zun/SoftwareManagerService/PackageException.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace
{

constexpr const char* Algorithm = "Ed25519";

std::string ToHex(const std::string& bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char c : bytes)
    {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

bool IsLowerHex(const std::string& text, std::size_t length)
{
    return text.size() == length && std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string FromHex(const std::string& hex)
{
    auto value = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    {
        bytes += static_cast<char>(value(hex[i]) << 4 | value(hex[i + 1]));
    }
    return bytes;
}

const std::string& Field(const nlohmann::json& json, const char* name)
{
    const auto found = json.find(name);
    if (found == json.end() || !found->is_string())
    {
        throw PackageException("manifest.sig has no text field '{0}'.", name);
    }
    return found->get_ref<const std::string&>();
}

} // namespace

PackageSignature ReadSignature(const std::string& text)
{
    if (text.size() > PackageSignature::MaxFileSize)
    {
        throw PackageException("manifest.sig is larger than {0} bytes.", PackageSignature::MaxFileSize);
    }
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object())
    {
        throw PackageException("manifest.sig is not a JSON object.");
    }
    for (const auto& [key, value] : json.items())
    {
        if (key != "algorithm" && key != "keyId" && key != "signature")
        {
            throw PackageException("Unknown field '{0}' in manifest.sig.", key);
        }
    }
    if (Field(json, "algorithm") != Algorithm)
    {
        throw PackageException("manifest.sig names the algorithm '{0}'; only {1} is accepted.", Field(json, "algorithm"), Algorithm);
    }
    const std::string& keyId = Field(json, "keyId");
    if (!IsLowerHex(keyId, 64))
    {
        throw PackageException("The key id in manifest.sig is not 64 lower-case hex digits.");
    }
    const std::string& signature = Field(json, "signature");
    if (!IsLowerHex(signature, 2 * PackageSignature::SignatureSize))
    {
        throw PackageException("The signature in manifest.sig is not {0} lower-case hex digits.", 2 * PackageSignature::SignatureSize);
    }
    return PackageSignature{String(keyId), FromHex(signature)};
}

std::string WriteSignature(const PackageSignature& signature)
{
    const nlohmann::json json = {{"algorithm", Algorithm}, {"keyId", static_cast<const std::string&>(signature.keyId)}, {"signature", ToHex(signature.signature)}};
    return json.dump(2) + "\n";
}

String KeyIdOf(const std::string& rawPublicKey)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(rawPublicKey.data(), rawPublicKey.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    {
        throw PackageException("SHA-256 is not available.");
    }
    return String(ToHex(std::string(reinterpret_cast<const char*>(digest), length)));
}

} // namespace Zun::Services::SoftwareManager::Service
