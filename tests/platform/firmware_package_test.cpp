#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "lc/qel_arm_control.hpp"
#include "temp_dir.hpp"
#include "vyrcam/libvyrcam.hpp"

namespace {

using fwu::testing::ScopedEnv;
using fwu::testing::TempDir;
using Package = std::pair<int, std::string>;

Package Camera(int region) { return VYRCam::libVyrCam::FilesystemFirmwarePackage(region); }
Package Board() { return lc::QelArmControl::FilesystemFirmwarePackage(0); }

class FirmwarePackageTest : public ::testing::Test {
 protected:
  TempDir dir;
  ScopedEnv env{"QUORVEX_FIRMWARE_DIR", dir.path()};
};

TEST_F(FirmwarePackageTest, EmptyDirectoryHasNoPackage) {
  EXPECT_EQ(Camera(1), Package(-1, ""));
  EXPECT_EQ(Board(), Package(-1, ""));
}

TEST_F(FirmwarePackageTest, PicksHighestVersionNumericallyNotLexically) {
  dir.Write("camera-region1-9.bin");
  dir.Write("camera-region1-10.bin");
  dir.Write("camera-region1-2.bin");
  dir.Write("tallyvane-100.bin");
  dir.Write("tallyvane-99.bin");
  EXPECT_EQ(Camera(1), Package(10, dir.File("camera-region1-10.bin")));
  EXPECT_EQ(Board(), Package(100, dir.File("tallyvane-100.bin")));
}

TEST_F(FirmwarePackageTest, RegionsDoNotMix) {
  dir.Write("camera-region1-5.bin");
  dir.Write("camera-region12-50.bin");
  dir.Write("camera-region2-7.bin");
  EXPECT_EQ(Camera(1), Package(5, dir.File("camera-region1-5.bin")));
  EXPECT_EQ(Camera(12), Package(50, dir.File("camera-region12-50.bin")));
  EXPECT_EQ(Camera(2), Package(7, dir.File("camera-region2-7.bin")));
  EXPECT_EQ(Camera(3), Package(-1, ""));
  EXPECT_EQ(Camera(-1), Package(-1, ""));
  // Camera images are not board images and the other way round.
  EXPECT_EQ(Board(), Package(-1, ""));
}

TEST_F(FirmwarePackageTest, IgnoresNamesOutsideThePattern) {
  dir.Write("camera-region1-3.bin");
  for (const char* name :
       {"camera-region1-7.bin.bak", "camera-region1-x.bin", "camera-region1-.bin", "camera-region1-8",
        "camera-region1--9.bin", "camera-region1-+9.bin", "camera-region1- 9.bin", "camera-region1-9a.bin",
        "camera-region1-9.BIN", "xcamera-region1-9.bin", "camera-region01-9.bin",
        "camera-region1-2147483648.bin", "camera-region1-99999999999999999999.bin"}) {
    dir.Write(name);
  }
  std::filesystem::create_directory(dir.File("camera-region1-20.bin"));
  EXPECT_EQ(Camera(1), Package(3, dir.File("camera-region1-3.bin")));
}

TEST_F(FirmwarePackageTest, AcceptsLargestIntAndZero) {
  dir.Write("tallyvane-0.bin");
  EXPECT_EQ(Board(), Package(0, dir.File("tallyvane-0.bin")));
  dir.Write("tallyvane-2147483647.bin");
  EXPECT_EQ(Board(), Package(INT_MAX, dir.File("tallyvane-2147483647.bin")));
}

TEST_F(FirmwarePackageTest, LeadingZerosNameTheSameVersionAndTheChoiceIsStable) {
  dir.Write("tallyvane-7.bin");
  dir.Write("tallyvane-007.bin");
  EXPECT_EQ(Board(), Package(7, dir.File("tallyvane-007.bin")));
}

TEST_F(FirmwarePackageTest, FollowsSymlinksToFilesButNotDangling) {
  const std::string target = dir.Write("image.raw");
  std::filesystem::create_symlink(target, dir.File("tallyvane-4.bin"));
  std::filesystem::create_symlink(dir.File("missing"), dir.File("tallyvane-9.bin"));
  EXPECT_EQ(Board(), Package(4, dir.File("tallyvane-4.bin")));
}

TEST_F(FirmwarePackageTest, OnlySelectorZeroNamesTheBoardImage) {
  dir.Write("tallyvane-3.bin");
  EXPECT_EQ(lc::QelArmControl::FilesystemFirmwarePackage(1), Package(-1, ""));
}

TEST(FirmwarePackageDirectory, MissingDirectoryIsNoPackage) {
  TempDir dir;
  ScopedEnv env("QUORVEX_FIRMWARE_DIR", dir.File("absent"));
  EXPECT_EQ(Camera(0), Package(-1, ""));
  EXPECT_EQ(Board(), Package(-1, ""));
}

TEST(FirmwarePackageDirectory, DirectoryThatIsAFileIsNoPackage) {
  TempDir dir;
  ScopedEnv env("QUORVEX_FIRMWARE_DIR", dir.Write("tallyvane-1.bin"));
  EXPECT_EQ(Board(), Package(-1, ""));
}

TEST(FirmwarePackageDirectory, UnreadableDirectoryIsNoPackage) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every directory";
  TempDir dir;
  dir.Write("tallyvane-1.bin");
  ScopedEnv env("QUORVEX_FIRMWARE_DIR", dir.path());
  chmod(dir.path().c_str(), 0);
  EXPECT_EQ(Board(), Package(-1, ""));
  chmod(dir.path().c_str(), 0700);
}

TEST(FirmwarePackageDirectory, PathIsDirectoryPlusNameAsGiven) {
  TempDir dir;
  dir.Write("tallyvane-1.bin");
  // A trailing slash is kept as given: the path is still a valid one.
  ScopedEnv env("QUORVEX_FIRMWARE_DIR", dir.path() + "/");
  EXPECT_EQ(Board(), Package(1, dir.path() + "//tallyvane-1.bin"));
}

}  // namespace
