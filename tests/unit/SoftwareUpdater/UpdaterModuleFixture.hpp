// Test fixture for the updater module's queries, installation and whole installation runs: an
// initialised module over the in-memory services, the sleep seam held so that the status thread
// polls only when a test releases it, a log capture at level 7 and a watchdog against hangs.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace Zun::Testing::UpdaterModule
{

namespace Codes = Services::SoftwareUpdate::StatusCodes;
namespace Sm = Services::SoftwareManager::Services::Internal;
namespace Su = Services::SoftwareUpdate::Services::Internal;
using Module = Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using HostState = Su::InstallationState;
using ManagerState = Sm::InstallationState;
using Sm::SoftwareKind;
using FileType = Su::SoftwareVersionFileType;
using Services::SoftwareUpdate::StatusCode;

inline const String Name = "Generic files / app";
inline const char* const BareName = "app";
inline const String TargetKey = "TargetSoftwareRevision";
inline const String StartedKey = "InstallationStartedByModule";
inline const String ModuleLogger = "Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule";

inline Sm::Manifest MakeManifest(const char* version, const char* uri = "urn:zun:test", std::uint32_t behavior = 0)
{
    return FakeSoftwareManagerService::MakeManifest(version, uri, behavior);
}

// The request that names the fake's default pending package exactly.
inline Su::SoftwareVersionType Request(const char* revision = "2.0", const char* uri = "urn:zun:test")
{
    Su::SoftwareVersionType version;
    version.SoftwareRevision = System::Rsc::RscString<512>(revision);
    version.ManufacturerUri = System::Rsc::RscString<512>(uri);
    return version;
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
protected:
    // "Generic files / app": 1.0 installed, 2.0 pending, manager idle.
    void SetUp() override
    {
        env.managerFake->AddComponent(SoftwareKind::GenericFiles, BareName, MakeManifest("1.0"), MakeManifest("2.0"));
        StartModule();
    }

    void TearDown() override { StopModule(); }

    void StartModule()
    {
        module = std::make_unique<Module>();
        module->Initialize("SoftwareUpdater", env.status);
        ClearRecords();
    }

    // A parked status thread is let go only after the module is disabled, so it ends at once.
    void StopModule()
    {
        if (module)
        {
            module->Disable();
            sleep.SetAutomatic(true);
            module.reset();
        }
    }

    void ClearRecords()
    {
        env.statusFake->ClearJournal();
        env.managerFake->ClearJournal();
        logs.Clear();
    }

    std::vector<CapturedLine> ModuleLines() const
    {
        std::vector<CapturedLine> lines;
        for (const CapturedLine& line : logs.Lines())
        {
            if (line.logger == ModuleLogger)
            {
                lines.push_back(line);
            }
        }
        return lines;
    }

    std::vector<String> ModuleMessages(int level) const
    {
        std::vector<String> messages;
        for (const CapturedLine& line : ModuleLines())
        {
            if (line.level == level)
            {
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    // Journal lines of the store that change something (reads and registrations left out).
    std::vector<String> StoreChanges() const
    {
        std::vector<String> changes;
        for (const String& line : env.statusFake->Journal())
        {
            if (line.rfind("GetStatus(", 0) != 0 && line.rfind("GetProperty(", 0) != 0 && line.rfind("AddComponent(", 0) != 0)
            {
                changes.push_back(line);
            }
        }
        return changes;
    }

    ManualSleep sleep;
    Watchdog watchdog{std::chrono::seconds(60)};
    LogCapture logs{7};
    ModuleEnvironment env;
    std::unique_ptr<Module> module;
};

} // namespace Zun::Testing::UpdaterModule
