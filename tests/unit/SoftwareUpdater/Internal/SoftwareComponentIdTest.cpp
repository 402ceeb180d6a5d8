#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "../UpdaterModuleFixture.hpp"

namespace
{
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;

std::string Text(const SoftwareComponentId& id)
{
    return fmt::format("{}|{}|{}", id.componentId, static_cast<int>(id.kind), id.name);
}

TEST(SoftwareComponentIdTest, ParsesTheTextFormOrLeavesTheResultAlone)
{
    for (const auto& [text, expected] :
         {std::pair("Generic files / app.tar", "Generic files / app.tar|1|app.tar"),
          std::pair("Tesmora Engineer project / proj", "Tesmora Engineer project / proj|2|proj"),
          std::pair("Generic files / a / b", "Generic files / a / b|1|a / b"), std::pair("Generic files / ", "Generic files / |1|"),
          std::pair("None / x", "None / x|0|x"), std::pair("Generic files/a", ""), std::pair("generic files / a", ""),
          std::pair(" / a", ""), std::pair("Generic files  / a", ""), std::pair("", "")})
    {
        SoftwareComponentId id("untouched", SoftwareKind::TesmoraEngineerProject, "untouched");
        EXPECT_EQ(SoftwareComponentId::TryCreate(String(text), id), *expected != '\0') << text;
        EXPECT_EQ(Text(id), *expected ? expected : "untouched|2|untouched") << text;
    }
    // The display names are compared as NUL-terminated texts.
    SoftwareComponentId id;
    ASSERT_TRUE(SoftwareComponentId::TryCreate(String("Generic files\0junk / a", 22), id));
    EXPECT_EQ(id.kind, SoftwareKind::GenericFiles);
    EXPECT_EQ(id.componentId, String("Generic files\0junk / a", 22));
}

TEST(SoftwareComponentIdTest, FormsTextFromKindAndNameThatParsesBack)
{
    for (SoftwareKind kind : {SoftwareKind::GenericFiles, SoftwareKind::TesmoraEngineerProject})
    {
        for (const char* name : {"a", "a / b", " / ", "with spaces ", "Generic files / x"})
        {
            SoftwareComponentId formed;
            SoftwareComponentId parsed;
            ASSERT_TRUE(SoftwareComponentId::TryCreate(kind, name, formed));
            ASSERT_TRUE(SoftwareComponentId::TryCreate(formed.componentId, parsed)) << formed.componentId;
            EXPECT_EQ(Text(parsed), Text(formed));
        }
    }
    SoftwareComponentId id;
    ASSERT_TRUE(SoftwareComponentId::TryCreate(SoftwareKind::TesmoraEngineerProject, "proj", id));
    EXPECT_EQ(Text(id), "Tesmora Engineer project / proj|2|proj");
}

TEST(SoftwareComponentIdTest, RefusesKindNoneAndAnEmptyNameAndThrowsForAKindWithoutText)
{
    SoftwareComponentId id("kept", SoftwareKind::GenericFiles, "kept");
    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::None, "x", id));
    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::GenericFiles, String(), id));
    // Checked before the kind is written, so an unknown kind with an empty name is no error either.
    EXPECT_FALSE(SoftwareComponentId::TryCreate(static_cast<SoftwareKind>(7), String(), id));
    EXPECT_EQ(Text(id), "kept|1|kept");

    Zun::Testing::UpdaterModule::ExpectThrow<Zun::Exception>(
        [&] { SoftwareComponentId::TryCreate(static_cast<SoftwareKind>(7), "x", id); },
        "Invalid value for Enum 'Zun::Enum<Zun::Services::SoftwareManager::Services::Internal::SoftwareKind>' occurs: 7");
    EXPECT_EQ(Text(id), "kept|1|kept");
}
} // namespace
