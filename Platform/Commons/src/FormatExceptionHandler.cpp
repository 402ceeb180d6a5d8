// Text for a message whose formatting failed.
#include "Zun/Commons/FormatExceptionHandler.hpp"

namespace Zun::System::Commons
{

String FormatExceptionHandler::Handle(const char* format, const char* reason)
{
    // Built by concatenation: formatting here could fail the same way.
    String text("Format error in '");
    text += format != nullptr ? format : "";
    text += "': ";
    text += reason != nullptr ? reason : "";
    return text;
}

} // namespace Zun::System::Commons
