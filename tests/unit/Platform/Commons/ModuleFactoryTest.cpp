#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Extensibility/ModuleFactory.hpp"

namespace
{

using Zun::String;
using Zun::System::Commons::ArgumentException;
using ZunTest::MessageOf;

struct IWidget
{
    virtual ~IWidget() = default;
};

using Factory = Zun::System::Commons::Extensibility::ModuleFactory<IWidget>;

std::unique_ptr<IWidget> MakeWidget()
{
    return std::make_unique<IWidget>();
}

TEST(ModuleFactoryTest, RefusesBadRegistrationsAndKeepsExactNamesInOrder)
{
    Factory factory;
    factory.AddFactoryFunction("Updater", &MakeWidget);
    EXPECT_EQ(MessageOf<ArgumentException>([&] { factory.AddFactoryFunction("", {}); }),
              "Invalid module name (argument 'moduleName', value '')");
    EXPECT_EQ(MessageOf<ArgumentException>([&] { factory.AddFactoryFunction("Other", {}); }),
              "Invalid factory function. (argument 'function', value '0x0')");
    EXPECT_EQ(MessageOf<ArgumentException>([&] { factory.AddFactoryFunction("Updater", &MakeWidget); }),
              "Duplicate module name (argument 'moduleName', value 'Updater')");
    factory.AddFactoryFunction("updater", &MakeWidget);
    factory.AddFactoryFunction("Updater ", &MakeWidget);

    std::vector<String> names;
    for (const auto& entry : factory.GetEntries())
    {
        names.push_back(entry.first);
    }
    EXPECT_EQ(names, (std::vector<String>{"Updater", "updater", "Updater "}));
    EXPECT_FALSE(factory.Contains("UPDATER"));
}

TEST(ModuleFactoryTest, CreatesANewModulePerCallAndRefusesUnknownNames)
{
    Factory factory;
    factory.AddFactoryFunction("Updater", &MakeWidget);
    auto first = factory.CreateModule("Updater");
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), factory.CreateModule("Updater").get());
    EXPECT_EQ(MessageOf<ArgumentException>([&] { factory.CreateModule("Missing"); }),
              "Unknown module name (argument 'moduleName', value 'Missing')");
}

} // namespace
