#include "Zun/SoftwareManagerService/Keyring.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <utility>

#include "Zun/SoftwareManagerService/PackageException.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace fs = std::filesystem;

namespace
{

constexpr std::size_t PublicKeySize = 32;
constexpr std::uintmax_t MaxKeyFileSize = 64 * 1024;

using PublicKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

} // namespace

Keyring::Keyring(fs::path directoryIn) : directory(std::move(directoryIn)) {}

Keyring Keyring::Load(const fs::path& directory)
{
    Keyring keyring(directory);
    std::error_code error;
    if (!fs::is_directory(directory, error))
    {
        return keyring;
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
    {
        if (entry.path().extension() == ".pem" && entry.is_regular_file(error))
        {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files)
    {
        try
        {
            if (fs::file_size(file) > MaxKeyFileSize)
            {
                throw PackageException("it is larger than {0} bytes.", MaxKeyFileSize);
            }
            std::ifstream in(file, std::ios::binary);
            keyring.Add(file.filename().string(), std::string(std::istreambuf_iterator<char>(in), {}));
        }
        catch (const std::exception& e)
        {
            log.Log(3, "Keyring file '{0}' is skipped: {1}", file.string(), e.what());
        }
    }
    return keyring;
}

void Keyring::Add(const String& name, const std::string& pem)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    const PublicKey key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr, EVP_PKEY_free);
    std::string raw(PublicKeySize, '\0');
    std::size_t size = raw.size();
    if (!key || EVP_PKEY_id(key.get()) != EVP_PKEY_ED25519 ||
        EVP_PKEY_get_raw_public_key(key.get(), reinterpret_cast<unsigned char*>(raw.data()), &size) != 1 || size != PublicKeySize)
    {
        throw PackageException("'{0}' is not an Ed25519 public key in PEM.", name);
    }
    keys.push_back(Key{name, KeyIdOf(raw), std::move(raw)});
}

const String& Keyring::Verify(const std::string& manifest, const PackageSignature& signature) const
{
    const auto found = std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return key.keyId == signature.keyId; });
    if (found == keys.end())
    {
        throw PackageException("manifest.json is signed by key {0}, which is not in the keyring {1}.", signature.keyId, directory.string());
    }
    const PublicKey key(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(found->rawPublicKey.data()),
                                                    found->rawPublicKey.size()),
                        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!key || !context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
    {
        throw PackageException("Ed25519 is not available.");
    }
    if (EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.signature.data()), signature.signature.size(),
                         reinterpret_cast<const unsigned char*>(manifest.data()), manifest.size()) != 1)
    {
        throw PackageException("The signature does not match manifest.json for key {0} ({1}): the manifest was changed after signing, or the "
                               "signature was not made with that key.",
                               signature.keyId, found->name);
    }
    return found->name;
}

} // namespace Zun::Services::SoftwareManager::Service
