// Fuzzes what the software manager reads from an untrusted package. An input starting with '{' is a
// manifest.json alone; any other is a package, whose tar header checksums are recomputed first so
// that mutations reach the entry checks instead of ending at the checksum. A package is refused only
// with a PackageException, and before anything is written unless its payload's bytes are wrong. An
// accepted one holds only manifest.json and files and folders under payload/, is signed only if it
// is the seed key's genuine manifest, and packed again extracts to the same manifest. A manifest
// that reads writes back and reads equal, with its release date in the documented form.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "FuzzCheck.hpp"
#include "SeedKey.hpp"
#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/PackageFormat.hpp"

namespace fs = std::filesystem;
using namespace Zun::Services::SoftwareManager::Service;

namespace
{

constexpr std::size_t Block = 512;

// A folder of its own below TMPDIR, removed when the process ends, and a keyring of the seed key.
struct Workspace
{
    Workspace()
    {
        std::string pattern = (fs::temp_directory_path() / "zun-fuzz-package-XXXXXX").string();
        ZUN_FUZZ_CHECK(::mkdtemp(pattern.data()) != nullptr, "cannot create a work folder");
        root = pattern;
        keyring.Add("seed.pem", Zun::Fuzz::SeedKey::PublicKey);
    }
    ~Workspace() { RemoveAll(root); }

    fs::path root;
    Keyring keyring{"seed"};
};

Workspace& Work()
{
    static Workspace work;
    return work;
}

// Each header block that the entry sizes lead to, up to the first zero block (the archive's end),
// gets the checksum a writer would give it.
void FixChecksums(std::vector<std::uint8_t>& tar)
{
    for (std::size_t at = 0; at + Block <= tar.size();)
    {
        std::uint8_t* header = tar.data() + at;
        if (std::all_of(header, header + Block, [](std::uint8_t byte) { return byte == 0; }))
        {
            return;
        }
        std::memset(header + 148, ' ', 8);
        unsigned sum = 0;
        std::for_each(header, header + Block, [&](std::uint8_t byte) { sum += byte; });
        std::snprintf(reinterpret_cast<char*>(header + 148), 8, "%06o", sum);
        std::uint64_t size = 0;
        std::size_t i = 124;
        for (; i < 136 && header[i] == ' '; ++i)
        {
        }
        for (; i < 136 && header[i] >= '0' && header[i] <= '7'; ++i)
        {
            size = size * 8 + (header[i] - '0');
        }
        at += Block + (size + Block - 1) / Block * Block;
    }
}

void CheckManifest(const Manifest& manifest, const nlohmann::json& json)
{
    ZUN_FUZZ_CHECK(ManifestFromJson(ManifestToJson(manifest)) == manifest, "a manifest does not read back as written");
    const auto date = json.find("releaseDate");
    if (date != json.end())
    {
        const std::string& text = date->get_ref<const std::string&>();
        const char* const form = "dddd-dd-ddTdd:dd:dd";
        for (std::size_t i = 0; i < std::strlen(form); ++i)
        {
            ZUN_FUZZ_CHECK(i < text.size() && (form[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == form[i]),
                           "a release date not of the form YYYY-MM-DDTHH:MM:SS was read");
        }
    }
}

// The package extracted, or nothing and the refusal's message; any other exception is a finding.
std::optional<ExtractedPackage> Extract(int fd, const fs::path& destination, std::string& refusal)
{
    try
    {
        return ExtractPackage(fd, destination, Work().keyring, true);
    }
    catch (const PackageException& e)
    {
        refusal = e.GetMessage();
        return std::nullopt;
    }
}

void CheckPackage(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::uint8_t> bytes(data, data + size);
    if (size < 2 || data[0] != 0x1f || data[1] != 0x8b)
    {
        FixChecksums(bytes);
    }
    const fs::path destination = Work().root / "package";
    FileDescriptor fd(::memfd_create("package", MFD_CLOEXEC));
    WriteAll(fd.Get(), bytes.data(), bytes.size());
    std::string refusal;
    const std::optional<ExtractedPackage> extracted = Extract(fd.Get(), destination, refusal);
    for (const auto& entry : fs::directory_iterator(Work().root))
    {
        ZUN_FUZZ_CHECK(entry.path() == destination, "something was written beside the destination");
    }
    if (!extracted)
    {
        // Only the payload's bytes, read no sooner than they are written, may refuse a package late.
        ZUN_FUZZ_CHECK(!fs::exists(destination) || refusal.rfind("Payload checksum mismatch", 0) == 0 ||
                           refusal.rfind("The package is damaged", 0) == 0,
                       "a package refused for what the first pass reads left files behind");
        RemoveAll(destination);
        return;
    }
    for (const auto& entry : fs::recursive_directory_iterator(destination))
    {
        const std::string path = entry.path().lexically_relative(destination).generic_string();
        const fs::file_status status = entry.symlink_status();
        ZUN_FUZZ_CHECK(fs::is_regular_file(status) || fs::is_directory(status), "an entry other than a file or folder was extracted");
        ZUN_FUZZ_CHECK(path == "manifest.json" || path == "payload" || path.rfind("payload/", 0) == 0,
                       "an entry beside manifest.json and payload/ was extracted");
    }
    const std::string manifestText = ReadFile(destination / "manifest.json");
    ZUN_FUZZ_CHECK(extracted->signer.empty() || (extracted->signer == "seed.pem" && manifestText == Zun::Fuzz::SeedKey::Manifest),
                   "a manifest that the seed key did not sign has a signer");
    const nlohmann::json json = nlohmann::json::parse(manifestText);
    CheckManifest(extracted->manifest, json);

    const fs::path repacked = Work().root / "repacked.tar";
    WritePackage(json, destination / "payload", repacked);
    FileDescriptor again(::open(repacked.c_str(), O_RDONLY | O_CLOEXEC));
    const std::optional<ExtractedPackage> second = Extract(again.Get(), Work().root / "again", refusal);
    if (!second)
    {
        std::fprintf(stderr, "repacked package refused: %s\n", refusal.c_str());
    }
    ZUN_FUZZ_CHECK(second && second->manifest == extracted->manifest, "a package packed from an extracted one extracts otherwise");
    RemoveAll(destination);
    RemoveAll(repacked);
    RemoveAll(Work().root / "again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0 || data[0] != '{')
    {
        CheckPackage(data, size);
        return 0;
    }
    const nlohmann::json json = nlohmann::json::parse(data, data + size, nullptr, false);
    Manifest manifest;
    try
    {
        manifest = ManifestFromJson(json);
    }
    catch (const PackageException&)
    {
        return 0;
    }
    CheckManifest(manifest, json);
    return 0;
}
