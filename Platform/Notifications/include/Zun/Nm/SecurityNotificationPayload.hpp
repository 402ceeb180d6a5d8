// Payload of a security notification: one text.
#pragma once

#include "Zun/Commons/String.hpp"

namespace Zun::System::Nm
{

class SecurityNotificationPayload
{
public:
    static constexpr const char* TypeName = "Zun.System.Nm.SecurityNotificationPayload";

    explicit SecurityNotificationPayload(String text) : text(std::move(text)) {}
    const String& GetText() const noexcept { return text; }
    // The payload as it travels: the text itself.
    const String& Serialize() const noexcept { return text; }

private:
    String text;
};

} // namespace Zun::System::Nm
