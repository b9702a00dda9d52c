// The Update Modules, their generator and the inventory script under the real Mender client, standalone (no
// server), against camd-sim on a private bus and tallyvane-sim on FIFOs. The client reads modules only from
// /usr/share/mender and, while its database is empty, /etc/mender/artifact_info: everything runs in a mount
// namespace of its own where scratch directories stand in for both, so nothing of the host's is touched.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

namespace fs = std::filesystem;
const std::string kSource = FWU_SOURCE_DIR "/support/mender/", kGen = kSource + "camera-firmware-artifact-gen";

struct MenderTest : CamdBusTest {
  static void SetUpTestSuite() {  // keys the way the README makes them
    CamdBusTest::SetUpTestSuite();
    if (RunProcess("/bin/sh", {"-c", "cd \"$0\" && openssl genrsa -traditional -out rsa.pem 2048 && openssl rsa -in "
                   "rsa.pem -pubout -out rsa.pub && openssl ecparam -genkey -name prime256v1 -noout -out ec.pem",
                   bus_->Dir()}).exitStatus != 0)
      throw std::runtime_error("cannot make the signing keys");
  }
  void SetUp() override {
    CamdBusTest::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the client runs in a mount namespace of its own";
    if (access("/usr/bin/mender", X_OK) != 0 || access("/usr/bin/mender-artifact", X_OK) != 0)
      GTEST_SKIP() << "mender-client and mender-artifact are not installed (scripts/test installs them)";
    fs::create_directories(dir_ / "share/modules/v3"), fs::create_directories(dir_ / "share/firmware-updater");
    for (const char* module : {"camera-firmware", "tallyvane-firmware"})
      fs::copy_file(kSource + module, dir_ / "share/modules/v3/" + module);
    fs::copy_file(kSource + "update-module.sh", dir_ / "share/firmware-updater/update-module.sh");
    fs::create_directories(dir_ / "etc"), dir_.Write("etc/artifact_info", "artifact_name=factory\n");
    fs::create_directories(dir_ / "data"), dir_.Write("data/device_type", "device_type=camera-box\n");
    dir_.Write("verify.json", "{\"ArtifactVerifyKey\": \"" + bus_->Dir() + "/rsa.pub\"}");
    env_.env = {{"PATH", fs::path(FWU_UPDATER_BIN).parent_path().string() + ":" + std::getenv("PATH")}};
  }
  ProcessResult InNamespace(std::vector<std::string> args) {
    args.insert(args.begin(), {"--mount", "--propagation", "private", "sh", "-c",
                               "mount --bind \"$0\" /usr/share/mender && mount --bind \"$1\" /etc/mender && shift && "
                               "exec \"$@\"", dir_ / "share", dir_ / "etc"});
    return RunProcess("/usr/bin/unshare", args, env_);
  }
  ProcessResult Mender(const std::string& command, const std::string& config = "none.json") {
    std::vector<std::string> args = {"mender", "--no-syslog", "-c", dir_ / config, "-b", dir_ / "none.json", "-d",
                                     dir_ / "data", command, dir_ / "a.mender"};
    return InNamespace({args.begin(), args.end() - (command == "install" ? 0 : 1)});
  }
  ProcessResult Gen(std::vector<std::string> args) {
    args.insert(args.begin(), {"-n", "cam-fw", "-t", "camera-box", "-o", dir_ / "a.mender"});
    return RunProcess(kGen, args);
  }

  TempDir dir_;
  ProcessOptions env_;  // reaches the client, the module and through it the updater
};

// Camera deployments of version 3, cameras 0 and 1 in camd-sim running version 2.
struct Deployment {
  const char* name;
  std::string shows;  // show-artifact at the end: "cam-fw" once installed and committed
  std::string logHas;
  std::string meta;  // meta-data written by hand; empty: the generator's for region 0, cameras 0 and 1
  std::vector<std::string> sim = {};
  std::string preset = "";  // a file in the firmware directory before, kept as it is unless it is the module's
  std::string key = "";  // signs the artifact
  bool verify = false;  // the client checks signatures with rsa.pub
  std::string tamper = "";  // a member taken from another artifact after signing
  std::size_t imageBytes = 3000;
  bool busAddress = true;  // the client's environment names camd's bus
};
void PrintTo(const Deployment& row, std::ostream* os) { *os << row.name; }

struct CameraDeployment : MenderTest, ::testing::WithParamInterface<Deployment> {};

TEST_P(CameraDeployment, EndsAsTheCamerasDo) {
  const Deployment& row = GetParam();
  const auto image = RandomBytes(row.imageBytes, 5), before = RandomBytes(100, 6);
  auto sim = row.sim;
  sim.insert(sim.end(), {"--camera=0", "--camera=1", "--version=2"});
  StartSim(sim);
  if (!row.preset.empty()) fs::create_directories(fs::path(fw_ / row.preset).parent_path()), fw_.Write(row.preset, before);
  const std::string imagePath = dir_.Write("image.bin", image);
  const std::vector<std::string> sign = {"--", "-k", bus_->Dir() + "/" + row.key};
  if (!row.meta.empty()) {
    ASSERT_EQ(RunProcess("/usr/bin/mender-artifact", {"write", "module-image", "-T", "camera-firmware", "-n", "cam-fw",
        "-t", "camera-box", "-o", dir_ / "a.mender", "-f", imagePath, "-m", dir_.Write("m.json", row.meta)}).exitStatus, 0);
  } else {
    std::vector<std::string> args = {"--version", "3", "--region", "0", "--camera", "0", "--camera", "1", imagePath};
    if (!row.key.empty()) args.insert(args.end(), sign.begin(), sign.end());
    ASSERT_EQ(Gen(args).exitStatus, 0);
  }
  if (!row.tamper.empty()) {  // the signed one's member replaced by that of an unsigned version 4 of other bytes
    fs::rename(dir_ / "a.mender", dir_ / "signed.mender");
    fs::create_directories(dir_ / "other");  // the same file name as in the manifest
    ASSERT_EQ(Gen({"--version", "4", "--region", "0", "--camera", "0", dir_.Write("other/image.bin", before)}).exitStatus,
              0);
    ASSERT_EQ(RunProcess("/bin/sh", {"-c", "cd \"$0\" && mkdir s o && tar -xf signed.mender -C s && tar -xf a.mender "
        "-C o && cp \"o/$1\" \"s/$1\" && tar -cf a.mender -C s version manifest manifest.sig header.tar.gz data/0000.tar.gz",
        dir_.path(), row.tamper}).exitStatus, 0);
  }
  if (!row.busAddress) env_.env.emplace_back("DBUS_SESSION_BUS_ADDRESS", "");
  const auto install = Mender("install", row.verify ? "verify.json" : "none.json");
  EXPECT_EQ(install.exitStatus, row.shows == "cam-fw" ? 0 : 1);
  EXPECT_THAT(install.err + install.out, ::testing::HasSubstr(row.logHas));
  // The module supports rollback, so a standalone install waits for `mender commit`.
  EXPECT_EQ(Mender("commit").exitStatus, row.shows == "cam-fw" ? 0 : 2);
  EXPECT_EQ(Mender("show-artifact").out, row.shows + "\n");
  const auto got = [&](const char* camera) { return fs::exists(OutPath() + camera) ? ReadFile(OutPath() + camera) : "-"; };
  EXPECT_EQ(got(".0") == image, row.shows != "factory") << "the first camera in order";
  EXPECT_EQ(got(".1") == image, row.shows == "cam-fw");
  EXPECT_FALSE(fs::exists(fw_ / ".camera-firmware")) << "the module's staging directory is gone";
  if (!row.preset.empty() && row.preset[0] != '.') {
    EXPECT_EQ(ReadFile(fw_ / row.preset), before);
  }
  if (row.shows == "factory" && row.sim.empty()) {
    EXPECT_EQ(SimCalls("RequestUpdateInfo"), 0u) << "refused before the updater ran";
  }
}

const std::string kMeta3 = R"({"region": 0, "version": 3, "cameras": ["0", "1"]})";
INSTANTIATE_TEST_SUITE_P(Rows, CameraDeployment, ::testing::Values(
    Deployment{"TwoCamerasAreUpdated", "cam-fw", "Use 'commit' to update", ""},
    Deployment{"NewerPackageInTheFirmwareDirectoryIsNotFlashed", "cam-fw", "", "", {}, "camera-region0-9.bin"},
    Deployment{"FileOfTheSameNameIsKept", "cam-fw", "", "", {}, "camera-region0-3.bin"},
    Deployment{"CopyCutOffByAPowerCutIsRemoved", "cam-fw", "", "", {}, ".camera-firmware/camera-region0-3.bin"},
    Deployment{"EmptyImageIsRefused", "factory", "the image is empty", kMeta3, {}, "", "", false, "", 0},
    Deployment{"VersionAtTheIntLimitInstalls", "cam-fw", "", R"({"region":0,"version":2147483647,"cameras":["0","1"]})"},
    Deployment{"VersionBeyondTheIntLimitIsRefused", "factory", "version must be a top-level number",
               R"({"region": 0, "version": 2147483648, "cameras": ["0", "1"]})"},
    Deployment{"NestedVersionIsNotRead", "factory", "version must be a top-level number",
               R"({"region": 0, "cameras": ["0", "1"], "zz": {"version": 3}})"},
    Deployment{"CameraWithABlankIsRefused", "factory", "cameras must be", R"({"region":0,"version":3,"cameras":["0 1"]})"},
    Deployment{"CameraWithACommaIsRefused", "factory", "cameras must be", R"({"region":0,"version":3,"cameras":["0,1"]})"},
    Deployment{"UnchangedCamerasLeaveThePreviousArtifact", "factory", "camera-firmware:   Entered: Updating_ErrorExit",
               "", {"--fail-send=3"}},
    Deployment{"PartlyUpdatedCamerasAreInconsistent", "cam-fw_INCONSISTENT", "camera 1 runs version unknown, not 3", "",
               {"--exit-after=240"}},
    Deployment{"MissingBusAddressIsNamed", "factory", "DBUS_SESSION_BUS_ADDRESS is not set", "", {}, "", "", false, "", 3000, false},
    Deployment{"SignedArtifactInstalls", "cam-fw", "", "", {}, "", "rsa.pem", true},
    Deployment{"UnsignedArtifactIsRefused", "factory", "expecting signed artifact", "", {}, "", "", true},
    Deployment{"WrongKeyIsRefused", "factory", "invalid signature", "", {}, "", "ec.pem", true},
    Deployment{"TamperedPayloadIsRefused", "factory", "invalid checksum", "", {}, "", "rsa.pem", true, "data/0000.tar.gz"},
    Deployment{"TamperedMetaDataIsRefused", "factory", "invalid checksum", "", {}, "", "rsa.pem", true, "header.tar.gz"}),
    [](const auto& info) { return std::string(info.param.name); });

