#include "Zun/SoftwareManagerService/PackageFormat.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/SigningKey.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace fs = std::filesystem;
using System::Commons::PosixCall;
using Services::Internal::Tag;

namespace
{

constexpr std::size_t MaxListEntries = 1000;
constexpr std::int64_t MaxManifestSize = 8 * 1024 * 1024;
constexpr std::int64_t MaxPayloadBytes = std::int64_t{1} << 30;
constexpr std::size_t MaxEntries = 100'000;
// Bounds that keep every extracted path within what the file system takes below a state folder.
constexpr std::size_t MaxEntryPathBytes = 1024;
constexpr std::size_t MaxPathPartBytes = 255;

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void CivilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d)
{
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
}

template <std::size_t N>
void SetText(System::Rsc::RscString<N>& target, const nlohmann::json& value, const char* field)
{
    if (!value.is_string())
    {
        throw PackageException("Manifest field '{0}' must be a string.", field);
    }
    const auto& text = value.get_ref<const std::string&>();
    if (text.size() >= N)
    {
        throw PackageException("Manifest field '{0}' is too long: {1} bytes, at most {2}.", field, text.size(), N - 1);
    }
    if (text.find('\0') != std::string::npos)
    {
        throw PackageException("Manifest field '{0}' contains a zero byte.", field);
    }
    target = String(text);
}

const nlohmann::json& RequireArray(const nlohmann::json& value, const char* field)
{
    if (!value.is_array())
    {
        throw PackageException("Manifest field '{0}' must be an array.", field);
    }
    if (value.size() > MaxListEntries)
    {
        throw PackageException("Manifest field '{0}' has {1} entries, at most {2}.", field, value.size(), MaxListEntries);
    }
    return value;
}

bool IsHexDigest(const std::string& text)
{
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

struct DigestContext
{
    DigestContext() : context(EVP_MD_CTX_new())
    {
        if (context == nullptr || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1)
        {
            throw PackageException("SHA-256 is not available.");
        }
    }
    ~DigestContext() { EVP_MD_CTX_free(context); }
    DigestContext(const DigestContext&) = delete;
    DigestContext& operator=(const DigestContext&) = delete;

    void Update(const void* data, std::size_t size) { EVP_DigestUpdate(context, data, size); }
    String Finish()
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(context, digest, &length);
        String hex;
        for (unsigned i = 0; i < length; ++i)
        {
            hex += fmt::format("{:02x}", digest[i]);
        }
        return hex;
    }

    EVP_MD_CTX* context;
};

// Relative path (generic form) and absolute path of every regular file below `root`, sorted.
// `root` may also be a single file, which then stands for itself under its file name.
std::vector<std::pair<String, fs::path>> ListPayloadFiles(const fs::path& root)
{
    std::vector<std::pair<String, fs::path>> files;
    const fs::file_status status = fs::symlink_status(root);
    if (fs::is_regular_file(status))
    {
        files.emplace_back(root.filename().generic_string(), root);
        return files;
    }
    if (!fs::is_directory(status))
    {
        throw PackageException("Payload '{0}' is neither a regular file nor a folder.", root.string());
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
    {
        const fs::file_status entryStatus = entry.symlink_status();
        if (fs::is_directory(entryStatus))
        {
            continue;
        }
        if (!fs::is_regular_file(entryStatus))
        {
            throw PackageException("Payload entry '{0}' is not a regular file or folder.", entry.path().string());
        }
        files.emplace_back(fs::relative(entry.path(), root).generic_string(), entry.path());
    }
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return files;
}

String DigestFiles(const std::vector<std::pair<String, fs::path>>& files)
{
    DigestContext digest;
    std::vector<char> buffer(64 * 1024);
    for (const auto& [relative, absolute] : files)
    {
        std::ifstream in(absolute, std::ios::binary);
        if (!in)
        {
            throw PackageException("Cannot read payload file '{0}'.", absolute.string());
        }
        const auto size = static_cast<std::uint64_t>(fs::file_size(absolute));
        std::uint8_t sizeBytes[8];
        for (int i = 0; i < 8; ++i)
        {
            sizeBytes[i] = static_cast<std::uint8_t>(size >> (8 * i));
        }
        digest.Update(relative.data(), relative.size());
        digest.Update("", 1);
        digest.Update(sizeBytes, sizeof sizeBytes);
        while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0)
        {
            digest.Update(buffer.data(), static_cast<std::size_t>(in.gcount()));
        }
    }
    return digest.Finish();
}

