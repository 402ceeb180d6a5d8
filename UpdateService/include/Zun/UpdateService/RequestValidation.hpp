// Checks of the texts that enter the update service, made before a request reaches the updater
// module: the module's operations cannot refuse a text that does not fit a remote call, they end
// the process.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

class ZUN_EXPORT RequestValidation
{
public:
    // Texts that reach the software manager hold fewer bytes than this.
    static constexpr std::size_t MaxTextLength = 511;
    static constexpr const char* ComponentIdDelimiter = " / ";

    // A component name "<kind> / <name>": the part after the first " / " must be shorter than 512
    // bytes, and the whole name must hold no NUL. A name without delimiter passes (the module
    // refuses it with Bad_InvalidArgument). Throws ArgumentException with argument "name".
    static void CheckComponentName(const String& componentName);
    // A package reference, a software revision, a manufacturer URI, a patch identifier: shorter
    // than 512 bytes, no NUL. Throws ArgumentException with `argumentName`.
    static void CheckText(const char* argumentName, const String& text);
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService
