// A remote service as the service manager hands it out: a proxy the caller owns and casts.
#pragma once

#include "Zun/Commons/Export.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT IRscService
{
public:
    virtual ~IRscService();
};

} // namespace Zun::System::Rsc