struct ArchiveReader
{
    ArchiveReader() : archive(archive_read_new()) {}
    ~ArchiveReader() { archive_read_free(archive); }
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;
    struct archive* archive;
};

struct ArchiveWriter
{
    ArchiveWriter() : archive(archive_write_new()) {}
    ~ArchiveWriter() { archive_write_free(archive); }
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;
    struct archive* archive;
};

// The entry's path without a leading "./"; empty when it is unsafe (absolute, "..", empty parts).
String NormalisePath(const char* raw)
{
    if (raw == nullptr)
    {
        return String();
    }
    std::string path(raw);
    while (path.rfind("./", 0) == 0)
    {
        path.erase(0, 2);
    }
    while (!path.empty() && path.back() == '/')
    {
        path.pop_back();
    }
    if (path.empty() || path.front() == '/')
    {
        return String();
    }
    std::size_t start = 0;
    while (start <= path.size())
    {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..")
        {
            return String();
        }
        start = end + 1;
    }
    return String(path);
}

} // namespace

String FormatIsoDate(const DateTime& date)
{
    const std::int64_t ticks = date.GetTicks() - DateTime::UnixEpochTicks;
    constexpr std::int64_t ticksPerDay = DateTime::TicksPerSecond * 86400;
    std::int64_t days = ticks / ticksPerDay;
    std::int64_t rest = ticks % ticksPerDay;
    if (rest < 0)
    {
        rest += ticksPerDay;
        --days;
    }
    std::int64_t year = 0;
    unsigned month = 0;
    unsigned day = 0;
    CivilFromDays(days, year, month, day);
    const std::int64_t seconds = rest / DateTime::TicksPerSecond;
    const std::int64_t fraction = rest % DateTime::TicksPerSecond;
    String text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", year, month, day, seconds / 3600, seconds / 60 % 60, seconds % 60);
    if (fraction != 0)
    {
        text += fmt::format(".{:07}", fraction);
    }
    return text + "Z";
}

DateTime ParseIsoDate(const String& text)
{
    int year = 0;
    unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0;
    // sscanf alone would also take blanks and signs in a field ("10:00:-0"): the digits are checked first.
    static constexpr char form[] = "dddd-dd-ddTdd:dd:dd";
    const auto fits = [](char f, char c) { return f == 'd' ? c >= '0' && c <= '9' : c == f; };
    if (text.size() < sizeof form - 1 || !std::equal(form, form + sizeof form - 1, text.begin(), fits) ||
        std::sscanf(text.c_str(), "%4d-%2u-%2uT%2u:%2u:%2u", &year, &month, &day, &hour, &minute, &second) != 6)
    {
        throw PackageException("Release date '{0}' is not of the form YYYY-MM-DDTHH:MM:SSZ.", text);
    }
    std::int64_t fraction = 0;
    std::size_t position = 19;
    if (position < text.size() && text[position] == '.')
    {
        ++position;
        int digits = 0;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9')
        {
            if (digits < 7)
            {
                fraction = fraction * 10 + (text[position] - '0');
            }
            ++digits;
            ++position;
        }
        if (digits == 0)
        {
            throw PackageException("Release date '{0}' has an empty fraction.", text);
        }
        for (; digits < 7; ++digits)
        {
            fraction *= 10;
        }
    }
    const String zone = text.substr(position);
    if (zone != "Z" && zone != "+00:00")
    {
        throw PackageException("Release date '{0}' must be in UTC (ending in Z).", text);
    }
    static constexpr unsigned monthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1 || month < 1 || month > 12 || day < 1 || day > monthDays[month - 1] || hour > 23 || minute > 59 || second > 59 ||
        (month == 2 && day == 29 && !(year % 4 == 0 && (year % 100 != 0 || year % 400 == 0))))
    {
        throw PackageException("Release date '{0}' is not a valid date and time.", text);
    }
    const std::int64_t seconds = DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return DateTime(DateTime::UnixEpochTicks + seconds * DateTime::TicksPerSecond + fraction, DateTimeKind::Utc);
}

