// The Update Modules, their generator and the inventory script under the real Mender client, standalone,
// against camd-sim on a private bus and tallyvane-sim on FIFOs, in the mount namespace of mender_sandbox.sh.
#include <gmock/gmock.h>
#include <unistd.h>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

namespace fs = std::filesystem;
const std::string kSource = FWU_SOURCE_DIR "/support/mender/", kTests = FWU_SOURCE_DIR "/tests/rollout/";

struct MenderTest : CamdBusTest {
  void SetUp() override {
    CamdBusTest::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the client runs in a mount namespace of its own";
    if (access("/usr/bin/mender", X_OK) != 0 || access("/usr/bin/mender-artifact", X_OK) != 0)
      GTEST_SKIP() << "mender-client and mender-artifact are not installed (scripts/test installs them)";
    fs::create_directories(dir_ / "data");
    dir_.Write("data/device_type", "device_type=camera-box\n");
    dir_.Write("conf", "{\"ArtifactVerifyKey\": \"" + dir_ / "rsa.pub\"}");
    env_.env = {{"PATH", fs::path(FWU_UPDATER_BIN).parent_path().string() + ":" + std::getenv("PATH")}};
  }
  ProcessResult InSandbox(std::vector<std::string> args) {
    args.insert(args.begin(), kSource);
    return RunProcess(kTests + "mender_sandbox.sh", args, env_);
  }
  ProcessResult Mender(const std::string& command) {  // install a.mender, commit, show-artifact
    std::vector<std::string> args = {"mender", "--no-syslog", "-c",    dir_ / "conf",    "-b", dir_ / "none",
                                     "-d",     dir_ / "data", command, dir_ / "a.mender"};
    return InSandbox({args.begin(), args.end() - (command == "install" ? 0 : 1)});
  }
  int Gen(std::vector<std::string> args) {  // writes a.mender
    args.insert(args.begin(), {"-n", "fw", "-t", "camera-box", "-o", dir_ / "a.mender"});
    return RunProcess(kSource + "camera-firmware-artifact-gen", args).exitStatus;
  }
  TempDir dir_;
  ProcessOptions env_;  // reaches the client, the module and through it the updater
};

// Version 3 for cameras 0 and 1, which camd-sim serves, running version 2; the client checks signatures.
struct Deployment {
  const char* name;
  std::string shows, logHas;  // show-artifact at the end ("fw" once installed and committed); in the log
  std::vector<std::string> artifact = {"signed", "rsa.pem"};  // how make_artifact.sh makes it
  std::string sim = "--region=0";                             // camd-sim's fault
  std::string preset = "";  // a file in the firmware directory before; kept unless in the module's own
  bool busAddress = true;   // the client's environment names camd's bus
};
void PrintTo(const Deployment& row, std::ostream* os) { *os << row.name; }

struct CameraDeployment : MenderTest, ::testing::WithParamInterface<Deployment> {};

TEST_P(CameraDeployment, EndsAsTheCamerasDo) {
  const Deployment& row = GetParam();
  const auto image = RandomBytes(3000, 5), other = RandomBytes(100, 6);
  StartSim({"--camera=0", "--camera=1", "--version=2", row.sim});
  fs::create_directories(fs::path(fw_ / row.preset).parent_path());
  if (!row.preset.empty()) fw_.Write(row.preset, other);
  dir_.Write("image.bin", image);
  std::vector<std::string> how = {kSource, dir_.path()};
  how.insert(how.end(), row.artifact.begin(), row.artifact.end());
  ASSERT_EQ(RunProcess(kTests + "make_artifact.sh", how).exitStatus, 0);
  if (!row.busAddress) env_.env.emplace_back("DBUS_SESSION_BUS_ADDRESS", "");
  const auto install = Mender("install");
  EXPECT_EQ(install.exitStatus, row.shows == "fw" ? 0 : 1);
  EXPECT_THAT(install.err + install.out, ::testing::HasSubstr(row.logHas));
  // The module supports rollback, so a standalone install waits for `mender commit`.
  EXPECT_EQ(Mender("commit").exitStatus, row.shows == "fw" ? 0 : 2);
  EXPECT_EQ(Mender("show-artifact").out, row.shows + "\n");
  EXPECT_EQ(fs::exists(OutPath() + ".0") && ReadFile(OutPath() + ".0") == image, row.shows != "factory");
  EXPECT_EQ(fs::exists(OutPath() + ".1") && ReadFile(OutPath() + ".1") == image, row.shows == "fw");
  EXPECT_FALSE(fs::exists(fw_ / ".camera-firmware")) << "the module's staging directory is gone";
  const bool kept = !row.preset.empty() && row.preset[0] != '.';  // what the module did not write
  EXPECT_EQ(fs::is_regular_file(fw_ / row.preset) && ReadFile(fw_ / row.preset) == other, kept);
  const bool refused = row.shows == "factory" && row.sim == "--region=0";  // before the updater ran
  EXPECT_EQ(SimCalls("RequestUpdateInfo") == 0, refused);
}

