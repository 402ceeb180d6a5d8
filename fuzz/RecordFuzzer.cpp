// Fuzzes every record's ReadFrom through RemotingReader. The first byte selects the record, the rest
// is the stream. A stream may only be refused with RemotingException, NotSupportedException or
// std::length_error; a record that reads completely must write itself again (refused with
// NotSupportedException only when a date is Unspecified) and read back equal from what it wrote
// (compared by writing the re-read record once more).
#include <exception>
#include <stdexcept>
#include <vector>

#include "FuzzCheck.hpp"
#include "ServiceContracts/Manifest.hpp"
#include "ServiceContracts/SoftwareInformation.hpp"
#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "ServiceContracts/SoftwareVersionType.hpp"
#include "ServiceContracts/Tag.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace Manager = Zun::Services::SoftwareManager::Services::Internal;
namespace Update = Zun::Services::SoftwareUpdate::Services::Internal;
using Zun::System::Commons::NotSupportedException;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;

namespace
{

bool IsUnspecified(const Zun::DateTime& date)
{
    return date.GetKind() == Zun::DateTimeKind::Unspecified;
}

bool HasUnspecifiedDate(const Manager::Tag&) { return false; }
bool HasUnspecifiedDate(const Manager::Manifest& r) { return IsUnspecified(r.ReleaseDate); }
bool HasUnspecifiedDate(const Manager::SoftwareInformation& r)
{
    return IsUnspecified(r.CurrentManifest.ReleaseDate) || IsUnspecified(r.PendingManifest.ReleaseDate);
}
bool HasUnspecifiedDate(const Update::SoftwareVersionType& r) { return IsUnspecified(r.ReleaseDate); }
bool HasUnspecifiedDate(const Update::SoftwareUpdateStatus&) { return false; }

// Runs `action`; true when it returned, false when it threw one of the expected refusals.
template <class Action>
bool Refusable(Action action)
{
    try
    {
        action();
        return true;
    }
    catch (const RemotingException&)
    {
    }
    catch (const NotSupportedException&)
    {
    }
    catch (const std::length_error&)
    {
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "unexpected exception: %s\n", e.what());
        std::abort();
    }
    catch (...)
    {
        std::fprintf(stderr, "unexpected exception of unknown type\n");
        std::abort();
    }
    return false;
}

template <class Record>
void Check(const std::uint8_t* data, std::size_t size)
{
    Record record;
    RemotingReader reader(data, size);
    if (!Refusable([&] { record.ReadFrom(reader); }))
    {
        return;
    }
    ZUN_FUZZ_CHECK(reader.GetPosition() <= size, "the reader went past the end");

    std::vector<std::uint8_t> written;
    try
    {
        RemotingWriter writer(written);
        record.WriteTo(writer);
    }
    catch (const NotSupportedException&)
    {
        ZUN_FUZZ_CHECK(HasUnspecifiedDate(record), "a record without Unspecified date could not be written");
        return;
    }
    ZUN_FUZZ_CHECK(!HasUnspecifiedDate(record), "a record with an Unspecified date was written");

    Record again;
    RemotingReader rereader(written.data(), written.size());
    try
    {
        again.ReadFrom(rereader);
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "re-read failed: %s\n", e.what());
        std::abort();
    }
    ZUN_FUZZ_CHECK(rereader.GetRemaining() == 0, "the re-read left bytes of what was written");
    // Equal records write equal streams; this also holds the writer to a canonical encoding.
    std::vector<std::uint8_t> rewritten;
    RemotingWriter rewriter(rewritten);
    again.WriteTo(rewriter);
    ZUN_FUZZ_CHECK(rewritten == written, "the re-read record differs from the written one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const std::uint8_t* stream = data + 1;
    const std::size_t length = size - 1;
    switch (data[0] % 5)
    {
    case 0:
        Check<Manager::Tag>(stream, length);
        break;
    case 1:
        Check<Manager::Manifest>(stream, length);
        break;
    case 2:
        Check<Manager::SoftwareInformation>(stream, length);
        break;
    case 3:
        Check<Update::SoftwareVersionType>(stream, length);
        break;
    default:
        Check<Update::SoftwareUpdateStatus>(stream, length);
        break;
    }
    return 0;
}