Manifest ManifestFromJson(const nlohmann::json& json)
{
    if (!json.is_object())
    {
        throw PackageException("The manifest must be a JSON object.");
    }
    Manifest manifest;
    manifest.ReleaseDate = DateTime(DateTime::UnixEpochTicks, DateTimeKind::Utc);
    bool hasVersion = false;
    for (const auto& [key, value] : json.items())
    {
        if (key == "shortText")
            SetText(manifest.ShortText, value, "shortText");
        else if (key == "text1")
            SetText(manifest.Text1, value, "text1");
        else if (key == "text2")
            SetText(manifest.Text2, value, "text2");
        else if (key == "text3")
            SetText(manifest.Text3, value, "text3");
        else if (key == "text4")
            SetText(manifest.Text4, value, "text4");
        else if (key == "text5")
            SetText(manifest.Text5, value, "text5");
        else if (key == "manufacturer")
            SetText(manifest.Manufacturer, value, "manufacturer");
        else if (key == "manufacturerUri")
            SetText(manifest.ManufacturerUri, value, "manufacturerUri");
        else if (key == "version")
        {
            SetText(manifest.Version, value, "version");
            hasVersion = !manifest.Version.IsEmpty();
        }
        else if (key == "releaseDate")
        {
            if (!value.is_string())
            {
                throw PackageException("Manifest field 'releaseDate' must be a string.");
            }
            manifest.ReleaseDate = ParseIsoDate(value.get<std::string>());
        }
        else if (key == "textList")
        {
            for (const nlohmann::json& item : RequireArray(value, "textList"))
            {
                System::Rsc::RscString<512> text;
                SetText(text, item, "textList");
                manifest.TextList.push_back(text);
            }
        }
        else if (key == "updateBehavior")
        {
            if (!value.is_number_integer() || value.get<std::int64_t>() < 0 || value.get<std::int64_t>() > 0xFFFFFFFFll)
            {
                throw PackageException("Manifest field 'updateBehavior' must be an unsigned 32-bit number.");
            }
            manifest.UpdateBehavior = value.get<std::uint32_t>();
        }
        else if (key == "tags")
        {
            for (const nlohmann::json& item : RequireArray(value, "tags"))
            {
                if (!item.is_object() || item.size() != 2 || !item.contains("name") || !item.contains("value"))
                {
                    throw PackageException("Manifest field 'tags' must hold objects with exactly 'name' and 'value'.");
                }
                Tag tag;
                SetText(tag.Name, item["name"], "tags.name");
                SetText(tag.Value, item["value"], "tags.value");
                manifest.Tags.push_back(tag);
            }
        }
        else if (key != "payloadSha256")
        {
            throw PackageException("Unknown manifest field '{0}'.", key);
        }
    }
    if (!hasVersion)
    {
        throw PackageException("The manifest has no 'version'.");
    }
    return manifest;
}

String PayloadDigestFromJson(const nlohmann::json& json)
{
    if (!json.is_object() || !json.contains("payloadSha256") || !json["payloadSha256"].is_string())
    {
        throw PackageException("The manifest has no 'payloadSha256'.");
    }
    const std::string digest = json["payloadSha256"].get<std::string>();
    if (!IsHexDigest(digest))
    {
        throw PackageException("The manifest's 'payloadSha256' is not 64 lower-case hex digits.");
    }
    return String(digest);
}

