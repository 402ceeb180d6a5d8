// A record that crosses the remote-call boundary: it writes and reads its own field sequence.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT IRscSerializable
{
public:
    virtual ~IRscSerializable();
    virtual void WriteTo(RemotingWriter& writer) const = 0;
    virtual void ReadFrom(RemotingReader& reader) = 0;
};

} // namespace Zun::System::Rsc