const std::vector<std::string> kSigned = {"signed", "rsa.pem"};
// clang-format off
INSTANTIATE_TEST_SUITE_P(Mender, CameraDeployment, ::testing::Values(
    Deployment{"SignedArtifactUpdatesTwoCameras", "fw", "Use 'commit' to update"},
    Deployment{"NewerPackageIsNotFlashed", "fw", "", kSigned, "--region=0", "camera-region0-9.bin"},
    Deployment{"FileOfTheSameNameIsKept", "fw", "", kSigned, "--region=0", "camera-region0-3.bin"},
    Deployment{"CopyCutOffByAPowerCutIsRemoved", "fw", "", kSigned, "--region=0",
               ".camera-firmware/camera-region0-3.bin"},
    Deployment{"EmptyImageIsRefused", "factory", "image is empty", {"empty"}},
    Deployment{"VersionAtTheIntLimitInstalls", "fw", "", {"meta", ".version = 2147483647"}},
    Deployment{"VersionAboveTheIntLimitIsRefused", "factory", "version must",
               {"meta", ".version = 2147483648"}},
    Deployment{"NestedVersionIsNotRead", "factory", "version must",
               {"meta", "del(.version) | .zz.version = 3"}},
    Deployment{"CameraWithABlankIsRefused", "factory", "cameras must be", {"meta", R"(.cameras = ["0 1"])"}},
    Deployment{"CameraWithACommaIsRefused", "factory", "cameras must be", {"meta", R"(.cameras = ["0,1"])"}},
    Deployment{"UnchangedCamerasKeepThePreviousArtifact", "factory", "Updating_ErrorExit", kSigned,
               "--fail-send=3"},
    Deployment{"PartlyUpdatedCamerasAreInconsistent", "fw_INCONSISTENT", "camera 1 runs version unknown",
               kSigned, "--exit-after=240"},
    Deployment{"MissingBusAddressIsNamed", "factory", "DBUS_SESSION_BUS_ADDRESS is not set", kSigned,
               "--region=0", "", false},
    Deployment{"UnsignedArtifactIsRefused", "factory", "expecting signed artifact", {"unsigned"}},
    Deployment{"WrongKeyIsRefused", "factory", "invalid signature", {"signed", "ec.pem"}},
    Deployment{"TamperedPayloadIsRefused", "factory", "invalid checksum", {"tampered", "data/0000.tar.gz"}},
    Deployment{"TamperedMetaDataIsRefused", "factory", "invalid checksum", {"tampered", "header.tar.gz"}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// Version 3 for camera 0 unless `args` say otherwise (a later --version or --region wins).
struct GeneratorRun {
  const char* name;
  std::vector<std::string> args;
  bool writes;  // else it fails, leaving a.mender as it was and nothing beside it
  std::size_t imageBytes = 10;
};
void PrintTo(const GeneratorRun& row, std::ostream* os) { *os << row.name; }

struct Generator : MenderTest, ::testing::WithParamInterface<GeneratorRun> {};

TEST_P(Generator, ReplacesTheOutputOnlyWithACompleteArtifact) {
  const GeneratorRun& row = GetParam();
  std::vector<std::string> args = {"--version", "3", "--region", "0", "--camera", "0"};
  args.insert(args.begin(), dir_.Write("image", RandomBytes(row.imageBytes, 1)));
  args.insert(args.end(), row.args.begin(), row.args.end());
  dir_.Write("a.mender", "old");
  const auto entries = std::distance(fs::directory_iterator(dir_.path()), {});
  EXPECT_EQ(Gen(args) == 0, row.writes);
  EXPECT_EQ(ReadFile(dir_ / "a.mender") != "old", row.writes);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), entries) << "a temporary file is left";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Mender, Generator, ::testing::Values(
    GeneratorRun{"VersionAtTheIntLimit", {"--version", "2147483647"}, true},
    GeneratorRun{"VersionBeyondTheIntLimit", {"--version", "2147483648"}, false},
    GeneratorRun{"VersionWithALeadingZero", {"--version", "07"}, false},
    GeneratorRun{"RegionWithALeadingZero", {"--region", "00"}, false},
    GeneratorRun{"CameraWithABlank", {"--camera", "0 1"}, false},
    GeneratorRun{"EmptyImage", {}, false, 0},
    GeneratorRun{"MenderArtifactFails", {"--", "-k", "/nonexistent"}, false},
    GeneratorRun{"MenderArtifactFailsWithStatusZero", {"--", "-m", "/dev/null"}, false}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// Version 9 through the board's module and the concurrent mode to tallyvane-sim. A board on a newer version
// is not updated: the updater exits 0, the module fails the install, and the rollback finds nothing changed.
struct BoardDeployment {
  const char* name;
  std::string boardVersion, shows;  // show-artifact at the end
};
void PrintTo(const BoardDeployment& row, std::ostream* os) { *os << row.name; }

struct Board : MenderTest, ::testing::WithParamInterface<BoardDeployment> {};

TEST_P(Board, RunsTheArtifactsVersionOrKeepsThePreviousArtifact) {
  const auto image = RandomBytes(3000, 7);
  ChildProcess board(TALLYVANE_SIM_BIN,
                     {"--uplink", dir_ / "up", "--downlink", dir_ / "down", "--out", dir_ / "got",
                      "--version-file", dir_ / "version", "--board-version", GetParam().boardVersion},
                     dir_.path(), "READY");
  env_.env.insert(env_.env.end(), {{"QUORVEX_TALLYVANE_DATA", dir_ / "up"},
                                   {"QUORVEX_TALLYVANE_DOWNLINK", dir_ / "down"},
                                   {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "version"}});
  dir_.Write("conf", "{}");  // no signature check
  ASSERT_EQ(Gen({dir_.Write("image.bin", image), "--tallyvane", "--version", "9"}), 0);
  EXPECT_EQ(Mender("install").exitStatus, GetParam().shows == "fw" ? 0 : 1);
  EXPECT_EQ(Mender("commit").exitStatus, GetParam().shows == "fw" ? 0 : 2);
  EXPECT_EQ(Mender("show-artifact").out, GetParam().shows + "\n");
  EXPECT_EQ(ReadFile(dir_ / "got") == image, GetParam().shows == "fw");
  EXPECT_FALSE(fs::exists(fw_ / ".tallyvane-firmware"));
}

INSTANTIATE_TEST_SUITE_P(Mender, Board,
                         ::testing::Values(BoardDeployment{"UpdatesByteForByte", "3", "fw"},
                                           BoardDeployment{"NewerBoardFailsTheInstall", "12", "factory"}),
                         [](const auto& info) { return std::string(info.param.name); });

// Cameras 0 and 5 answer, 7 does not.
TEST_F(MenderTest, InventoryHasALinePerCameraThatAnswersAndOneForTheBoard) {
  StartSim({"--camera=0", "--camera=5", "--version=4"});
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_.Write("cameras", "0\n# spare:\n5\n7\n")},
              {"QUORVEX_TALLYVANE_VERSION_FILE", dir_.Write("version", "9\n")}};
  EXPECT_EQ(InSandbox({kSource + "mender-inventory-firmware"}).out,
            "camera0_firmware_version=4\ncamera5_firmware_version=4\ntallyvane_firmware_version=9\n");
}

TEST_F(MenderTest, InventoryHasNoLineWithoutItsSources) {
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_ / "none"}, {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "nor"}};
  EXPECT_EQ(InSandbox({kSource + "mender-inventory-firmware"}).out, "");
}

}  // namespace
}  // namespace Updater::Testing
