// Fuzzes every record's ReadFrom through RemotingReader. The first byte selects the record, the rest
// is the stream. A stream may only be refused with RemotingException, NotSupportedException or
// std::length_error; a record that reads completely must write itself again (refused with
// NotSupportedException only when a date is Unspecified) and read back equal from what it wrote
// (compared by writing the re-read record once more).
#include <iterator>
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

// Runs `action`; true when it returned, false when it threw one of the expected refusals. Any
// other exception ends the process (uncaught), which the fuzzer reports.
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
    again.ReadFrom(rereader); // what was written reads back: any exception here is a finding
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
    static constexpr void (*checks[])(const std::uint8_t*, std::size_t) = {
        Check<Manager::Tag>, Check<Manager::Manifest>, Check<Manager::SoftwareInformation>, Check<Update::SoftwareVersionType>,
        Check<Update::SoftwareUpdateStatus>};
    if (size > 0)
    {
        checks[data[0] % std::size(checks)](data + 1, size - 1);
    }
    return 0;
}
