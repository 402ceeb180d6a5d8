#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace
{
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;

std::string Text(const SoftwareComponentId& id)
{
    return fmt::format("{}|{}|{}", id.componentId, static_cast<int>(id.kind), id.name);
}

// The kind's text, case and all, before the first " / "; "" marks a refusal, which leaves the result alone.
TEST(SoftwareComponentIdTest, ParsesTheTextForm)
{
    for (const auto& [text, expected] : {std::pair("Tesmora Engineer project / proj", "Tesmora Engineer project / proj|2|proj"),
                                         std::pair("Generic files / a / b", "Generic files / a / b|1|a / b"),
                                         std::pair("generic files / a", ""), std::pair("Generic files/a", "")})
    {
        SoftwareComponentId id("untouched", SoftwareKind::TesmoraEngineerProject, "untouched");
        EXPECT_EQ(SoftwareComponentId::TryCreate(String(text), id), *expected != '\0') << text;
        EXPECT_EQ(Text(id), *expected != '\0' ? expected : "untouched|2|untouched") << text;
    }
}

TEST(SoftwareComponentIdTest, FormsTheTextFormOfAKindOtherThanNoneAndANonEmptyName)
{
    SoftwareComponentId id("kept", SoftwareKind::GenericFiles, "kept");
    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::None, "x", id));
    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::GenericFiles, String(), id));
    EXPECT_EQ(Text(id), "kept|1|kept");
    ASSERT_TRUE(SoftwareComponentId::TryCreate(SoftwareKind::TesmoraEngineerProject, "a / b", id));
    EXPECT_EQ(Text(id), "Tesmora Engineer project / a / b|2|a / b");
}
} // namespace
