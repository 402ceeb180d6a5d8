// Fuzzes the reader of manifest.sig and the keyring's check of what it read: reading fails only
// with a PackageException, whatever is read writes back and reads equal, and over a fixed manifest
// only the one signature that the seed key's owner made verifies.
#include <string>

#include "FuzzCheck.hpp"
#include "SeedKey.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/PackageException.hpp"
#include "Zun/SoftwareManagerService/PackageSignature.hpp"

using namespace Zun::Services::SoftwareManager::Service;
namespace SeedKey = Zun::Fuzz::SeedKey;

namespace
{

const Keyring& SeedKeyring()
{
    static const Keyring keyring = [] {
        Keyring made("seed");
        made.Add("seed.pem", SeedKey::PublicKey);
        return made;
    }();
    return keyring;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    PackageSignature signature;
    try
    {
        signature = ReadSignature(std::string(reinterpret_cast<const char*>(data), size));
    }
    catch (const PackageException& e)
    {
        ZUN_FUZZ_CHECK(!e.GetMessage().empty(), "a refusal without a reason");
        return 0;
    }
    ZUN_FUZZ_CHECK(signature.signature.size() == PackageSignature::SignatureSize, "a signature of the wrong size was read");
    ZUN_FUZZ_CHECK(ReadSignature(WriteSignature(signature)) == signature, "a signature does not read back as written");
    const bool genuine = signature.keyId == SeedKey::KeyId && WriteSignature(signature).find(SeedKey::Signature) != std::string::npos;
    for (const std::string& manifest : {SeedKey::Manifest, SeedKey::Manifest + " "})
    {
        bool verified = true;
        try
        {
            SeedKeyring().Verify(manifest, signature);
        }
        catch (const PackageException&)
        {
            verified = false;
        }
        ZUN_FUZZ_CHECK(verified == (genuine && manifest == SeedKey::Manifest), "a forged signature verified, or the genuine one did not");
    }
    return 0;
}
