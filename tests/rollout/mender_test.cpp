// The camera-firmware Update Module and its generator under the real Mender client, standalone (no server), against
// camd-sim on a private bus. The client reads modules only from /usr/share/mender/modules/v3 and, while its database
// is empty, needs /etc/mender/artifact_info: the test puts both in place and restores what was there before.
#include <gmock/gmock.h>
#include <unistd.h>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

namespace fs = std::filesystem;

// A copy of `from` at `path` while this lives; then what was there before, or nothing.
struct SystemFile {
  SystemFile(std::string at, const std::string& from) : path(std::move(at)), saved(fs::exists(path)) {
    if (saved) fs::rename(path, path + ".fwu-test-saved");
    fs::copy_file(from, path);
  }
  ~SystemFile() { std::error_code ignored; saved ? fs::rename(path + ".fwu-test-saved", path, ignored) : (void)fs::remove(path, ignored); }
  const std::string path; const bool saved;
};

using MenderTest = CamdBusTest;

TEST_F(MenderTest, InstallSucceedsOnlyWhenEveryCameraRunsTheNewVersion) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the Mender client reads /usr/share/mender/modules/v3 and /etc/mender";
  if (access("/usr/bin/mender", X_OK) != 0 || access("/usr/bin/mender-artifact", X_OK) != 0)
    GTEST_SKIP() << "mender-client and mender-artifact are not installed (scripts/test installs them)";
  const std::string source = FWU_SOURCE_DIR "/support/mender/", package = fw_ / "camera-region0-3.bin";
  SystemFile module("/usr/share/mender/modules/v3/camera-firmware", source + "camera-firmware");
  SystemFile artifactInfo("/etc/mender/artifact_info", fw_.Write("artifact_info", "artifact_name=factory\n"));
  const auto image = RandomBytes(3000, 5);
  const std::string imagePath = bus_->Dir() + "/image.bin";
  std::ofstream(imagePath, std::ios::binary) << image;
  // Reaches the module and through it the updater.
  ProcessOptions env;
  env.env = {{"PATH", fs::path(FWU_UPDATER_BIN).parent_path().string() + ":" + std::getenv("PATH")}};

  const struct { std::vector<std::string> sim, cameras; std::string deviceType; int status; std::string logHas; } rows[] = {
      {{"--camera=0", "--camera=03"}, {"0", "03"}, "camera-box", 0, "doesn't support rollback. Committing immediately."},
      {{"--fail-send=3"}, {"0"}, "camera-box", 1, "camera-firmware: camera 0: firmware-updater exited with status 255"},
      // The updater gives up after about 10 s and exits 0; the version check fails the install.
      {{}, {"0"}, "camera-box", 1, "camera-firmware: camera 0 runs version unknown (camd did not answer), not 3"},
      {{"--camera=0"}, {"0"}, "other-box", 1, "(device types [other-box]) not compatible with device camera-box"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logHas);
    fs::remove_all(fw_.path()), fs::create_directories(fw_.path());
    auto args = row.sim;
    args.push_back("--version=2");
    row.sim.empty() ? sim_.reset() : StartSim(args);  // none: camd absent
    const std::string dir = bus_->Dir() + "/mender" + std::to_string(&row - rows), artifact = dir + "/a.mender";
    fs::create_directories(dir + "/data");
    std::ofstream(dir + "/data/device_type") << "device_type=camera-box\n";
    std::vector<std::string> gen{"-n", "cam-fw-3", "-t", row.deviceType, "-o", artifact, "--version", "3", "--region", "0", imagePath};
    for (const auto& camera : row.cameras) gen.insert(gen.end() - 1, {"--camera", camera});
    const auto built = RunProcess(source + "camera-firmware-artifact-gen", gen);
    ASSERT_EQ(built.exitStatus, 0) << built.err;
    const auto mender = [&](std::vector<std::string> args) {
      return args.insert(args.begin(), {"--no-syslog", "-d", dir + "/data"}), RunProcess("/usr/bin/mender", args, env);
    };
    const auto install = mender({"install", artifact});
    EXPECT_EQ(install.exitStatus, row.status) << install.err;
    EXPECT_THAT(install.out + install.err, ::testing::HasSubstr(row.logHas));
    // Nothing to commit: a module without rollback is committed at once, and a failed install has nothing.
    EXPECT_EQ(mender({"commit"}).exitStatus, 2);
    EXPECT_EQ(mender({"show-artifact"}).out == "cam-fw-3\n", row.status == 0);
    // ArtifactFailure removes the package; for another device type the module never ran.
    EXPECT_EQ(ReadFile(package), row.status == 0 ? image : std::string());
    for (const auto& camera : row.status == 0 ? row.cameras : std::vector<std::string>{})
      EXPECT_EQ(ReadFile(OutPath() + "." + camera), image) << camera;
    if (sim_) { EXPECT_EQ(SimCalls("RequestUpdateInfo"), row.deviceType == "camera-box" ? row.cameras.size() : 0u); }
  }
}

}  // namespace
}  // namespace Updater::Testing
