// The Update Modules, their generator and the inventory script under the real Mender client, standalone.
#include <gmock/gmock.h>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

namespace fs = std::filesystem;
const std::string kSource = FWU_SOURCE_DIR "/support/mender/", kTests = FWU_SOURCE_DIR "/tests/rollout/";
const std::vector<std::string> kSigned = {"signed", "rsa.pem"}, kUnsigned = {"unsigned"};
using ::testing::HasSubstr;

struct MenderTest : CamdBusTest {
  void SetUp() override {
    CamdBusTest::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the client runs in a mount namespace of its own";
    dir_.Write("device_type", "device_type=camera-box\n");  // the client's state directory is dir_
    dir_.Write("conf", "{\"ArtifactVerifyKey\": \"" + dir_ / "rsa.pub\"}");
    env_.env = {{"PATH", fs::path(FWU_UPDATER_BIN).parent_path().string() + ":" + std::getenv("PATH")},
                {"QUORVEX_TALLYVANE_DATA", dir_ / "up"},
                {"QUORVEX_TALLYVANE_DOWNLINK", dir_ / "down"},
                {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "version"}};
  }
  ProcessResult Mender(std::vector<std::string> args) {  // in the sandbox; "install" alone: of dir_/a.mender
    if (args == std::vector<std::string>{"install"}) args.push_back(dir_ / "a.mender");
    args.insert(args.begin(), {kSource, "mender", "--no-syslog", "-c", dir_ / "conf", "-b", dir_ / "none",
                               "-d", dir_.path()});
    return RunProcess(kTests + "mender_sandbox.sh", args, env_);
  }
  // The client's commands `then`, after the artifact was made as `how` says; what the client shows then.
  std::string Deployed(std::vector<std::string> how, const std::string& sim = "--region=0",
                       const std::string& then = "install commit") {
    StartSim({"--camera=0", "--camera=1", "--version=2", sim});
    dir_.Write("image.bin", image_);
    how.insert(how.begin(), {kSource, dir_.path()});
    log_ = RunProcess(kTests + "make_artifact.sh", how).err;
    std::istringstream commands(then);
    for (std::string command; commands >> command;) log_ += Mender({command}).err;
    return Mender({"show-artifact"}).out;
  }
  TempDir dir_;
  ProcessOptions env_;  // reaches the client, the module and through it the updater
  const std::string image_ = RandomBytes(3000, 5);
  std::string log_;  // what the generator and the client logged, the modules' standard error included
};

// "fw" only once camd reports version 3 for both cameras, as camd-sim does once it holds that whole image.
struct AnInstall : MenderTest {};
TEST_F(AnInstall, LeavesAFileOfItsPackagesNameAsItWas) {
  fw_.Write("camera-region0-3.bin", "other");
  EXPECT_EQ(Deployed(kSigned), "fw\n");
  EXPECT_EQ(ReadFile(fw_ / "camera-region0-3.bin"), "other");
}

TEST_F(AnInstall, RemovesACopyThatAPowerCutLeftInItsStagingDirectory) {
  fs::create_directories(fw_ / ".camera-firmware");
  fw_.Write(".camera-firmware/camera-region0-9.bin", "cut off");
  EXPECT_EQ(Deployed(kSigned), "fw\n");
  EXPECT_FALSE(fs::exists(fw_ / ".camera-firmware"));
}

struct Deployment {
  std::string name;
  std::vector<std::string> how;                               // make_artifact.sh's
  std::string logHas, shows = "factory", sim = "--region=0";  // show-artifact at the end; camd-sim's fault
  void (*unlike)(MenderTest&) = nullptr;                      // what the device has otherwise
  std::string then = "install commit";                        // the client's commands
};
void PrintTo(const Deployment& row, std::ostream* os) { *os << row.name; }
struct ACameraDeployment : MenderTest, ::testing::WithParamInterface<Deployment> {};
TEST_P(ACameraDeployment, EndsOnTheArtifactTheCamerasRun) {
  if (GetParam().unlike) GetParam().unlike(*this);
  EXPECT_EQ(Deployed(GetParam().how, GetParam().sim, GetParam().then), GetParam().shows + "\n");
  EXPECT_THAT(log_, HasSubstr(GetParam().logHas));
}
const Deployment kDeployments[] = {
    {"VersionAtTheIntLimit", {"signed", "rsa.pem", "2147483647"}, "authenticated digital signature", "fw"},
    {"NewerPackageBeside", kSigned, "authenticated digital signature", "fw", "--region=0",
     [](auto& t) { t.fw_.Write("camera-region0-9.bin", "newer"); }},  // the artifact's image, not that one
    {"Unsigned", kUnsigned, "expecting signed artifact"},
    {"SignedWithAnotherKey", {"signed", "ec.pem"}, "invalid signature"},
    {"SignedWithAP384Key", {"signed", "p384.pem"}, "invalid ecdsa curve size"},  // mender-artifact's refusal
    // The client then accepts what is not signed, saying only this, at level "info".
    {"VerifyKeyFileMissing", kUnsigned, "error reading artifact verify key", "fw", "--region=0",
     [](auto& t) { t.dir_.Write("conf", "{\"ArtifactVerifyKey\": \"" + t.dir_ / "no.pub\"}"); }},
    {"TamperedAfterSigning", {"tampered", "data/0000.tar.gz"}, "invalid checksum"},
    {"EmptyImage", {"empty"}, "image is empty"},
    {"VersionAboveTheIntLimit", {"meta", ".version = 2147483648"}, "version must"},
    {"NestedVersion", {"meta", "del(.version) | .zz.version = 3"}, "version must"},
    // {"version": 3, "version": 4} reaches the module as 4: the client keeps the last of duplicated keys.
    {"VersionOtherThanProvided", {"meta", ".version = 4"}, "is not the version the artifact provides"},
    {"CameraWithABlank", {"meta", R"(.cameras = ["0 1"])"}, "cameras must be"},
    {"NoBusAddress", kSigned, "DBUS_SESSION_BUS_ADDRESS is not set", "factory", "--region=0",
     [](auto& t) { t.env_.env.emplace_back("DBUS_SESSION_BUS_ADDRESS", ""); }},
    {"NoFirmwareDirectory", kSigned, "no firmware directory", "factory", "--region=0",
     [](auto& t) { fs::remove_all(t.fw_.path()); }},
    {"UnservedCamera", {"meta", R"(.cameras = ["7", "0"])"}, "camera 7 is not updated", "fw_INCONSISTENT"},
    {"UpdaterLinesUncoloured", kSigned, "firmware:   fw-updater Debug:", "factory", "--refuse-announcement"},
    // The updater runs the summary console, whose last lines say how it ended.
    {"NoCameraChanged", kSigned, "Exit status 255: the update failed", "factory", "--fail-send=3"},
    {"CamerasOnANewerVersion", kSigned, "camera 0 runs version 5, not 3", "factory", "--version=5"},
    {"OneCameraChanged", kSigned, "camera 1 runs version unknown", "fw_INCONSISTENT", "--exit-after=240"},
    {"InstalledTwiceThenRolledBack", kSigned, "not 2 as before", "fw_INCONSISTENT", "--region=0", nullptr,
     "install install rollback"},
};
INSTANTIATE_TEST_SUITE_P(Mender, ACameraDeployment, ::testing::ValuesIn(kDeployments), RowName<Deployment>);