nlohmann::json ManifestToJson(const Manifest& manifest)
{
    nlohmann::json json;
    json["shortText"] = manifest.ShortText.CStr();
    json["text1"] = manifest.Text1.CStr();
    json["manufacturer"] = manifest.Manufacturer.CStr();
    json["manufacturerUri"] = manifest.ManufacturerUri.CStr();
    json["text2"] = manifest.Text2.CStr();
    json["text3"] = manifest.Text3.CStr();
    json["version"] = manifest.Version.CStr();
    json["releaseDate"] = FormatIsoDate(manifest.ReleaseDate);
    json["text4"] = manifest.Text4.CStr();
    json["textList"] = nlohmann::json::array();
    for (const auto& text : manifest.TextList)
    {
        json["textList"].push_back(text.CStr());
    }
    json["text5"] = manifest.Text5.CStr();
    json["updateBehavior"] = manifest.UpdateBehavior;
    json["tags"] = nlohmann::json::array();
    for (const Tag& tag : manifest.Tags)
    {
        json["tags"].push_back({{"name", tag.Name.CStr()}, {"value", tag.Value.CStr()}});
    }
    return json;
}

String ComputePayloadDigest(const fs::path& payloadDirectory)
{
    return DigestFiles(ListPayloadFiles(payloadDirectory));
}

namespace
{

struct OpenArchive
{
    explicit OpenArchive(int fd)
    {
        // Each pass reads the package from its start.
        PosixCall("lseek", ::lseek, fd, off_t{0}, SEEK_SET);
        archive_read_support_format_tar(reader.archive);
        archive_read_support_filter_gzip(reader.archive);
        if (archive_read_open_fd(reader.archive, fd, 64 * 1024) != ARCHIVE_OK)
        {
            throw PackageException("The package cannot be opened: {0}", archive_error_string(reader.archive));
        }
    }

    // The next entry's path, checked to be safe and of an expected kind; empty at the end.
    String Next(archive_entry*& entry)
    {
        const int status = archive_read_next_header(reader.archive, &entry);
        if (status == ARCHIVE_EOF)
        {
            return String();
        }
        if (status != ARCHIVE_OK)
        {
            throw PackageException("The package is not a readable tar archive: {0}", archive_error_string(reader.archive));
        }
        if (++entries > MaxEntries)
        {
            throw PackageException("The package has more than {0} entries.", MaxEntries);
        }
        const char* rawPath = archive_entry_pathname(entry);
        String path = NormalisePath(rawPath);
        const mode_t type = archive_entry_filetype(entry);
        if (path.empty())
        {
            throw PackageException("The package holds an unsafe entry '{0}'.", rawPath != nullptr ? rawPath : "");
        }
        if (archive_entry_hardlink(entry) != nullptr || (type != AE_IFREG && type != AE_IFDIR))
        {
            throw PackageException("The package entry '{0}' is not a regular file or folder.", path);
        }
        // A GNU header's real size is read as base-256 without a sign check.
        if (archive_entry_size(entry) < 0)
        {
            throw PackageException("The package entry '{0}' has a negative size.", path);
        }
        std::size_t part = 0;
        for (std::size_t start = 0; start < path.size(); start += part + 1)
        {
            part = std::min(path.find('/', start), path.size()) - start;
            if (part > MaxPathPartBytes || path.size() > MaxEntryPathBytes)
            {
                throw PackageException("The package entry '{0}...' has a path of {1} bytes or a part above {2} bytes; at most {3} and {2} are allowed.",
                                       path.substr(0, 64), path.size(), MaxPathPartBytes, MaxEntryPathBytes);
            }
        }
        const bool own = (path == "manifest.json" || path == PackageSignature::FileName) && type == AE_IFREG;
        if (!own && !(path == "payload" && type == AE_IFDIR) && path.rfind("payload/", 0) != 0)
        {
            throw PackageException("Unexpected entry '{0}' in the package; only manifest.json, manifest.sig and payload/ belong there.", path);
        }
        return path;
    }

    // Passes the entry's data to `sink` in pieces.
    template <class Sink>
    void Read(Sink sink)
    {
        la_ssize_t count = 0;
        while ((count = archive_read_data(reader.archive, buffer.data(), buffer.size())) > 0)
        {
            sink(buffer.data(), static_cast<std::size_t>(count));
        }
        if (count < 0)
        {
            throw PackageException("The package is damaged: {0}", archive_error_string(reader.archive));
        }
    }

    ArchiveReader reader;
    std::size_t entries = 0;
    std::vector<char> buffer = std::vector<char>(64 * 1024);
};

} // namespace

