#include "Zun/UpdateService/RequestValidation.hpp"

#include "Zun/Commons/Exception.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

using System::Commons::ArgumentException;

namespace
{
void CheckNoNul(const char* argumentName, const String& text)
{
    const std::size_t position = text.find('\0');
    if (position != String::npos)
    {
        throw ArgumentException(argumentName, Zun::Exception::Format("The {0} holds a NUL byte at offset {1}.", argumentName, position));
    }
}
} // namespace

void RequestValidation::CheckComponentName(const String& componentName)
{
    CheckNoNul("name", componentName);
    const std::size_t delimiter = componentName.find(ComponentIdDelimiter);
    if (delimiter == String::npos)
    {
        return;
    }
    const std::size_t nameLength = componentName.size() - delimiter - std::char_traits<char>::length(ComponentIdDelimiter);
    if (nameLength > MaxTextLength)
    {
        throw ArgumentException("name", Zun::Exception::Format("The component name after '{0}' is {1} bytes long; at most {2} are allowed.",
                                                                ComponentIdDelimiter, nameLength, MaxTextLength));
    }
}

void RequestValidation::CheckText(const char* argumentName, const String& text)
{
    CheckNoNul(argumentName, text);
    if (text.size() > MaxTextLength)
    {
        throw ArgumentException(argumentName, Zun::Exception::Format("The {0} is {1} bytes long; at most {2} are allowed.", argumentName,
                                                                      text.size(), MaxTextLength));
    }
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService
