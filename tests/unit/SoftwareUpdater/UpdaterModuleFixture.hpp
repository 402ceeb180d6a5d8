// Shared fixture of the updater module's tests: a module over the in-memory services, the sleep seam
// held so that a status thread polls only when a test releases it, a log capture at level 7 and a
// watchdog against hangs. Journals and log lines compare as one text each, "Generic files / app" as "%".
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Testing/Latch.hpp"
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

// Runs `action` and expects an exception of type E with exactly `message`.
template <class E, class Action>
void ExpectThrow(Action action, const std::string& message)
{
    try
    {
        action();
        ADD_FAILURE() << "no exception";
    }
    catch (const E& e)
    {
        EXPECT_EQ(e.GetMessage(), message);
    }
}

// Counts down when a given message is logged, so that a test can wait for a thread's log line.
class MessageLatch : public System::Commons::Diagnostics::Logging::ILogSink
{
public:
    explicit MessageLatch(String message) : message(std::move(message)) {}
    void Write(const System::Commons::Diagnostics::Logging::LogRecord& record) override
    {
        if (String(record.message) == message)
        {
            seen.Notify();
        }
    }
    Notification seen;

private:
    String message;
};

class UpdaterModuleTest : public ::testing::Test
{
public:
    void TearDown() override { Stop(); }

    // Disabled unless `enabled`, so that no status thread calls the services beside the test.
    void Start(bool enabled = false)
    {
        Create();
        if (!enabled)
        {
            module->Disable();
        }
        Clear();
    }

    // Initialises a module; its first pass may start a status thread.
    void Create()
    {
        module = std::make_unique<Module>();
        module->Initialize("SoftwareUpdater", env.status);
    }

    // A parked status thread is let go only after the module is disabled, so it ends at once.
    void Stop()
    {
        if (module)
        {
            module->Disable();
            sleep.SetAutomatic(true);
            module.reset();
        }
    }

    void Clear()
    {
        env.statusFake->ClearJournal();
        env.managerFake->ClearJournal();
        logs.Clear();
    }

    // Store calls; `changes` leaves out reads and registrations.
    std::string Journal(bool changes = false) const
    {
        std::vector<String> lines = env.statusFake->Journal();
        if (changes)
        {
            lines.erase(std::remove_if(lines.begin(), lines.end(),
                                       [](const String& line) {
                                           return line.rfind("GetStatus(", 0) == 0 || line.rfind("GetProperty(", 0) == 0 ||
                                                  line.rfind("AddComponent(", 0) == 0;
                                       }),
                        lines.end());
        }
        return Joined(lines);
    }

    // Manager calls; `changes` keeps only those that stage, start or resume.
    std::string ManagerJournal(bool changes = false) const
    {
        std::vector<String> lines = env.managerFake->Journal();
        if (changes)
        {
            lines.erase(std::remove_if(lines.begin(), lines.end(), [](const String& line) { return line.rfind("Get", 0) == 0; }),
                        lines.end());
        }
        return Joined(lines);
    }

    // Log lines of every logger as "level message".
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
        const auto state = env.statusFake->StateOf(name);
        return (state ? fmt::format("{}", fmt::streamed(*state)) : "-") + " [" + env.statusFake->ErrorMessageOf(name) + "]";
    }

    // Everything that a refusal must leave alone: App's record and properties, and the work list.
    std::string Snapshot() const
    {
        std::string text = State();
        for (const auto& [key, value] : env.statusFake->PropertiesOf(App))
        {
            text += " " + key + "=" + value;
        }
        std::vector<String> list;
        for (const String& name : module->GetSyncList())
        {
            list.push_back(name);
        }
        std::sort(list.begin(), list.end());
        return text + " list: " + Joined(list);
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
        env.statusFake->Seed(App, host, text);
        env.managerFake->SetState(Kind::GenericFiles, "app", manager, text);
    }

    Watchdog watchdog{std::chrono::seconds(60)};
    ManualSleep sleep;
    LogCapture logs{7};
    ModuleEnvironment env;
    std::unique_ptr<Module> module;
};

} // namespace Zun::Testing::UpdaterModule
