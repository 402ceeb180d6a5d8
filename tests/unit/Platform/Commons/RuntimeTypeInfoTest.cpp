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
    A
};
} // namespace ZunTest::Types::Inner

namespace
{

using Zun::RuntimeTypeInfo;
using Zun::String;

TEST(RuntimeTypeInfoTest, NamesClassesAndTemplatesInFull)
{
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName<ZunTest::Types::Inner::Widget>(), "ZunTest::Types::Inner::Widget");
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName<Zun::Enum<ZunTest::Types::Inner::Kind>>(), "Zun::Enum<ZunTest::Types::Inner::Kind>");
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol(typeid(int).name()), "int");
}

TEST(RuntimeTypeInfoTest, NonSymbolFailsWithItsName)
{
    try
    {
        RuntimeTypeInfo::DemangleSymbol("not a symbol!");
        FAIL() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(), "Demangling of type name 'not a symbol!' failed.");
    }
}

TEST(RuntimeTypeInfoTest, RemovesEveryTypeKeyword)
{
    const std::pair<const char*, const char*> cases[] = {
        {"class A::B", "A::B"},
        {"std::map<struct K, enum E>", "std::map<K, E>"},
        {"Zun::Enum<enum class X>", "Zun::Enum<X>"},
        {"class class A", "A"},
        {"A::B", "A::B"},
    };
    for (const auto& [input, expected] : cases)
    {
        EXPECT_EQ(RuntimeTypeInfo::RemoveTypeKeywords(String(input)), expected) << input;
    }
}

} // namespace
