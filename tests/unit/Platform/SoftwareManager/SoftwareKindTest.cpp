#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/SoftwareKind.hpp"

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

TEST(SoftwareKindTest, WritesTheDisplayNames)
{
    const std::pair<SoftwareKind, const char*> cases[] = {
        {SoftwareKind::None, "None"},
        {SoftwareKind::GenericFiles, "Generic files"},
        {SoftwareKind::TesmoraEngineerProject, "Tesmora Engineer project"},
    };
    for (const auto& [kind, text] : cases)
    {
        bool failed = true;
        EXPECT_EQ(Print(kind, &failed), text);
        EXPECT_FALSE(failed) << text;
    }
}

TEST(SoftwareKindTest, OtherValuesSetFailbitAndWriteNothing)
{
    bool failed = false;
    EXPECT_EQ(Print(static_cast<SoftwareKind>(3), &failed), "");
    EXPECT_TRUE(failed);
}

} // namespace
