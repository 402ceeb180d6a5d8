// Host threads query many components through the loaded plug-in while its status thread polls and
// the software manager changes states underneath; afterwards everything must agree again.
#include <dlfcn.h>

#include <array>
#include <atomic>
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
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using ManagerState = Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
constexpr auto Files = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind::GenericFiles;

constexpr std::size_t ComponentCount = 40;
constexpr std::size_t HostThreads = 4;
constexpr std::size_t Rounds = 12;

std::string BareName(std::size_t index)
{
    return fmt::format("c{:02}", index);
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
    auto entry = reinterpret_cast<decltype(&CreateSoftwareUpdateModuleLibrary)>(dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
    ASSERT_NE(entry, nullptr) << dlerror();

    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        env.managerFake->AddComponent(Files, BareName(i).c_str());
        // A quarter is being installed at start-up, so the status thread runs from the first pass on.
        if (i % 4 == 0)
        {
            env.managerFake->SetState(Files, BareName(i).c_str(), ManagerState::Copying, "copying");
        }
    }
    auto module = entry(*Zun::Singleton<Zun::AppDomain>::pInstance)->GetFactory().CreateModule(Zun::String("SoftwareUpdater"));
    module->Initialize(Zun::String("SoftwareUpdater"), env.status);

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
                env.managerFake->SetState(Files, BareName(i).c_str(), state, round % 2 == 0 ? "even" : "odd");
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
                    Record record;
                    const auto result = module->GetStatus("Generic files / " + BareName((k * 7 + t * 10 + round) % ComponentCount), record);
                    const auto state = static_cast<int>(record.InstallationState);
                    unexpected += result != Codes::Good || state < 0 || state > 2;
                }
                Record record;
                unexpected += module->GetStatus("Generic files/" + BareName(t), record) != Codes::BadInvalidArgument;
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
        env.managerFake->SetState(Files, BareName(i).c_str(), ManagerState::Idle);
    }
    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        Record record;
        EXPECT_EQ(module->GetStatus("Generic files / " + BareName(i), record), Codes::Good);
        EXPECT_EQ(record.InstallationState, HostState::Idle) << BareName(i);
    }
    sleep.SetAutomatic(true);
    module.reset();

    // Every thread that started has ended, and nothing polls any more.
    EXPECT_EQ(logs.Count("Start of UpdateStatus Thread"), logs.Count("Stop UpdateStatus Thread"));
    const std::size_t calls = env.managerFake->Journal().size();
    EXPECT_EQ(env.statusFake->GetComponentNames().size(), ComponentCount);
    for (std::size_t i = 0; i < ComponentCount; ++i)
    {
        EXPECT_EQ(env.statusFake->StateOf("Generic files / " + BareName(i)), HostState::Idle) << BareName(i);
        EXPECT_EQ(env.statusFake->ErrorMessageOf("Generic files / " + BareName(i)), "") << BareName(i);
    }
    EXPECT_EQ(env.managerFake->Journal().size(), calls);
}

} // namespace
