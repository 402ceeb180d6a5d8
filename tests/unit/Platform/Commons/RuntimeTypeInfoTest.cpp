#include <gtest/gtest.h>

#include "Zun/Commons/EnumDictionaryBase.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"

namespace ZunTest::Types::Inner
{
class Widget
{
};
enum class Kind : int
{
    A,
    B,
    C
};
} // namespace ZunTest::Types::Inner

namespace
{

using Zun::RuntimeTypeInfo;
using Zun::String;
using namespace ZunTest::Types::Inner;

TEST(RuntimeTypeInfoTest, NamesTypesInFullWithoutKeywords)
{
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName<Widget>(), "ZunTest::Types::Inner::Widget");
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName<Zun::Enum<Kind>>(), "Zun::Enum<ZunTest::Types::Inner::Kind>");
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol(typeid(int).name()), "int");
    const std::pair<const char*, const char*> cases[] = {
        {"class A::B", "A::B"}, {"std::map<struct K, enum E>", "std::map<K, E>"}, {"Zun::Enum<enum class X>", "Zun::Enum<X>"},
        {"class class A", "A"}, {"A::B", "A::B"},
    };
    for (const auto& [input, expected] : cases)
    {
        EXPECT_EQ(RuntimeTypeInfo::RemoveTypeKeywords(String(input)), expected) << input;
    }
}

} // namespace