ExtractedPackage ExtractPackage(int fd, const fs::path& destination, const Keyring& keyring, bool allowUnsigned)
{
    // First pass, nothing written: every entry checked, the manifest and its signature read and
    // verified. A package that is not trusted costs no disk space and no more time than reading it.
    std::string manifestText;
    bool hasManifest = false;
    std::string signatureText;
    bool hasSignature = false;
    {
        OpenArchive package(fd);
        std::int64_t payloadBytes = 0;
        // Every payload path and the folders it implies (true) or is (false for a file).
        std::map<std::string, bool> folders;
        archive_entry* entry = nullptr;
        for (String path = package.Next(entry); !path.empty(); path = package.Next(entry))
        {
            const bool folder = archive_entry_filetype(entry) == AE_IFDIR;
            for (std::size_t slash = path.find('/'); slash != String::npos; slash = path.find('/', slash + 1))
            {
                const auto [it, added] = folders.emplace(path.substr(0, slash), true);
                if (!it->second)
                {
                    throw PackageException("The package entry '{0}' lies below the file '{1}'.", path, it->first);
                }
            }
            const auto [it, added] = folders.emplace(path, folder);
            if (!added && !(folder && it->second))
            {
                throw PackageException("The package holds '{0}' twice.", path);
            }
            if (path == "manifest.json" || path == PackageSignature::FileName)
            {
                const bool isManifest = path == "manifest.json";
                bool& seen = isManifest ? hasManifest : hasSignature;
                std::string& text = isManifest ? manifestText : signatureText;
                const std::int64_t limit = isManifest ? MaxManifestSize : static_cast<std::int64_t>(PackageSignature::MaxFileSize);
                const auto refuse = [&] { return PackageException("{0} is larger than {1} bytes.", path, limit); };
                if (archive_entry_size(entry) > limit)
                {
                    throw refuse();
                }
                seen = true;
                // The bytes are counted too: a sparse map can make an entry read as more than its header says.
                package.Read([&](const char* data, std::size_t size) {
                    if (static_cast<std::int64_t>(text.size() + size) > limit)
                    {
                        throw refuse();
                    }
                    text.append(data, size);
                });
                continue;
            }
            // The header's size is refused before anything is written: a small compressed package
            // must not expand onto the disk before its payload is found too large. A folder's size
            // (a GNU header's real size may give it one) counts for nothing: it has no data.
            if (archive_entry_filetype(entry) == AE_IFREG)
            {
                if (archive_entry_size(entry) > MaxPayloadBytes - payloadBytes)
                {
                    throw PackageException("The payload is larger than {0} bytes.", MaxPayloadBytes);
                }
                payloadBytes += archive_entry_size(entry);
            }
        }
    }
    if (!hasManifest)
    {
        throw PackageException("The package has no manifest.json.");
    }
    ExtractedPackage extracted;
    if (hasSignature)
    {
        extracted.signer = keyring.Verify(manifestText, ReadSignature(signatureText));
    }
    else if (!allowUnsigned)
    {
        throw PackageException("The package is not signed (it has no {0}); only packages signed by a key of the keyring {1} are accepted.",
                               PackageSignature::FileName, keyring.GetDirectory().string());
    }
    const nlohmann::json json = nlohmann::json::parse(manifestText, nullptr, false);
    if (json.is_discarded())
    {
        throw PackageException("manifest.json is not valid JSON.");
    }
    extracted.manifest = ManifestFromJson(json);
    const String expected = PayloadDigestFromJson(json);

    // Second pass: the payload. The file may have changed in between; the entries are checked again
    // and the digest named by the verified manifest decides.
    CreateDirectory(destination);
    CreateDirectory(destination / "payload");
    OpenArchive package(fd);
    std::int64_t payloadBytes = 0;
    archive_entry* entry = nullptr;
    for (String path = package.Next(entry); !path.empty(); path = package.Next(entry))
    {
        if (path.rfind("payload/", 0) != 0)
        {
            continue;
        }
        const fs::path target = destination / fs::path(static_cast<const std::string&>(path));
        if (archive_entry_filetype(entry) == AE_IFDIR)
        {
            fs::create_directories(target);
            continue;
        }
        fs::create_directories(target.parent_path());
        FileDescriptor out(OpenExclusive(target));
        // The first pass bounded the sizes the headers give; a sparse map can make an entry read as
        // far more, which must not reach the disk.
        const std::int64_t declared = archive_entry_size(entry);
        std::int64_t got = 0;
        package.Read([&](const char* data, std::size_t size) {
            got += static_cast<std::int64_t>(size);
            if (got > declared)
            {
                throw PackageException("The package is damaged: '{0}' holds more than the {1} bytes its header gives.", path, declared);
            }
            payloadBytes += static_cast<std::int64_t>(size);
            if (payloadBytes > MaxPayloadBytes)
            {
                throw PackageException("The payload is larger than {0} bytes.", MaxPayloadBytes);
            }
            WriteAll(out.Get(), data, size);
        });
        PosixCall("fsync", ::fsync, out.Get());
    }
    const String actual = ComputePayloadDigest(destination / "payload");
    if (expected != actual)
    {
        throw PackageException("Payload checksum mismatch: the manifest says {0} but the payload has {1}.", expected, actual);
    }
    WriteFileAtomically(destination / "manifest.json", manifestText);
    return extracted;
}

