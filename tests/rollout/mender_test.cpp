// The Update Modules, their generator and the inventory script under the real Mender client, standalone (no
// server), against camd-sim on a private bus and tallyvane-sim on FIFOs. The client and the scripts run in
// the mount namespace of mender_sandbox.sh, where this tree's modules are where the client looks for them.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

namespace fs = std::filesystem;
const std::string kSource = FWU_SOURCE_DIR "/support/mender/";

// The README's commands for the signing keys; the signed rows verify with rsa.pub.
const std::string kKeys = "openssl genrsa -traditional -out rsa.pem 2048 && openssl rsa -in rsa.pem -pubout "
                          "-out rsa.pub && openssl ecparam -genkey -name prime256v1 -noout -out ec.pem";
// The signed artifact $1 with its member $3 taken from the artifact $2, all else as it was.
const std::string kSplice = "mkdir s t && tar -xf \"$1\" -C s && tar -xf \"$2\" -C t && cp \"t/$3\" \"s/$3\" "
                            "&& tar -cf \"$1\" -C s version manifest manifest.sig header.tar.gz data/0000.tar.gz";

struct MenderTest : CamdBusTest {
  void SetUp() override {
    CamdBusTest::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the client runs in a mount namespace of its own";
    if (access("/usr/bin/mender", X_OK) != 0 || access("/usr/bin/mender-artifact", X_OK) != 0)
      GTEST_SKIP() << "mender-client and mender-artifact are not installed (scripts/test installs them)";
    fs::create_directories(dir_ / "data");
    dir_.Write("data/device_type", "device_type=camera-box\n");
    env_.env = {{"PATH", fs::path(FWU_UPDATER_BIN).parent_path().string() + ":" + std::getenv("PATH")}};
  }
  ProcessResult InSandbox(std::vector<std::string> args) {
    args.insert(args.begin(), kSource);
    return RunProcess(FWU_SOURCE_DIR "/tests/rollout/mender_sandbox.sh", args, env_);
  }
  ProcessResult Mender(const std::string& command, const std::string& config = "none") {
    std::vector<std::string> args = {"mender", "--no-syslog", "-c", dir_ / config, "-b", dir_ / "none",
                                     "-d", dir_ / "data", command, dir_ / "a.mender"};
    return InSandbox({args.begin(), args.end() - (command == "install" ? 0 : 1)});
  }
  int Gen(std::vector<std::string> args, const std::string& out = "a.mender") {
    args.insert(args.begin(), {"-n", "fw", "-t", "camera-box", "-o", dir_ / out});
    return RunProcess(kSource + "camera-firmware-artifact-gen", args).exitStatus;
  }
  int Sh(const std::string& script, const std::vector<std::string>& args = {}) {  // in dir_
    std::vector<std::string> argv = {"-c", "cd \"$0\" && " + script, dir_.path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProcess("/bin/sh", argv).exitStatus;
  }

  TempDir dir_;
  ProcessOptions env_;  // reaches the client, the module and through it the updater
};

// Version 3 for cameras 0 and 1, which camd-sim serves, running version 2.
struct Deployment {
  const char* name;
  std::string shows;  // show-artifact at the end: "fw" once installed and committed
  std::string logHas;
  std::string meta = "";  // a jq filter on the generator's meta-data: the artifact is made without it
  std::vector<std::string> sim = {};
  std::string preset = "";  // in the firmware directory before; kept as it is unless in the module's own
  std::string key = "";     // signs the artifact
  bool verify = false;      // the client checks signatures with rsa.pub
  std::string tamper = "";  // a member then replaced by that of an unsigned version 4 of other bytes
  std::size_t imageBytes = 3000;
  bool busAddress = true;  // the client's environment names camd's bus
};

void PrintTo(const Deployment& row, std::ostream* os) { *os << row.name; }

struct CameraDeployment : MenderTest, ::testing::WithParamInterface<Deployment> {};

TEST_P(CameraDeployment, EndsAsTheCamerasDo) {
  const Deployment& row = GetParam();
  const auto image = RandomBytes(row.imageBytes, 5), other = RandomBytes(100, 6);
  auto sim = row.sim;
  sim.insert(sim.end(), {"--camera=0", "--camera=1", "--version=2"});
  StartSim(sim);
  fs::create_directories(fs::path(fw_ / row.preset).parent_path());
  if (!row.preset.empty()) fw_.Write(row.preset, other);
  ASSERT_EQ(Sh(kKeys), 0);
  dir_.Write("verify", "{\"ArtifactVerifyKey\": \"" + dir_ / "rsa.pub\"}");
  std::vector<std::string> args = {"--version", "3", "--region", "0", "--camera", "0", "--camera", "1",
                                   dir_.Write("image.bin", image), "--", "-k", dir_ / row.key};
  if (row.meta.empty()) { ASSERT_EQ(Gen({args.begin(), args.end() - (row.key.empty() ? 3 : 0)}), 0); }
  if (!row.meta.empty()) {
    const auto meta =
        RunProcess("/usr/bin/jq", {"-n", R"({region: 0, version: 3, cameras: ["0", "1"]} | )" + row.meta});
    ASSERT_EQ(Sh("mender-artifact write module-image -T camera-firmware -n fw -t camera-box -o a.mender "
                 "-f image.bin -m \"$1\"", {dir_.Write("m", meta.out)}), 0);
  }
  if (!row.tamper.empty()) {
    fs::create_directories(dir_ / "o");  // the same file name as in the manifest
    ASSERT_EQ(Gen({"--version", "4", "--region", "0", "--camera", "0", dir_.Write("o/image.bin", other)}, "u"),
              0);
    ASSERT_EQ(Sh(kSplice, {"a.mender", "u", row.tamper}), 0);
  }
  if (!row.busAddress) env_.env.emplace_back("DBUS_SESSION_BUS_ADDRESS", "");
  const auto install = Mender("install", row.verify ? "verify" : "none");
  EXPECT_EQ(install.exitStatus, row.shows == "fw" ? 0 : 1);
  EXPECT_THAT(install.err + install.out, ::testing::HasSubstr(row.logHas));
  // The module supports rollback, so a standalone install waits for `mender commit`.
  EXPECT_EQ(Mender("commit").exitStatus, row.shows == "fw" ? 0 : 2);
  EXPECT_EQ(Mender("show-artifact").out, row.shows + "\n");
  const auto got = [&](const std::string& camera) {
    return fs::exists(OutPath() + camera) ? ReadFile(OutPath() + camera) : "none";
  };
  EXPECT_EQ(got(".0") == image, row.shows != "factory") << "the first camera in order";
  EXPECT_EQ(got(".1") == image, row.shows == "fw");
  EXPECT_FALSE(fs::exists(fw_ / ".camera-firmware")) << "the module's staging directory is gone";
  const bool kept = !row.preset.empty() && row.preset[0] != '.';  // what the module did not write
  EXPECT_EQ(fs::is_regular_file(fw_ / row.preset) && ReadFile(fw_ / row.preset) == other, kept);
  if (row.shows == "factory" && row.sim.empty()) { EXPECT_EQ(SimCalls("RequestUpdateInfo"), 0u); }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, CameraDeployment, ::testing::Values(
    Deployment{"TwoCamerasAreUpdated", "fw", "Use 'commit' to update"},
    Deployment{"NewerPackageIsNotFlashed", "fw", "", "", {}, "camera-region0-9.bin"},
    Deployment{"FileOfTheSameNameIsKept", "fw", "", "", {}, "camera-region0-3.bin"},
    Deployment{"CopyCutOffByAPowerCutIsRemoved", "fw", "", "", {}, ".camera-firmware/camera-region0-3.bin"},
    Deployment{"EmptyImageIsRefused", "factory", "the image is empty", ".", {}, "", "", false, "", 0},
    Deployment{"VersionAtTheIntLimitInstalls", "fw", "", ".version = 2147483647"},
    Deployment{"VersionBeyondTheIntLimitIsRefused", "factory", "version must be", ".version = 2147483648"},
    Deployment{"NestedVersionIsNotRead", "factory", "version must be", "del(.version) | .zz.version = 3"},
    Deployment{"CameraWithABlankIsRefused", "factory", "cameras must be", R"(.cameras = ["0 1"])"},
    Deployment{"CameraWithACommaIsRefused", "factory", "cameras must be", R"(.cameras = ["0,1"])"},
    Deployment{"UnchangedCamerasKeepThePreviousArtifact", "factory", "Entered: Updating_ErrorExit", "",
               {"--fail-send=3"}},
    Deployment{"PartlyUpdatedCamerasAreInconsistent", "fw_INCONSISTENT", "camera 1 runs version unknown", "",
               {"--exit-after=240"}},
    Deployment{"MissingBusAddressIsNamed", "factory", "DBUS_SESSION_BUS_ADDRESS is not set", "", {}, "", "",
               false, "", 3000, false},
    Deployment{"SignedArtifactInstalls", "fw", "", "", {}, "", "rsa.pem", true},
    Deployment{"UnsignedArtifactIsRefused", "factory", "expecting signed artifact", "", {}, "", "", true},
    Deployment{"WrongKeyIsRefused", "factory", "invalid signature", "", {}, "", "ec.pem", true},
    Deployment{"TamperedPayloadIsRefused", "factory", "invalid checksum", "", {}, "", "rsa.pem", true,
               "data/0000.tar.gz"},
    Deployment{"TamperedMetaDataIsRefused", "factory", "invalid checksum", "", {}, "", "rsa.pem", true,
               "header.tar.gz"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// The generator: version 3 for camera 0 unless a row says otherwise (the later --version or --region wins).
struct GeneratorRun {
  const char* name;
  std::vector<std::string> args;
  bool writes;  // else it fails, and a.mender stays as it was, with nothing left beside it
  std::size_t imageBytes = 10;
};

struct Generator : MenderTest, ::testing::WithParamInterface<GeneratorRun> {};

TEST_P(Generator, ReplacesTheOutputOnlyWithACompleteArtifact) {
  std::vector<std::string> args = {"--version", "3", "--region", "0", "--camera", "0"};
  args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
  args.insert(std::find(args.begin(), args.end(), "--"),
              dir_.Write("image", RandomBytes(GetParam().imageBytes, 1)));
  dir_.Write("a.mender", "old");
  EXPECT_EQ(Gen(args) == 0, GetParam().writes);
  EXPECT_EQ(ReadFile(dir_ / "a.mender") != "old", GetParam().writes);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 3) << "data, image and a.mender";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Generator,
    ::testing::Values(GeneratorRun{"VersionAtTheIntLimit", {"--version", "2147483647"}, true},
                      GeneratorRun{"VersionBeyondTheIntLimit", {"--version", "2147483648"}, false},
                      GeneratorRun{"VersionWithALeadingZero", {"--version", "07"}, false},
                      GeneratorRun{"RegionWithALeadingZero", {"--region", "00"}, false},
                      GeneratorRun{"CameraWithABlank", {"--camera", "0 1"}, false},
                      GeneratorRun{"EmptyImage", {}, false, 0},
                      GeneratorRun{"MenderArtifactFails", {"--", "-k", "/nonexistent"}, false},
                      GeneratorRun{"MenderArtifactFailsWithStatusZero", {"--", "-m", "/dev/null"}, false}),
    [](const auto& info) { return std::string(info.param.name); });

// Through the board's module and the concurrent mode, byte for byte, to tallyvane-sim running version 3.
TEST_F(MenderTest, BoardIsUpdatedThroughItsOwnModule) {
  const auto image = RandomBytes(3000, 7);
  ChildProcess board(TALLYVANE_SIM_BIN,
                     {"--uplink", dir_ / "up", "--downlink", dir_ / "down", "--out", dir_ / "got",
                      "--version-file", dir_ / "version", "--board-version", "3"},
                     dir_.path(), "READY");
  env_.env.insert(env_.env.end(), {{"QUORVEX_TALLYVANE_DATA", dir_ / "up"},
                                   {"QUORVEX_TALLYVANE_DOWNLINK", dir_ / "down"},
                                   {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "version"}});
  ASSERT_EQ(Gen({"--tallyvane", "--version", "9", dir_.Write("image.bin", image)}), 0);
  EXPECT_EQ(Mender("install").exitStatus, 0);
  EXPECT_EQ(Mender("commit").exitStatus, 0);
  EXPECT_EQ(ReadFile(dir_ / "got"), image);
  EXPECT_FALSE(fs::exists(fw_ / ".tallyvane-firmware"));
}

// Cameras 0 and 5 answer, 7 does not.
TEST_F(MenderTest, InventoryHasALinePerCameraThatAnswersAndOneForTheBoard) {
  StartSim({"--camera=0", "--camera=5", "--version=4"});
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_.Write("cameras", "0\n# spare:\n5\n7\n")},
              {"QUORVEX_TALLYVANE_VERSION_FILE", dir_.Write("version", "9\n")}};
  EXPECT_EQ(InSandbox({kSource + "mender-inventory-firmware"}).out,
            "camera0_firmware_version=4\ncamera5_firmware_version=4\ntallyvane_firmware_version=9\n");
}

TEST_F(MenderTest, InventoryIsEmptyWithoutItsSources) {
  env_.env = {{"QUORVEX_INVENTORY_CAMERAS", dir_ / "none"},
              {"QUORVEX_TALLYVANE_VERSION_FILE", dir_ / "none"}};
  EXPECT_EQ(InSandbox({kSource + "mender-inventory-firmware"}).out, "");
}

}  // namespace
}  // namespace Updater::Testing
