#include <gtest/gtest.h>

#include "Zun/Commons/Extensibility/ModuleFactory.hpp"

namespace
{

using Zun::String;
using Zun::System::Commons::ArgumentException;

struct IWidget
{
    virtual ~IWidget() = default;
};

using Factory = Zun::System::Commons::Extensibility::ModuleFactory<IWidget>;

std::unique_ptr<IWidget> MakeWidget()
{
    return std::make_unique<IWidget>();
}

template <class F>
String ArgumentMessage(F&& call)
{
    try
    {
        call();
    }
    catch (const ArgumentException& e)
    {
        return e.GetMessage();
    }
    return "no exception";
}

std::vector<String> Names(const Factory& factory)
{
    std::vector<String> names;
    for (const auto& entry : factory.GetEntries())
    {
        names.push_back(entry.first);
    }
    return names;
}

TEST(ModuleFactoryTest, RejectsBadRegistrationsInOrderAndKeepsTheList)
{
    Factory factory;
    factory.AddFactoryFunction("Updater", &MakeWidget);

    EXPECT_EQ(ArgumentMessage([&] { factory.AddFactoryFunction("", {}); }), "Invalid module name (argument 'moduleName', value '')");
    EXPECT_EQ(ArgumentMessage([&] { factory.AddFactoryFunction("Other", {}); }),
              "Invalid factory function. (argument 'function', value '0x0')");
    EXPECT_EQ(ArgumentMessage([&] { factory.AddFactoryFunction("Updater", &MakeWidget); }),
              "Duplicate module name (argument 'moduleName', value 'Updater')");
    EXPECT_EQ(Names(factory), std::vector<String>{"Updater"});
}

TEST(ModuleFactoryTest, NamesAreExactAndKeepOrder)
{
    Factory factory;
    factory.AddFactoryFunction("Updater", &MakeWidget);
    factory.AddFactoryFunction("updater", &MakeWidget);
    factory.AddFactoryFunction("Updater ", &MakeWidget);
    EXPECT_EQ(Names(factory), (std::vector<String>{"Updater", "updater", "Updater "}));
    EXPECT_TRUE(factory.Contains("updater"));
    EXPECT_FALSE(factory.Contains("UPDATER"));
}

TEST(ModuleFactoryTest, CreateModule)
{
    Factory factory;
    factory.AddFactoryFunction("Updater", &MakeWidget);
    auto first = factory.CreateModule("Updater");
    auto second = factory.CreateModule("Updater");
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(ArgumentMessage([&] { factory.CreateModule("Missing"); }), "Unknown module name (argument 'moduleName', value 'Missing')");
}

} // namespace