void WritePackage(const nlohmann::json& manifestIn, const fs::path& payload, const fs::path& output, const SigningKey* key)
{
    ManifestFromJson(manifestIn);
    const auto files = ListPayloadFiles(payload);
    nlohmann::json manifest = manifestIn;
    manifest["payloadSha256"] = DigestFiles(files);
    const std::string manifestText = manifest.dump(2) + "\n";

    const fs::path temporary = output.string() + ".tmp";
    {
        ArchiveWriter writer;
        archive_write_set_format_pax_restricted(writer.archive);
        // Paths are written as the bytes they are, as the reader takes them: a name that is not
        // text in the process's locale (always C here) is no reason to refuse a payload.
        archive_write_set_options(writer.archive, "hdrcharset=BINARY");
        if (archive_write_open_filename(writer.archive, temporary.c_str()) != ARCHIVE_OK)
        {
            throw PackageException("Cannot write '{0}': {1}", temporary.string(), archive_error_string(writer.archive));
        }
        auto addFile = [&](const String& name, const std::string* text, const fs::path* file) {
            std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
            archive_entry_set_pathname(entry.get(), name.c_str());
            archive_entry_set_filetype(entry.get(), AE_IFREG);
            archive_entry_set_perm(entry.get(), 0644);
            archive_entry_set_size(entry.get(), text != nullptr ? static_cast<la_int64_t>(text->size()) : static_cast<la_int64_t>(fs::file_size(*file)));
            if (archive_write_header(writer.archive, entry.get()) != ARCHIVE_OK)
            {
                throw PackageException("Cannot write '{0}': {1}", output.string(), archive_error_string(writer.archive));
            }
            if (text != nullptr)
            {
                archive_write_data(writer.archive, text->data(), text->size());
                return;
            }
            std::ifstream in(*file, std::ios::binary);
            std::vector<char> buffer(64 * 1024);
            while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0)
            {
                if (archive_write_data(writer.archive, buffer.data(), static_cast<std::size_t>(in.gcount())) < 0)
                {
                    throw PackageException("Cannot write '{0}': {1}", output.string(), archive_error_string(writer.archive));
                }
            }
        };
        addFile("manifest.json", &manifestText, nullptr);
        if (key != nullptr)
        {
            const std::string signature = WriteSignature(key->Sign(manifestText));
            addFile(PackageSignature::FileName, &signature, nullptr);
        }
        for (const auto& [relative, absolute] : files)
        {
            addFile("payload/" + relative, nullptr, &absolute);
        }
        if (archive_write_close(writer.archive) != ARCHIVE_OK)
        {
            throw PackageException("Cannot write '{0}': {1}", output.string(), archive_error_string(writer.archive));
        }
    }
    fs::rename(temporary, output);
}

} // namespace Zun::Services::SoftwareManager::Service
