// Fuzzes the reader of manifest.sig and the keyring's check of what it read: reading fails only
// with a PackageException, whatever is read writes back and reads equal, and over a fixed manifest
// only the one signature that the seed key's owner made verifies. The seed key's private half was
// dropped once that signature was made.
#include <string>

#include "FuzzCheck.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/PackageException.hpp"
#include "Zun/SoftwareManagerService/PackageSignature.hpp"

using namespace Zun::Services::SoftwareManager::Service;

namespace
{

const std::string Manifest =
    "{\n  \"payloadSha256\": \"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\",\n  \"version\": \"1.0.0\"\n}\n";
const char* const PublicKey = "-----BEGIN PUBLIC KEY-----\nMCowBQYDK2VwAyEAhsf3hLGc6FdqMepxwDqFswt/DF5UD4yH20N4Zr7a14I=\n-----END PUBLIC KEY-----\n";
const char* const KeyId = "633a438cfd2e4e82125da85e8300cfe7d236a0e6dab24aa85c762c72592229d5";
const char* const GoodSignature = "cf9453f554d7afa92c302391ce3b7c8203bbce30b18a148b090c03ab84a46829"
                                  "8fe64f93a616d409ffacc50015ed5350ebb09023efe43bc0a64781becfc5ff06";

const Keyring& SeedKeyring()
{
    static const Keyring keyring = [] {
        Keyring made("seed");
        made.Add("seed.pem", PublicKey);
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
    const bool genuine = signature.keyId == KeyId && WriteSignature(signature).find(GoodSignature) != std::string::npos;
    for (const std::string& manifest : {Manifest, Manifest + " "})
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
        ZUN_FUZZ_CHECK(verified == (genuine && manifest == Manifest), "a forged signature verified, or the genuine one did not");
    }
    return 0;
}
