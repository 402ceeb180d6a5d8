// Fuzzes the component identifier's parser and its forming from kind and name: parsing never
// throws, changes its result only on success, and every identifier formed parses back.
#include <cstring>

#include "FuzzCheck.hpp"
#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"
#include "Zun/Commons/Exception.hpp"

using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;

namespace
{

const String Sentinel = "sentinel";

// Independent model of the grammar: a display name, compared up to its first NUL, then the delimiter.
bool ShouldParse(const String& text)
{
    const std::size_t delimiter = text.find(" / ");
    if (delimiter == String::npos)
    {
        return false;
    }
    const String prefix = text.substr(0, delimiter);
    for (const char* displayName : {"None", "Generic files", "Tesmora Engineer project"})
    {
        if (std::strcmp(displayName, prefix.c_str()) == 0)
        {
            return true;
        }
    }
    return false;
}

void CheckParse(const String& text)
{
    SoftwareComponentId parsed(Sentinel, SoftwareKind::TesmoraEngineerProject, Sentinel);
    if (!SoftwareComponentId::TryCreate(text, parsed))
    {
        ZUN_FUZZ_CHECK(parsed.componentId == Sentinel && parsed.kind == SoftwareKind::TesmoraEngineerProject &&
                           parsed.name == Sentinel,
                       "a refused text changed the result");
        ZUN_FUZZ_CHECK(!ShouldParse(text), "a well-formed text was refused");
        return;
    }
    ZUN_FUZZ_CHECK(ShouldParse(text), "a malformed text parsed");
    ZUN_FUZZ_CHECK(parsed.componentId == text, "the parsed identifier does not keep the caller's text");
    const std::size_t delimiter = text.find(SoftwareComponentId::ComponentIdDelimiter);
    ZUN_FUZZ_CHECK(parsed.name == text.substr(delimiter + SoftwareComponentId::ComponentIdDelimiter.size()),
                   "the name is not the text after the first delimiter");

    SoftwareComponentId formed;
    const bool accepted = SoftwareComponentId::TryCreate(parsed.kind, parsed.name, formed);
    if (parsed.kind == SoftwareKind::None || parsed.name.empty())
    {
        ZUN_FUZZ_CHECK(!accepted, "kind None or an empty name was formed");
        return;
    }
    ZUN_FUZZ_CHECK(accepted, "a parsed kind and name could not be formed");
    ZUN_FUZZ_CHECK(formed.kind == parsed.kind && formed.name == parsed.name, "forming changed kind or name");
    // The prefix is compared as a NUL-terminated string, so only a text without NUL before the
    // delimiter comes back byte for byte.
    if (text.find('\0') >= delimiter)
    {
        ZUN_FUZZ_CHECK(formed.componentId == text, "the formed text differs from the parsed one");
    }
}

void CheckForm(SoftwareKind kind, const String& name)
{
    SoftwareComponentId formed(Sentinel, SoftwareKind::None, Sentinel);
    bool accepted = false;
    try
    {
        accepted = SoftwareComponentId::TryCreate(kind, name, formed);
    }
    catch (const Zun::Exception& e)
    {
        ZUN_FUZZ_CHECK(static_cast<int>(kind) > 2 && !name.empty(), "a valid kind threw");
        ZUN_FUZZ_CHECK(std::strstr(e.what(), "Invalid value for Enum '") == e.what(), "unexpected message");
        ZUN_FUZZ_CHECK(formed.componentId == Sentinel && formed.name == Sentinel, "a throw changed the result");
        return;
    }
    if (kind == SoftwareKind::None || name.empty())
    {
        ZUN_FUZZ_CHECK(!accepted, "kind None or an empty name was formed");
        ZUN_FUZZ_CHECK(formed.componentId == Sentinel && formed.name == Sentinel, "a refusal changed the result");
        return;
    }
    ZUN_FUZZ_CHECK(accepted && static_cast<int>(kind) <= 2, "an unknown kind was formed");
    SoftwareComponentId parsed;
    ZUN_FUZZ_CHECK(SoftwareComponentId::TryCreate(formed.componentId, parsed), "a formed text does not parse");
    ZUN_FUZZ_CHECK(parsed.kind == kind && parsed.name == name && parsed.componentId == formed.componentId,
                   "a formed text parses to another identifier");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const String text(reinterpret_cast<const char*>(data), size);
    CheckParse(text);
    if (size > 0)
    {
        // First byte: the kind (0..3, 3 being outside the enumeration); the rest: the name.
        CheckForm(static_cast<SoftwareKind>(data[0] & 3), text.substr(1));
    }
    return 0;
}
