// Host threads query many components through the loaded plug-in while its status thread polls and
// the software manager changes states underneath; afterwards everything must agree again.
#include <dlfcn.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/EntryPoint.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace
{
using Zun::AppDomain;
using Zun::Singleton;
using Zun::String;
using Zun::Services::SoftwareUpdate::IUpdaterModule;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using ManagerState = Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Kind = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

constexpr std::size_t ComponentCount = 40;
constexpr std::size_t HostThreads = 4;
constexpr std::size_t Rounds = 12;

String BareName(std::size_t index)
{
    return fmt::format("c{:02}", index);
}

String ComponentName(std::size_t index)
{
    return "Generic files / " + BareName(index);
}

TEST(StatusThreadStressTest, ConcurrentQueriesAndManagerChangesEndConsistent)
{
    Zun::Testing::Watchdog watchdog{std::chrono::seconds(110)};
    // Each pass of the status thread waits for a release by the manager thread, so the number of
    // passes stays bounded however the threads are scheduled.
    Zun::Testing::ManualSleep sleep;
    Zun::Testing::LogCapture logs{7};
    Zun::Testing::ModuleEnvironment env;

    void* handle = dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto entry = reinterpret_cast<EntryFunction>(dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
    ASSERT_NE(entry, nullptr) << dlerror();

    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        env.managerFake->AddComponent(Kind::GenericFiles, BareName(i).c_str());
    }
    // A quarter is being installed at start-up, so the status thread runs from the first pass on.
    for (std::size_t i = 0; i < ComponentCount; i += 4)
    {
        env.managerFake->SetState(Kind::GenericFiles, BareName(i).c_str(), ManagerState::Copying, "copying");
    }
    std::unique_ptr<IUpdaterModule> module = entry(*Singleton<AppDomain>::pInstance)->GetFactory().CreateModule(String("SoftwareUpdater"));
    module->Initialize(String("SoftwareUpdater"), env.status);

    // Every class of manager state, so that components move between all three host states; every
    // third round the manager goes idle throughout, so that the work list can empty and the
    // thread end, and the next round starts it again.
    const std::array<ManagerState, 8> cycle = {ManagerState::Preparing,     ManagerState::Copying, ManagerState::Idle,
                                               ManagerState::CopyingFailed, ManagerState::Idle,    ManagerState::Activating,
                                               ManagerState::ActivatingFailed, static_cast<ManagerState>(7)};
    std::vector<std::unique_ptr<Zun::Testing::Latch>> roundStarts;
    for (std::size_t round = 0; round < Rounds; ++round)
    {
        roundStarts.push_back(std::make_unique<Zun::Testing::Latch>(HostThreads + 1));
    }
    std::atomic<std::size_t> unexpected{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (std::size_t round = 0; round < Rounds; ++round)
        {
            roundStarts[round]->ArriveAndWait();
            for (std::size_t i = 0; i < ComponentCount; ++i)
            {
                const ManagerState state = round % 3 == 2 ? ManagerState::Idle : cycle[(round + i) % cycle.size()];
                env.managerFake->SetState(Kind::GenericFiles, BareName(i).c_str(), state, round % 2 == 0 ? "even" : "odd");
                sleep.Release(1);
                std::this_thread::yield();
            }
        }
    });
    for (std::size_t t = 0; t < HostThreads; ++t)
    {
        threads.emplace_back([&, t] {
            for (std::size_t round = 0; round < Rounds; ++round)
            {
                roundStarts[round]->ArriveAndWait();
                for (std::size_t k = 0; k < ComponentCount; ++k)
                {
                    // 7 is prime to the count: each host visits every component once per round, in its own order.
                    const std::size_t index = (k * 7 + t * 10 + round) % ComponentCount;
                    Record record;
                    const auto result = module->GetStatus(ComponentName(index), record);
                    const auto state = static_cast<int>(record.InstallationState);
                    if (result != Codes::Good || state < 0 || state > 2)
                    {
                        ++unexpected;
                    }
                }
                Record record;
                if (module->GetStatus(String("Generic files/") + BareName(t), record) != Codes::BadInvalidArgument)
                {
                    ++unexpected;
                }
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(unexpected.load(), 0u);
    EXPECT_GE(logs.Count("Start of UpdateStatus Thread"), 1u);

    // The manager settles; one host pass brings every component back to Idle and empties the list.
    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        env.managerFake->SetState(Kind::GenericFiles, BareName(i).c_str(), ManagerState::Idle);
    }
    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        Record record;
        EXPECT_EQ(module->GetStatus(ComponentName(i), record), Codes::Good);
        EXPECT_EQ(record.InstallationState, HostState::Idle) << ComponentName(i);
    }
    sleep.SetAutomatic(true);
    module.reset();

    // Every thread that started has ended, and nothing polls any more.
    EXPECT_EQ(logs.Count("Start of UpdateStatus Thread"), logs.Count("Stop UpdateStatus Thread"));
    const std::size_t calls = env.managerFake->Journal().size();
    EXPECT_EQ(env.statusFake->GetComponentNames().size(), ComponentCount);
    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        EXPECT_EQ(env.statusFake->StateOf(ComponentName(i)), HostState::Idle) << ComponentName(i);
        EXPECT_EQ(env.statusFake->ErrorMessageOf(ComponentName(i)), "") << ComponentName(i);
    }
    EXPECT_EQ(env.managerFake->Journal().size(), calls);
}

} // namespace
