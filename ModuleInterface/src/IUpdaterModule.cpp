// Out-of-line destructor, so that the interface's vtable lives in this library.
#include "Zun/SoftwareUpdate/IUpdaterModule.hpp"

namespace Zun::Services::SoftwareUpdate
{

IUpdaterModule::~IUpdaterModule() = default;

} // namespace Zun::Services::SoftwareUpdate
