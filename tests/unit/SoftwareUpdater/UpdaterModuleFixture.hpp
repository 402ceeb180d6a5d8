// Shared fixture of the updater module's tests: a module over the in-memory services, the sleep seam
// held so that a status thread polls only when a test releases it, a log capture at level 7 and a
// watchdog against hangs. Journals and log lines compare as one text each, "Generic files / app" as "%".
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace Zun::Testing::UpdaterModule
{

using ::testing::_;
namespace Codes = Services::SoftwareUpdate::StatusCodes;
namespace Sm = Services::SoftwareManager::Services::Internal;
namespace Su = Services::SoftwareUpdate::Services::Internal;
using Module = Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using HostState = Su::InstallationState;
using ManagerState = Sm::InstallationState;
using Kind = Sm::SoftwareKind;
using FileType = Su::SoftwareVersionFileType;
using Record = Su::SoftwareUpdateStatus;
using Services::SoftwareUpdate::StatusCode;

inline const String App = "Generic files / app";
inline const String TargetKey = "TargetSoftwareRevision";
inline const String StartedKey = "InstallationStartedByModule";

inline Sm::Manifest Manifest(const char* version, const char* uri = "urn:zun:test", std::uint32_t behavior = 0)
{
    return FakeSoftwareManagerService::MakeManifest(version, uri, behavior);
}

inline Su::SoftwareVersionType Request(const char* revision = "2.0", const char* uri = "urn:zun:test")
{
    Su::SoftwareVersionType version;
    version.SoftwareRevision = System::Rsc::RscString<512>(revision);
    version.ManufacturerUri = System::Rsc::RscString<512>(uri);
    return version;
}

// Lines joined by "; ", with App written as "%".
inline std::string Joined(const std::vector<String>& lines)
{
    std::string text;
    for (const String& line : lines)
    {
        text += (text.empty() ? "" : "; ") + line;
    }
    for (auto at = text.find(App); at != std::string::npos; at = text.find(App, at))
    {
        text.replace(at, App.size(), "%");
    }
    return text;
}

// Lines that do not begin with one of `prefixes`.
inline std::vector<String> Without(std::vector<String> lines, std::initializer_list<const char*> prefixes)
{
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const String& line) {
                                   return std::any_of(prefixes.begin(), prefixes.end(),
                                                      [&](const char* prefix) { return line.rfind(prefix, 0) == 0; });
                               }),
                lines.end());
    return lines;
}

// Waits for a state that another thread reaches right after a point the test has synchronised with
// (a thread's state flips to 0 just after its body returns); bounded, so that a fault fails.
template <class Predicate> bool WaitUntil(Predicate done)
{
    const auto deadline = std::chrono::steady_clock::now() + Patience();
    while (!done())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class UpdaterModuleTest : public ::testing::Test
{
public:
    // A parked status thread is let go only after the module is disabled, so it ends at once.
    void TearDown() override
    {
        if (module)
        {
            module->Disable();
            sleep.SetAutomatic(true);
            module.reset();
        }
    }

    // Initialises a module; its first pass may start a status thread unless `enabled` is false, which
    // disables it at once so that no status thread calls the services beside the test.
    void Start(bool enabled = false)
    {
        module = std::make_unique<Module>();
        module->Initialize("SoftwareUpdater", env.status);
        if (!enabled)
        {
            module->Disable();
        }
        Clear();
    }

    void Clear()
    {
        env.status->ClearJournal();
        env.manager->ClearJournal();
        logs.Clear();
    }

    // Store calls; `changes` leaves out reads and registrations.
    std::string Journal(bool changes = false) const
    {
        const std::vector<String> lines = env.status->Journal();
        return Joined(changes ? Without(lines, {"GetStatus(", "GetProperty(", "AddComponent("}) : lines);
    }

    // Manager calls; `changes` keeps only those that stage, start or resume.
    std::string ManagerJournal(bool changes = false) const
    {
        const std::vector<String> lines = env.manager->Journal();
        return Joined(changes ? Without(lines, {"Get"}) : lines);
    }

    // Log lines as "level message".
    std::string Log() const
    {
        std::vector<String> lines;
        for (const CapturedLine& line : logs.Lines())
        {
            lines.push_back(fmt::format("{} {}", line.level, line.message));
        }
        return Joined(lines);
    }

    // A stored record as "Idle [text]", "-" when there is none.
    std::string State(const String& name = App) const
    {
        const auto state = env.status->StateOf(name);
        return (state ? fmt::format("{}", fmt::streamed(*state)) : "-") + " [" + env.status->ErrorMessageOf(name) + "]";
    }

    // Everything that a refusal must leave alone: App's record and properties, and the work list.
    std::string Snapshot() const
    {
        std::string text = State();
        for (const auto& [key, value] : env.status->PropertiesOf(App))
        {
            text += " " + key + "=" + value;
        }
        const auto list = module->GetSyncList();
        std::vector<String> names(list.begin(), list.end());
        std::sort(names.begin(), names.end());
        return text + " list: " + Joined(names);
    }

    HostState Sync(const String& name = App)
    {
        Record record;
        EXPECT_EQ(module->GetStatus(name, record), Codes::Good) << name;
        return record.InstallationState;
    }

    // App as the host and the manager see it, with the same text on both sides.
    void Seed(HostState host, ManagerState manager, const char* text = "")
    {
        env.status->Seed(App, host, text);
        env.manager->SetState(Kind::GenericFiles, "app", manager, text);
    }

    Watchdog watchdog{std::chrono::seconds(60)};
    ManualSleep sleep;
    LogCapture logs{7};
    ModuleEnvironment env;
    std::unique_ptr<Module> module;
};

} // namespace Zun::Testing::UpdaterModule
