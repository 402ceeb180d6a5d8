#include "Zun/SoftwareManagerService/SigningKey.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <utility>

#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/PackageException.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace
{

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

std::string Drain(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

} // namespace

SigningKey::SigningKey(EVP_PKEY* keyIn) : key(keyIn)
{
    std::string raw(32, '\0');
    std::size_t size = raw.size();
    if (EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(raw.data()), &size) != 1 || size != raw.size())
    {
        EVP_PKEY_free(key);
        throw PackageException("The public half of the signing key cannot be read.");
    }
    keyId = KeyIdOf(raw);
}

SigningKey SigningKey::Generate()
{
    EVP_PKEY* generated = nullptr;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr), EVP_PKEY_CTX_free);
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_keygen(context.get(), &generated) != 1)
    {
        throw PackageException("An Ed25519 key could not be generated.");
    }
    return SigningKey(generated);
}

SigningKey SigningKey::Load(const std::filesystem::path& pemFile)
{
    const std::string pem = ReadFile(pemFile);
    Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    EVP_PKEY* loaded = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    if (loaded == nullptr || EVP_PKEY_id(loaded) != EVP_PKEY_ED25519)
    {
        EVP_PKEY_free(loaded);
        throw PackageException("'{0}' is not an Ed25519 private key in PEM.", pemFile.string());
    }
    return SigningKey(loaded);
}

SigningKey::~SigningKey()
{
    EVP_PKEY_free(key);
}

SigningKey::SigningKey(SigningKey&& other) noexcept : key(std::exchange(other.key, nullptr)), keyId(std::move(other.keyId)) {}

SigningKey& SigningKey::operator=(SigningKey&& other) noexcept
{
    std::swap(key, other.key);
    std::swap(keyId, other.keyId);
    return *this;
}

std::string SigningKey::PrivatePem() const
{
    Bio bio(BIO_new(BIO_s_mem()), BIO_free);
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    {
        throw PackageException("The signing key cannot be written as PEM.");
    }
    return Drain(bio.get());
}

std::string SigningKey::PublicPem() const
{
    Bio bio(BIO_new(BIO_s_mem()), BIO_free);
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1)
    {
        throw PackageException("The public key cannot be written as PEM.");
    }
    return Drain(bio.get());
}

PackageSignature SigningKey::Sign(const std::string& manifest) const
{
    PackageSignature signature{keyId, std::string(PackageSignature::SignatureSize, '\0')};
    std::size_t size = signature.signature.size();
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    // Ed25519 signs the message itself, in one pass and without a separate digest.
    if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.signature.data()), &size,
                       reinterpret_cast<const unsigned char*>(manifest.data()), manifest.size()) != 1 ||
        size != PackageSignature::SignatureSize)
    {
        throw PackageException("The manifest could not be signed.");
    }
    return signature;
}

} // namespace Zun::Services::SoftwareManager::Service
