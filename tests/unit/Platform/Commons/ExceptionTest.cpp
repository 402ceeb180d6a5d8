#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"

namespace
{

using Zun::String;
using namespace Zun::System::Commons;

String FmtReason(const char* format)
{
    try
    {
        (void)fmt::format(fmt::runtime(format), 1);
    }
    catch (const fmt::format_error& e)
    {
        return String(e.what());
    }
    return String();
}

TEST(ExceptionTest, PlainMessageKeepsBraces)
{
    const Zun::Exception e(String("updaterStatus is {null}."));
    EXPECT_STREQ(e.what(), "updaterStatus is {null}.");
}

TEST(ExceptionTest, FormatsPositionalArguments)
{
    EXPECT_EQ(Zun::Exception("Could not retrieve service '{0}' from service provider '{1}'.", String("S"), "Zun").GetMessage(),
              "Could not retrieve service 'S' from service provider 'Zun'.");
    EXPECT_EQ(Zun::Exception("{0}-{0}-{1}", 7, 'x').GetMessage(), "7-7-x");
}

TEST(ExceptionTest, BadFormatGoesThroughHandler)
{
    const Zun::Exception e("Broken {", 1);
    EXPECT_EQ(e.GetMessage(), FormatExceptionHandler::Handle("Broken {", FmtReason("Broken {").c_str()));
    EXPECT_EQ(e.GetMessage().rfind("Format error in 'Broken {': ", 0), 0u);
    EXPECT_EQ(FormatExceptionHandler::Handle("a{", "why"), "Format error in 'a{': why");
}

TEST(ArgumentExceptionTest, CreateWithValue)
{
    const ArgumentException e = ArgumentException::Create("moduleName", String("SoftwareUpdater"), "Duplicate module name");
    EXPECT_EQ(e.GetMessage(), "Duplicate module name (argument 'moduleName', value 'SoftwareUpdater')");
    EXPECT_EQ(e.GetArgumentName(), "moduleName");
}

TEST(ArgumentExceptionTest, ValueIsNotInterpretedAsFormat)
{
    EXPECT_EQ(ArgumentException::Create("name", String("{0}{"), "Bad").GetMessage(), "Bad (argument 'name', value '{0}{')");
}

TEST(ArgumentExceptionTest, CreateWithoutValue)
{
    const ArgumentException e = ArgumentException::Create("count", "Must be positive");
    EXPECT_EQ(e.GetMessage(), "Must be positive (argument 'count')");
    EXPECT_EQ(e.GetArgumentName(), "count");
}

} // namespace