// Camera 0's artifact of version 3 from `image`, unless later options in `args` say otherwise.
struct Refused {
  std::string name, image, says;  // says: the generator's own reason, not mender-artifact's
  std::vector<std::string> args;
};
void PrintTo(const Refused& row, std::ostream* os) { *os << row.name; }
struct TheGenerator : MenderTest, ::testing::WithParamInterface<Refused> {};
TEST_P(TheGenerator, RefusesAndLeavesTheOutputAsItWas) {
  std::vector<std::string> args = {"-n", "fw", "-t", "x", "--version", "3", "--region", "0", "--camera", "0"};
  args.insert(args.end(), {"-o", dir_.Write("a.mender", "old"), dir_.Write("image", GetParam().image)});
  args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
  const auto entries = std::distance(fs::directory_iterator(dir_.path()), {});
  EXPECT_THAT(RunProcess(kSource + "camera-firmware-artifact-gen", args).err, HasSubstr(GetParam().says));
  EXPECT_EQ(ReadFile(dir_ / "a.mender"), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), entries) << "a temporary file is left";
}
const Refused kGeneratorRefusals[] = {
    {"VersionAboveTheIntLimit", "image", "version must", {"--version", "2147483648"}},
    {"VersionWithALeadingZero", "image", "version must", {"--version", "07"}},
    {"RegionWithALeadingZero", "image", "region must", {"--region", "00"}},
    {"CameraWithABlank", "image", "invalid camera index", {"--camera", "0 1"}},
    {"EmptyImage", "", "image is empty", {}},
    {"MenderArtifactWritingNothingWithStatusZero", "image", "wrote no artifact", {"--", "-m", "/dev/null"}},
};
INSTANTIATE_TEST_SUITE_P(Mender, TheGenerator, ::testing::ValuesIn(kGeneratorRefusals), RowName<Refused>);

TEST_F(MenderTest, BoardInstallUpdatesTallyvaneSimByteForByte) {
  ChildProcess board(TALLYVANE_SIM_BIN,
                     {"--uplink", dir_ / "up", "--downlink", dir_ / "down", "--out", dir_ / "got",
                      "--version-file", dir_ / "version", "--board-version", "3"},
                     dir_.path(), "READY");
  EXPECT_EQ(Deployed({"board"}), "fw\n");
  EXPECT_EQ(ReadFile(dir_ / "got"), image_);
}

struct Inventory {
  std::string name, sim, cameras, out;  // camd-sim's fault; the list of cameras; what the script prints
};
struct AnInventory : MenderTest, ::testing::WithParamInterface<Inventory> {};
TEST_P(AnInventory, HasALinePerCameraThatAnswersAndOneForTheBoardWithinSeconds) {
  StartSim({"--camera=0", "--camera=5", "--version=4", GetParam().sim});
  env_.env.emplace_back("QUORVEX_INVENTORY_CAMERAS", dir_.Write("cameras", GetParam().cameras));
  dir_.Write("version", "9\n");
  const auto inventory =
      RunProcess(kTests + "mender_sandbox.sh", {kSource, kSource + "mender-inventory-firmware"}, env_);
  EXPECT_EQ(inventory.out, GetParam().out);
  EXPECT_LT(inventory.elapsed, std::chrono::seconds(13));
}
const Inventory kInventories[] = {
    // Not camera 7, which camd-sim does not serve, nor "0 1"; a line may end in CR LF.
    {"CamerasThatAnswer", "--quiet", "0\n# spare:\n5\r\n7\n0 1\n",
     "camera0_firmware_version=4\ncamera5_firmware_version=4\ntallyvane_firmware_version=9\n"},
    {"CamdHoldingItsReplies", "--slow=GetCameraFirmwareVersion:30000", "0\n5\n0\n5\n0\n5\n0\n5\n",
     "tallyvane_firmware_version=9\n"},  // 2 s a camera, and 10 s in all: not 16 s
};
INSTANTIATE_TEST_SUITE_P(Mender, AnInventory, ::testing::ValuesIn(kInventories), RowName<Inventory>);

}  // namespace
}  // namespace Updater::Testing
