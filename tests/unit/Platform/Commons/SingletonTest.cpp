#include <gtest/gtest.h>

#include "Zun/Commons/Singleton.hpp"

namespace ZunTest::Singletons
{
struct Service
{
    int value = 0;
};
struct Registered
{
    int value = 0;
};
} // namespace ZunTest::Singletons

namespace
{

using namespace ZunTest::Singletons;

template <class F>
Zun::String MessageOf(F&& call)
{
    try
    {
        call();
    }
    catch (const Zun::Exception& e)
    {
        return e.GetMessage();
    }
    return "no exception";
}

TEST(SingletonTest, InstanceLivesInTheProcessSlot)
{
    EXPECT_EQ(MessageOf([] { Zun::Singleton<Service>::GetInstance(); }),
              "Singleton instance of type 'ZunTest::Singletons::Service' was not created yet!");

    Service service;
    Zun::Singleton<Service>::pInstance = &service;
    // What another library sees through the same slot.
    EXPECT_EQ(Zun::Detail::GetSingletonSlot(typeid(Service).name()).load(), &service);
    EXPECT_EQ(&Zun::Singleton<Service>::GetInstance(), &service);
    Zun::Singleton<Service>::pInstance = nullptr;
    EXPECT_EQ(static_cast<Service*>(Zun::Singleton<Service>::pInstance), nullptr);
}

TEST(SingletonTest, SlotsAreDistinctPerType)
{
    EXPECT_NE(&Zun::Detail::GetSingletonSlot(typeid(Service).name()), &Zun::Detail::GetSingletonSlot(typeid(Registered).name()));
    EXPECT_EQ(&Zun::Detail::GetSingletonSlot(typeid(Service).name()), &Zun::Detail::GetSingletonSlot(typeid(Service).name()));
}

TEST(AppDomainSingletonTest, LookupThroughTheDomain)
{
    Zun::AppDomain* const previous = Zun::Singleton<Zun::AppDomain>::pInstance;
    Zun::Singleton<Zun::AppDomain>::pInstance = nullptr;
    EXPECT_EQ(MessageOf([] { Zun::AppDomainSingleton<Registered>::GetInstance(); }),
              "Singleton instance of type 'Zun::AppDomain' was not created yet!");

    Zun::AppDomain domain;
    Zun::Singleton<Zun::AppDomain>::pInstance = &domain;
    EXPECT_EQ(MessageOf([] { Zun::AppDomainSingleton<Registered>::GetInstance(); }),
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
