// Failure of the remote-call byte stream: bad tag, oversized string, impossible count, end of data.
#pragma once

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Export.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT RemotingException : public Zun::Exception
{
public:
    using Zun::Exception::Exception;
    ~RemotingException() override;
};

} // namespace Zun::System::Rsc
