// A named logger: hands finished messages to the log manager.
#include "Zun/Commons/LogAdapter.hpp"
#include "Zun/Commons/LogManager.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

LogAdapter::LogAdapter(String name, int level) : name(std::move(name)), level(level) {}

void LogAdapter::Write(int messageLevel, const String& message) const
{
    LogManager::Dispatch(name, messageLevel, message);
}

} // namespace Zun::System::Commons::Diagnostics::Logging
