#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/ServiceManager.hpp"

namespace
{

using namespace Zun::System::Rsc;
using ::testing::_;
using ::testing::AllOf;
using ::testing::Field;
using ::testing::Ref;
using ::testing::Return;

class MockFactory : public IRscServiceProxyFactory
{
public:
    MOCK_METHOD(Zun::String, GetServiceInterfaceName, (), (const, override));
    MOCK_METHOD(IRscService*, CreateProxy, (const RscEndpoint& endpoint), (override));
};

class MockProvider : public IServiceProvider
{
public:
    MOCK_METHOD(IRscService*, GetService, (IRscServiceProxyFactory & proxyFactory), (override));
};

class ServiceManagerTest : public ::testing::Test
{
protected:
    // A name of its own, so that providers registered elsewhere in the process do not interfere.
    const Zun::String name = "ServiceManagerTest.Provider";
    void TearDown() override { ServiceManager::UnregisterProvider(name); }
    MockFactory factory;
    IRscService service;
};

TEST_F(ServiceManagerTest, TheLastProviderRegisteredUnderANameIsAskedUntilUnregistered)
{
    EXPECT_EQ(ServiceManager::GetService(name.c_str(), factory), nullptr);
    EXPECT_EQ(ServiceManager::GetService(nullptr, factory), nullptr);
    auto first = std::make_shared<MockProvider>();
    auto second = std::make_shared<MockProvider>();
    EXPECT_CALL(*first, GetService(_)).Times(0);
    EXPECT_CALL(*second, GetService(Ref(factory))).WillOnce(Return(&service));
    ServiceManager::RegisterProvider(name, first);
    ServiceManager::RegisterProvider(name, second);

    EXPECT_EQ(ServiceManager::GetService(name.c_str(), factory), &service);
    ServiceManager::UnregisterProvider(name);
    EXPECT_EQ(ServiceManager::GetService(name.c_str(), factory), nullptr);
}

TEST_F(ServiceManagerTest, EndpointProviderMakesAProxyForItsEndpoint)
{
    auto* proxy = new IRscService();
    EXPECT_CALL(factory, CreateProxy(AllOf(Field(&RscEndpoint::socketPath, Zun::String("/run/zun/manager.sock")),
                                           Field(&RscEndpoint::timeoutMilliseconds, 250u))))
        .WillOnce(Return(proxy));
    ServiceManager::RegisterEndpoint(name, RscEndpoint{"/run/zun/manager.sock", 250});
    std::unique_ptr<IRscService> result(ServiceManager::GetService(name.c_str(), factory));
    EXPECT_EQ(result.get(), proxy);
}

TEST_F(ServiceManagerTest, RefusesNullProviderAndEmptyName)
{
    using Zun::System::Commons::ArgumentException;
    EXPECT_THROW(ServiceManager::RegisterProvider(name, nullptr), ArgumentException);
    EXPECT_THROW(ServiceManager::RegisterProvider("", std::make_shared<MockProvider>()), ArgumentException);
    EXPECT_EQ(ServiceManager::GetService(name.c_str(), factory), nullptr);
}

} // namespace
