#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"

namespace
{
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;

struct ParseCase
{
    const char* text;
    bool parses;
    SoftwareKind kind;
    const char* name;
};

class SoftwareComponentIdParseTest : public testing::TestWithParam<ParseCase>
{
};

TEST_P(SoftwareComponentIdParseTest, ParsesTextForm)
{
    const ParseCase& c = GetParam();
    SoftwareComponentId id(String("untouched"), SoftwareKind::TesmoraEngineerProject, String("untouched"));

    ASSERT_EQ(SoftwareComponentId::TryCreate(String(c.text), id), c.parses);

    if (c.parses)
    {
        EXPECT_EQ(id.componentId, c.text);
        EXPECT_EQ(id.kind, c.kind);
        EXPECT_EQ(id.name, c.name);
    }
    else
    {
        EXPECT_EQ(id.componentId, "untouched");
        EXPECT_EQ(id.kind, SoftwareKind::TesmoraEngineerProject);
        EXPECT_EQ(id.name, "untouched");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SoftwareComponentIdParseTest,
    testing::Values(ParseCase{"Generic files / app.tar", true, SoftwareKind::GenericFiles, "app.tar"},
                    ParseCase{"Tesmora Engineer project / proj", true, SoftwareKind::TesmoraEngineerProject, "proj"},
                    ParseCase{"Generic files / a / b", true, SoftwareKind::GenericFiles, "a / b"},
                    ParseCase{"Generic files / ", true, SoftwareKind::GenericFiles, ""},
                    ParseCase{"None / x", true, SoftwareKind::None, "x"},
                    ParseCase{"Generic files/a", false, SoftwareKind::None, ""},
                    ParseCase{"generic files / a", false, SoftwareKind::None, ""},
                    ParseCase{" / a", false, SoftwareKind::None, ""},
                    ParseCase{"Generic files  / a", false, SoftwareKind::None, ""},
                    ParseCase{"", false, SoftwareKind::None, ""}));

TEST(SoftwareComponentIdTest, SplitOverwritesNameBeforeItKnowsTheKind)
{
    String name = "before";
    SoftwareKind kind = SoftwareKind::TesmoraEngineerProject;

    EXPECT_FALSE(SoftwareComponentId::SplitComponentId(String("Unknown kind / x"), name, kind));

    EXPECT_EQ(name, "x");
    EXPECT_EQ(kind, SoftwareKind::TesmoraEngineerProject);
}

TEST(SoftwareComponentIdTest, SplitWithoutDelimiterChangesNothing)
{
    String name = "before";
    SoftwareKind kind = SoftwareKind::GenericFiles;

    EXPECT_FALSE(SoftwareComponentId::SplitComponentId(String("Generic files"), name, kind));

    EXPECT_EQ(name, "before");
    EXPECT_EQ(kind, SoftwareKind::GenericFiles);
}

TEST(SoftwareComponentIdTest, PrefixIsComparedUpToItsTerminator)
{
    // The display names are compared as NUL-terminated texts.
    SoftwareComponentId id;
    const String text("Generic files\0junk / a", 22);

    ASSERT_TRUE(SoftwareComponentId::TryCreate(text, id));
    EXPECT_EQ(id.kind, SoftwareKind::GenericFiles);
    EXPECT_EQ(id.componentId, text);
}

TEST(SoftwareComponentIdTest, FormsTextFromKindAndName)
{
    SoftwareComponentId id;

    ASSERT_TRUE(SoftwareComponentId::TryCreate(SoftwareKind::TesmoraEngineerProject, String("proj"), id));

    EXPECT_EQ(id.componentId, "Tesmora Engineer project / proj");
    EXPECT_EQ(id.kind, SoftwareKind::TesmoraEngineerProject);
    EXPECT_EQ(id.name, "proj");
}

TEST(SoftwareComponentIdTest, RefusesKindNoneAndEmptyNameWithoutTouchingResult)
{
    SoftwareComponentId id(String("kept"), SoftwareKind::GenericFiles, String("kept"));

    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::None, String("x"), id));
    EXPECT_FALSE(SoftwareComponentId::TryCreate(SoftwareKind::GenericFiles, String(), id));
    // Checked before the kind is written, so an unknown kind with an empty name is no error either.
    EXPECT_FALSE(SoftwareComponentId::TryCreate(static_cast<SoftwareKind>(7), String(), id));

    EXPECT_EQ(id.componentId, "kept");
    EXPECT_EQ(id.name, "kept");
}

TEST(SoftwareComponentIdTest, UnknownKindThrowsWithTheEnumerationName)
{
    SoftwareComponentId id;
    try
    {
        SoftwareComponentId::TryCreate(static_cast<SoftwareKind>(7), String("x"), id);
        FAIL() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(),
                  "Invalid value for Enum 'Zun::Enum<Zun::Services::SoftwareManager::Services::Internal::SoftwareKind>' occurs: 7");
    }
    EXPECT_TRUE(id.componentId.empty());
}

TEST(SoftwareComponentIdTest, EveryFormedTextParsesBack)
{
    for (SoftwareKind kind : {SoftwareKind::GenericFiles, SoftwareKind::TesmoraEngineerProject})
    {
        for (const char* name : {"a", "a / b", " / ", "with spaces ", "Generic files / x"})
        {
            SoftwareComponentId formed;
            SoftwareComponentId parsed;
            ASSERT_TRUE(SoftwareComponentId::TryCreate(kind, String(name), formed));
            ASSERT_TRUE(SoftwareComponentId::TryCreate(formed.componentId, parsed)) << formed.componentId;
            EXPECT_EQ(parsed.kind, kind);
            EXPECT_EQ(parsed.name, name);
        }
    }
}

TEST(SoftwareComponentIdTest, CopiesAreIndependentValues)
{
    SoftwareComponentId original(String("Generic files / a"), SoftwareKind::GenericFiles, String("a"));
    std::vector<SoftwareComponentId> list{original, original};

    list[1].name = "b";

    EXPECT_EQ(list[0].name, "a");
    EXPECT_EQ(original.name, "a");
}
} // namespace
