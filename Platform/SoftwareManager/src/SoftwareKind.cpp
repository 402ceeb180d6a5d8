#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

std::ostream& operator<<(std::ostream& stream, SoftwareKind kind)
{
    switch (kind)
    {
    case SoftwareKind::None:
        return stream << "None";
    case SoftwareKind::GenericFiles:
        return stream << "Generic files";
    case SoftwareKind::TesmoraEngineerProject:
        return stream << "Tesmora Engineer project";
    }
    stream.setstate(std::ios_base::failbit);
    return stream;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
