#include <gtest/gtest.h>

#include "Zun/Commons/EnumDictionaryBase.hpp"

namespace ZunTest::Dictionary
{
enum class Colour : int
{
    None = 0,
    Red = 1,
    Green = 2
};
} // namespace ZunTest::Dictionary

namespace
{

using ZunTest::Dictionary::Colour;

const Zun::EnumDictionaryBase<Colour> Colours{{Colour::Green, "Green"}, {Colour::None, "None"}, {Colour::Red, "Red"}};

TEST(EnumDictionaryBaseTest, EntriesInValueOrder)
{
    std::vector<int> values;
    for (const auto& entry : Colours.GetEntries())
    {
        values.push_back(static_cast<int>(entry.first));
    }
    EXPECT_EQ(values, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(Colours.GetText(Colour::Red), "Red");
}

TEST(EnumDictionaryBaseTest, UnknownValue)
{
    Zun::String text("unchanged");
    EXPECT_FALSE(Colours.TryGetText(static_cast<Colour>(7), text));
    EXPECT_EQ(text, "unchanged");
    try
    {
        Colours.GetText(static_cast<Colour>(7));
        FAIL() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(), "Invalid value for Enum 'Zun::Enum<ZunTest::Dictionary::Colour>' occurs: 7");
    }
}

} // namespace
