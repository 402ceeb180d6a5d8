// Out-of-line destructors, so that each interface's vtable lives in this library.
#include "Zun/Nm/INotificationListener.hpp"
#include "Zun/Nm/INotificationManager.hpp"

namespace Zun::System::Nm
{

INotificationListener::~INotificationListener() = default;
INotificationManager::~INotificationManager() = default;

} // namespace Zun::System::Nm
