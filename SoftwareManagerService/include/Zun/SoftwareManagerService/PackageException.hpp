// The error of a package, manifest, signature or key that cannot be used; its message says why.
#pragma once

#include "Zun/Commons/Exception.hpp"

namespace Zun::Services::SoftwareManager::Service
{

class PackageException : public Zun::Exception
{
public:
    using Zun::Exception::Exception;
};

} // namespace Zun::Services::SoftwareManager::Service