// What the generator refuses leaves -o as it was and nothing beside it.
struct GeneratorRun {
  const char* name;
  std::vector<std::string> args;  // after a valid set for version 3; a later --version or --region wins
  bool writes;
  std::size_t imageBytes = 10;
};
void PrintTo(const GeneratorRun& row, std::ostream* os) { *os << row.name; }

struct Generator : MenderTest, ::testing::WithParamInterface<GeneratorRun> {};

TEST_P(Generator, ReplacesTheOutputOnlyWithACompleteArtifact) {
  const GeneratorRun& row = GetParam();
  dir_.Write("a.mender", "old");
  std::vector<std::string> args = {"--version", "3", "--region", "0", "--camera", "0"};
  args.insert(args.end(), row.args.begin(), row.args.end());
  const auto dash = std::find(args.begin(), args.end(), "--");
  args.insert(dash, dir_.Write("image.bin", RandomBytes(row.imageBytes, 1)));
  const auto run = Gen(args);
  EXPECT_EQ(run.exitStatus == 0, row.writes) << run.err;
  EXPECT_EQ(ReadFile(dir_ / "a.mender") != "old", row.writes);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 6) << "no temporary file is left";
}

INSTANTIATE_TEST_SUITE_P(Rows, Generator, ::testing::Values(
    GeneratorRun{"VersionAtTheIntLimit", {"--version", "2147483647"}, true},
    GeneratorRun{"VersionBeyondTheIntLimit", {"--version", "2147483648"}, false},
    GeneratorRun{"VersionWithALeadingZero", {"--version", "07"}, false},
    GeneratorRun{"RegionWithALeadingZero", {"--region", "00"}, false},
    GeneratorRun{"CameraWithABlank", {"--camera", "0 1"}, false},
    GeneratorRun{"EmptyImage", {}, false, 0},
    GeneratorRun{"MenderArtifactFails", {"--", "-k", "/nonexistent"}, false},
    GeneratorRun{"MenderArtifactFailsWithStatusZero", {"--", "-m", "/dev/null"}, false}),
    [](const auto& info) { return std::string(info.param.name); });

// The board's module, byte for byte through the concurrent mode, against tallyvane-sim running version 3.
TEST_F(MenderTest, BoardIsUpdatedThroughItsOwnModule) {
  const auto image = RandomBytes(3000, 7);
  ChildProcess board(TALLYVANE_SIM_BIN, {"--uplink", dir_ / "up", "--downlink", dir_ / "down", "--out", dir_ / "got",
                     "--version-file", dir_ / "version", "--board-version", "3"}, dir_.path(), "READY");
  env_.env.insert(env_.env.end(), {{"QUORVEX_TALLYVANE_DATA", dir_ / "up"}, {"QUORVEX_TALLYVANE_DOWNLINK", dir_ / "down"},
                                   {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "version"}});
  ASSERT_EQ(Gen({"--tallyvane", "--version", "9", dir_.Write("image.bin", image)}).exitStatus, 0);
  const auto install = Mender("install");
  EXPECT_EQ(install.exitStatus, 0) << install.err;
  EXPECT_EQ(Mender("commit").exitStatus, 0);
  EXPECT_EQ(Mender("show-artifact").out, "cam-fw\n");
  EXPECT_EQ(ReadFile(dir_ / "got"), image);
  EXPECT_FALSE(fs::exists(fw_ / ".tallyvane-firmware"));
}

// Cameras 0 and 5 answer, 7 does not; the board's version file holds 9.
TEST_F(MenderTest, InventoryHasALinePerCameraThatAnswersAndOneForTheBoard) {
  StartSim({"--camera=0", "--camera=5", "--version=4"});
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_.Write("cameras", "0\n# the next one is spare\n5\n7\n")},
              {"QUORVEX_TALLYVANE_VERSION_FILE", dir_.Write("version", "9\n")}};
  EXPECT_EQ(InNamespace({kSource + "mender-inventory-firmware"}).out,
            "camera0_firmware_version=4\ncamera5_firmware_version=4\ntallyvane_firmware_version=9\n");
}

TEST_F(MenderTest, InventoryIsEmptyWithoutItsSources) {
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_ / "none"}, {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "none"}};
  const auto run = InNamespace({kSource + "mender-inventory-firmware"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "");
}

}  // namespace
}  // namespace Updater::Testing
