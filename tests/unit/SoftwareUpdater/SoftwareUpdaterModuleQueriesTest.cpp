#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

// "Generic files / app": 1.0 installed, 2.0 pending.
class QueriesTest : public UpdaterModuleTest
{
public:
    void SetUp() override
    {
        env.manager->AddComponent(Kind::GenericFiles, "app", Manifest("1.0", "urn:current"), Manifest("2.0", "urn:pending", 0x1F));
        Start();
    }

    // The out value, which starts with every field set, as "revision uri release date", or "reset".
    std::string Version(std::int32_t fileType, StatusCode code)
    {
        Su::SoftwareVersionType version = Request("9.9", "urn:junk");
        version.PatchIdentifiers = {System::Rsc::RscString<512>("KB1")};
        EXPECT_EQ(module->GetSoftwareVersion(App, static_cast<FileType>(fileType), version), code) << fileType;
        return version == Su::SoftwareVersionType() ? "reset"
                                                    : fmt::format("{} {} {}", version.SoftwareRevision, version.ManufacturerUri,
                                                                  version.ReleaseDate.ToUnixTimeMilliseconds());
    }

    // The behaviour, which starts with every bit set, and the log.
    std::string Behavior(const char* uri, const char* revision, StatusCode code)
    {
        logs.Clear();
        auto behavior = static_cast<Su::UpdateBehavior>(0xFFFFFFFFu);
        EXPECT_EQ(module->GetUpdateBehavior(App, uri, revision, {"KB1"}, behavior), code) << uri << " " << revision;
        return fmt::format("{:#x} {}", static_cast<std::uint32_t>(behavior), Log());
    }
};

TEST_F(QueriesTest, GetSoftwareVersionMapsTheChosenManifestAndResetsTheOutValueFirst)
{
    EXPECT_EQ(Version(0, Codes::Good), "1.0 urn:current 1768478400000");
    EXPECT_EQ(Version(1, Codes::Good), "2.0 urn:pending 1768478400000");
    EXPECT_EQ(Version(2, Codes::BadNotFound), "reset");
    env.manager->AddComponent(Kind::GenericFiles, "app");
    EXPECT_EQ(Version(0, Codes::BadNotFound), "reset");
}

TEST_F(QueriesTest, GetUpdateBehaviorAnswersForThePendingRevisionAndUriOnly)
{
    EXPECT_EQ(Behavior("urn:pending", "2.0", Codes::Good), "0x1f ");
    EXPECT_EQ(Behavior("urn:pending", "1.0", Codes::BadNotFound), "0x0 7 No pending software package: componentId=%; softwareRevision=1.0");
    EXPECT_EQ(Behavior("urn:current", "2.0", Codes::BadNotFound), "0x0 7 Unknown manufacturerUri: urn:current");
    // An absent manifest's empty revision does not match an empty request.
    env.manager->SetPending(Kind::GenericFiles, "app", std::nullopt);
    EXPECT_EQ(Behavior("", "", Codes::BadNotFound), "0x0 7 No pending software package: componentId=%; softwareRevision=");
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
