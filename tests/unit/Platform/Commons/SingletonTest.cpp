#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Singleton.hpp"

namespace ZunTest::Singletons
{
struct Service
{
};
struct Registered
{
};
} // namespace ZunTest::Singletons

namespace
{

using namespace ZunTest::Singletons;
using ZunTest::MessageOf;

TEST(SingletonTest, InstanceLivesInOneProcessSlotPerType)
{
    EXPECT_EQ(MessageOf<Zun::Exception>([] { Zun::Singleton<Service>::GetInstance(); }),
              "Singleton instance of type 'ZunTest::Singletons::Service' was not created yet!");
    Service service;
    Zun::Singleton<Service>::pInstance = &service;
    // What another library sees through the same slot.
    EXPECT_EQ(Zun::Detail::GetSingletonSlot(typeid(Service).name()).load(), &service);
    EXPECT_EQ(&Zun::Singleton<Service>::GetInstance(), &service);
    EXPECT_EQ(Zun::Detail::GetSingletonSlot(typeid(Registered).name()).load(), nullptr);
    Zun::Singleton<Service>::pInstance = nullptr;
    EXPECT_EQ(Zun::Detail::GetSingletonSlot(typeid(Service).name()).load(), nullptr);
}

TEST(SingletonTest, AppDomainSingletonIsFoundThroughTheDomain)
{
    Zun::AppDomain* const previous = Zun::Singleton<Zun::AppDomain>::pInstance;
    Zun::Singleton<Zun::AppDomain>::pInstance = nullptr;
    EXPECT_EQ(MessageOf<Zun::Exception>([] { Zun::AppDomainSingleton<Registered>::GetInstance(); }),
              "Singleton instance of type 'Zun::AppDomain' was not created yet!");

    Zun::AppDomain domain;
    Zun::Singleton<Zun::AppDomain>::pInstance = &domain;
    EXPECT_EQ(MessageOf<Zun::Exception>([] { Zun::AppDomainSingleton<Registered>::GetInstance(); }),
              "AppDomain Singleton instance of type 'ZunTest::Singletons::Registered' was not created yet!");
    Registered registered;
    domain.SetSingleton(&registered);
    EXPECT_EQ(&Zun::AppDomainSingleton<Registered>::GetInstance(), &registered);
    EXPECT_EQ(domain.FindSingleton<Service>(), nullptr);
    domain.RemoveSingleton<Registered>();
    EXPECT_EQ(domain.FindSingleton<Registered>(), nullptr);
    Zun::Singleton<Zun::AppDomain>::pInstance = previous;
}

} // namespace
