#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/InstallationState.hpp"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;

template <class T>
std::string Print(T value, bool* failed = nullptr)
{
    std::ostringstream stream;
    stream << value;
    if (failed != nullptr)
    {
        *failed = stream.fail();
    }
    return stream.str();
}

TEST(ManagerInstallationStateTest, WritesNamesAndNumbersForOtherValues)
{
    const std::pair<int, const char*> cases[] = {
        {0, "Idle"},          {1, "Preparing"},       {2, "PreparingFailed"}, {3, "Copying"},
        {4, "CopyingFailed"}, {5, "Activating"},      {6, "ActivatingFailed"}, {7, "7"},
        {-1, "-1"},
    };
    for (const auto& [value, text] : cases)
    {
        bool failed = true;
        EXPECT_EQ(Print(static_cast<InstallationState>(value), &failed), text);
        EXPECT_FALSE(failed) << text;
    }
}

} // namespace
