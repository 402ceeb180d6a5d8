// The seed key of the package fuzz targets: its public half, its key id, and the one signature its
// owner made, over `Manifest` (an empty payload). The private half was dropped once that was signed.
#pragma once

#include <string>

namespace Zun::Fuzz::SeedKey
{

const std::string Manifest =
    "{\n  \"payloadSha256\": \"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\",\n  \"version\": \"1.0.0\"\n}\n";
constexpr const char* PublicKey =
    "-----BEGIN PUBLIC KEY-----\nMCowBQYDK2VwAyEAhsf3hLGc6FdqMepxwDqFswt/DF5UD4yH20N4Zr7a14I=\n-----END PUBLIC KEY-----\n";
constexpr const char* KeyId = "633a438cfd2e4e82125da85e8300cfe7d236a0e6dab24aa85c762c72592229d5";
constexpr const char* Signature = "cf9453f554d7afa92c302391ce3b7c8203bbce30b18a148b090c03ab84a46829"
                                  "8fe64f93a616d409ffacc50015ed5350ebb09023efe43bc0a64781becfc5ff06";

} // namespace Zun::Fuzz::SeedKey
