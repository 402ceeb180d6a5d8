#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Zun/SoftwareUpdate/InstallationState.hpp"

namespace
{

using namespace Zun::Services::SoftwareUpdate;

TEST(UpdateInstallationStateTest, WritesNamesAndSetsFailbitForOtherValues)
{
    using Services::Internal::InstallationState;
    const std::pair<int, const char*> cases[] = {{0, "Idle"}, {1, "Installing"}, {2, "Error"}, {3, ""}, {-1, ""}};
    for (const auto& [value, text] : cases)
    {
        std::ostringstream stream;
        stream << static_cast<InstallationState>(value);
        EXPECT_EQ(stream.str(), text);
        EXPECT_EQ(stream.fail(), *text == '\0') << value;
    }
}

} // namespace
