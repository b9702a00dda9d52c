// The camd client and the camera helper in process against camd-sim, on a fake clock (no real waits).
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>

#include "camd_fixture.hpp"
#include "dbus/camd_methods.hpp"
#include "helpers/camera/camera_lock.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "notify_socket.hpp"
#include "sm/update_machine.hpp"

namespace Updater::Testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::ValuesIn;
namespace fs = std::filesystem;

const std::string kRed = "\033[0;31mfw-updater Debug: [ERROR] -- ";
const std::string kLock = "firmware-updater-camera-0.lock";

// Client and camd-sim name every method after the same table, so a misspelt name would pass every other test;
// a wrong signature would not.
TEST(CamdMethodTable, NamesMethodsOfThePublishedInterface) {
  const std::string xml = ReadFile(FWU_SOURCE_DIR "/docs/camd-firmware.xml");
  EXPECT_THAT(xml, HasSubstr(std::string("<interface name=\"") + Camd::kInterface + "\">"));
  for (const auto& m : Camd::kMethods)
    EXPECT_THAT(xml, HasSubstr("<method name=\"" + std::string(m.name) + "\">"));
}

using ACamdClient = CamdBusTest;

TEST_F(ACamdClient, AddressesTheCameraIndexAsTyped) {
  StartSim({"--camera=03"});
  EXPECT_TRUE(Helpers::VyrCamera("03", clock_).Proxy().SendUpdateAvailable(4, 0, 0));
}

// The bus daemon ends and another takes its place: the try that meets the old connection drops it.
TEST_F(ACamdClient, ConnectsAfreshOnceATryFindsTheBusGone) {
  StartSim({"--version=4"});
  Helpers::VyrCamera camera("0", clock_);
  ASSERT_EQ(camera.Proxy().GetCameraFirmwareVersion(), 4);
  sim_.reset();
  bus_.reset();  // before the new daemon sets the address, which this one's end unsets
  bus_ = std::make_unique<PrivateBus>();
  StartSim({"--version=4"});
  int version = 0;
  const std::string err = Capture([&] { version = camera.Proxy().GetCameraFirmwareVersion(); }).err;
  EXPECT_EQ(version, 4);
  EXPECT_EQ(CountOf(err, "Dbus::Error"), 1u) << err;  // only the try that met the old connection
}

const std::vector<unsigned char> kTwoBytes = {1, 2};
struct CallRow {  // every method that answers
  std::string name;
  bool fiveTries;  // else a poll of its own
  long failure;    // the result once every try failed
  std::function<long(Helpers::CamdDbusIface&)> call;
};
void PrintTo(const CallRow& row, std::ostream* os) { *os << row.name; }
const CallRow kCalls[] = {
    {"GetCameraFirmwareVersion", true, -1, [](auto& c) { return c.GetCameraFirmwareVersion(); }},
    {"GetPreviouslyDownloadedChunks", true, -1, [](auto& c) { return c.GetPreviouslyDownloadedChunks(); }},
    {"GetFlashRegion", true, -1, [](auto& c) { return c.GetFlashRegion(); }},
    {"UpdateInfoReceived", true, false, [](auto& c) { return c.UpdateInfoReceived(); }},
    {"GetNextFirmwareBlock", true, -1, [](auto& c) { return c.GetNextFirmwareBlock(); }},
    {"SendUpdateAvailable", true, false, [](auto& c) { return c.SendUpdateAvailable(1, 2, 3); }},
    {"SendFirmwareBlock", true, false, [](auto& c) { return c.SendFirmwareBlock(0, kTwoBytes); }},
    {"GetFirstUpdateBlock", false, -1, [](auto& c) { return c.GetFirstUpdateBlock(); }},
    {"WaitForAck", false, 1, [](auto& c) { return c.WaitForAck(); }},
};
class AReplyOfTheWrongType : public CamdBusTest, public ::testing::WithParamInterface<CallRow> {};

// A std::exception: inside the machine it reaches the exception hook.
TEST_P(AReplyOfTheWrongType, EscapesTheCallOnTheFirstTry) {
  StartSim({"--wrong-type=" + GetParam().name});
  Helpers::VyrCamera camera("0", clock_);
  EXPECT_THROW(GetParam().call(camera.Proxy()), std::exception);
  EXPECT_EQ(SimCalls(GetParam().name), 1u);
}
INSTANTIATE_TEST_SUITE_P(EveryAnsweringMethod, AReplyOfTheWrongType, ValuesIn(kCalls), RowName<CallRow>);

struct UnreachableRow {
  std::string name, index, error;
  std::string address{};  // DBUS_SESSION_BUS_ADDRESS, when not the private bus's
};
void PrintTo(const UnreachableRow& row, std::ostream* os) { *os << row.name; }
const UnreachableRow kUnreachables[] = {
    {"CamdAbsent", "0", "The name com.quorvex.common.Camd1 was not provided"},
    {"IndexNoPathElement", "a-b ü", "Invalid object path '/com/quorvex/common/Camd1/Cameraa-b ü'"},
    {"WrongBusAddress", "0", "Failed to open bus (No such file or directory) at [unix:path=/nonexistent/bus]",
     "unix:path=/nonexistent/bus"},
};
class AnUnreachableCamd : public CamdBusTest, public ::testing::WithParamInterface<UnreachableRow> {
 protected:
  void SetUp() override {
    CamdBusTest::SetUp();
    if (!GetParam().address.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", GetParam().address.c_str(), 1);
  }
  void TearDown() override {
    setenv("DBUS_SESSION_BUS_ADDRESS", privateBus_.c_str(), 1);
    CamdBusTest::TearDown();
  }
  const std::string privateBus_ = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  Helpers::VyrCamera camera_{GetParam().index, clock_};
};

TEST_P(AnUnreachableCamd, FailsEveryCallAfterFiveTries) {
  for (const auto& call : kCalls) {
    if (!call.fiveTries) continue;
    long result = 42;
    const std::string err = Capture([&] { result = call.call(camera_.Proxy()); }).err;
    EXPECT_EQ(result, call.failure) << call.name;
    EXPECT_EQ(CountOf(err, "Dbus::Error: " + GetParam().error), 5u) << call.name << err;
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, AnUnreachableCamd, ValuesIn(kUnreachables), RowName<UnreachableRow>);

// Texts of the camera target that look like slips but are kept on purpose, each pinned where it is printed:
// a "fix" fails here. ("Initializing dbus-cxx" and "Checksum:" are pinned by the runs that print them.)
struct KeptTextRow {
  std::string name;
  std::function<void(CamdBusTest&)> print;
  std::string text;
};
const KeptTextRow kKeptTexts[] = {
    {"FirstBlockAskedReally", [](CamdBusTest& t) { Helpers::VyrCamera("0", t.clock_).GetFirstUpdateBlock(); },
     "Asking camd for first update block (really)\n"},
    {"BusLibraryOfAnotherName",
     [](CamdBusTest& t) {
       Helpers::VyrCamera first("0", t.clock_);
       Helpers::VyrCamera second("0", t.clock_);
     },
     "dbus-cxx already initialized\n"},
};
class AKeptCameraText : public CamdBusTest, public ::testing::WithParamInterface<KeptTextRow> {};

TEST_P(AKeptCameraText, IsPrintedAsItAlwaysWas) {
  StartSim({});
  EXPECT_THAT(Capture([&] { GetParam().print(*this); }).out, HasSubstr(GetParam().text));
}
INSTANTIATE_TEST_SUITE_P(Texts, AKeptCameraText, ValuesIn(kKeptTexts), RowName<KeptTextRow>);

struct LockNameRow {
  std::string name, index, file;
};
void PrintTo(const LockNameRow& row, std::ostream* os) { *os << row.name; }
const std::string kLockPrefix = "firmware-updater-camera-";
const LockNameRow kLockNames[] = {
    {"OtherBytesEscaped", "a-b ü", kLockPrefix + "a-b%20%C3%BC.lock"},
    // The longest name NAME_MAX allows; longer ones are cut short with the FNV-1a hash of the whole index.
    {"LongestPlain", std::string(226, 'b'), kLockPrefix + std::string(226, 'b') + ".lock"},
    {"LongerHashed", std::string(300, 'a'), kLockPrefix + std::string(209, 'a') + "+EE7717EBA7A17E21.lock"},
};
class ACameraLockName : public ::testing::TestWithParam<LockNameRow> {};

TEST_P(ACameraLockName, EscapesAndBoundsTheIndex) {
  EXPECT_EQ(Helpers::CameraLockName(GetParam().index), GetParam().file);
}
INSTANTIATE_TEST_SUITE_P(Indices, ACameraLockName, ValuesIn(kLockNames), RowName<LockNameRow>);

// A lock file others may open, or another user owns, is replaced: an earlier descriptor may hold its lock.
struct HeldLockRow {
  std::string name;
  mode_t mode;
  uid_t owner;
  std::chrono::milliseconds slept;  // until the run has the lock; the 5 s limit: never
  bool replaced = false;            // by another run, as this one waits
};
const HeldLockRow kHeldLocks[] = {
    {"OwnerOnly", 0600, 0, 1100ms},  // within a tenth of a second of its release
    {"LeftReadableByAllByAnOlderRelease", 0644, 0, 0ms},
    {"ReadableByGroup", 0640, 0, 0ms},
    {"ReadableByOthers", 0604, 0, 0ms},
    {"OfAnotherUser", 0600, 65534, 0ms},
    {"ReplacedMeanwhile", 0600, 0, 5s, /*replaced=*/true},
};
class AHeldLockFile : public CamdBusTest, public ::testing::WithParamInterface<HeldLockRow> {};

TEST_P(AHeldLockFile, IsTakenOnceNoEarlierDescriptorHoldsTheFileAtItsPath) {
  HoldLock(GetParam().owner);
  fchmod(held_, GetParam().mode);
  clock_.onSleep = [&] {
    if (clock_.Slept() != 1100ms) return;
    const int old = std::exchange(held_, -1);
    if (GetParam().replaced) fs::rename(fw_ / kLock, fw_ / "gone");
    if (GetParam().replaced) HoldLock();  // made afresh at the lock's path
    close(old);
  };
  int fd = -1;
  Capture([&] { fd = Helpers::TakeCameraLock("0", clock_, clock_.Monotonic() + 5s); });
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
  EXPECT_EQ(fs::status(fw_ / kLock).permissions(), fs::perms(0600));
  close(fd);
}
INSTANTIATE_TEST_SUITE_P(Modes, AHeldLockFile, ValuesIn(kHeldLocks), RowName<HeldLockRow>);

using ACameraLock = CamdBusTest;

// As the package's tmpfiles.d entry would make it, whatever the umask (here the strictest).
TEST_F(ACameraLock, MakesAnAbsentLockDirectoryWithMode0755) {
  setenv("QUORVEX_LOCK_DIR", (fw_ / "run").c_str(), 1);
  const mode_t umask_was = umask(077);
  close(Helpers::TakeCameraLock("0", clock_, std::nullopt));
  umask(umask_was);
  EXPECT_EQ(std::filesystem::status(fw_ / "run").permissions(), std::filesystem::perms(0755));
}

TEST_F(ACameraLock, StillHeldIsGivenUpWhenTheStallLimitIsReached) {
  HoldLock();
  setenv("QUORVEX_STALL_SECONDS", "5", 1);
  Helpers::VyrCamera camera("0", clock_);
  Capture([&] { EXPECT_EQ(camera.CheckForUpdate(), 0); });
  EXPECT_EQ(clock_.Slept(), 5s);
}

struct AckRow {
  std::string name;
  std::vector<std::string> sim;
  int size, status, after;  // packet size before and after the wait
};
void PrintTo(const AckRow& row, std::ostream* os) { *os << row.name; }
const AckRow kAcks[] = {
    {"LostAtTwo", {"--lose-acks=1-10"}, /*size=*/2, /*status=*/1, /*after=*/1},
    {"LostAtTheFloor", {"--lose-acks=1-10"}, /*size=*/1, /*status=*/1, /*after=*/1},
    // Not a halving of 64 but below the ceiling: it doubles past 64.
    {"DeliveredBelowTheCeiling", {}, /*size=*/63, /*status=*/0, /*after=*/126},
    {"OtherStatus", {"--ack-status=1-:5"}, /*size=*/64, /*status=*/5, /*after=*/64},
    {"ErrorAnswer", {"--error=WaitForAck@1"}, /*size=*/64, /*status=*/1, /*after=*/32},
    // Once camd has said the image is complete, a later error cannot make it a loss, whatever came between.
    {"DoneThenError", {"--ack-status=1:3", "--error=WaitForAck@2"}, /*size=*/64, /*status=*/3, /*after=*/64},
    {"DoneThenOtherThenError", {"--ack-status=1:3", "--ack-status=2:1", "--error=WaitForAck@3"}, 64, 3, 64},
};
class AnAckWait : public CamdBusTest, public ::testing::WithParamInterface<AckRow> {
 protected:
  int Wait() {
    StartSim(GetParam().sim);
    auto& camd = camera_.Proxy();
    camd.packetSize = GetParam().size;
    camd.SendUpdateAvailable(2, 0, 1000);
    camd.SendFirmwareBlock(0, std::vector<unsigned char>(64, 1));  // something to acknowledge
    const int status = camd.WaitForAck();
    camd.GetFlashRegion();  // answered, so camd has handled any DequeuePacket sent before it
    return status;
  }
  Helpers::VyrCamera camera_{"0", clock_};
};

TEST_P(AnAckWait, ReturnsTheStatusItEndedWith) { EXPECT_EQ(Wait(), GetParam().status); }

TEST_P(AnAckWait, AdaptsThePacketSize) {
  Wait();
  EXPECT_EQ(camera_.Proxy().packetSize, GetParam().after);
}

TEST_P(AnAckWait, DropsOnlyALostChunk) {
  const int status = Wait();
  EXPECT_EQ(SimCalls("DequeuePacket"), status == 1 ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(Answers, AnAckWait, ValuesIn(kAcks), RowName<AckRow>);

struct CheckRow {
  std::string name;
  std::vector<std::string> sim;
  int update;
  std::chrono::milliseconds slept;
  const char* limit = nullptr;  // QUORVEX_STALL_SECONDS, when set
  std::uintmax_t bytes = 100;   // of the image, sparse past 1000
};
void PrintTo(const CheckRow& row, std::ostream* os) { *os << row.name; }
const CheckRow kChecks[] = {
    {"SameVersion", {"--version=2"}, /*update=*/0, /*slept=*/0ms},
    {"OlderRealMinusOne", {"--version=-1"}, /*update=*/1, /*slept=*/0ms},
    {"VersionUnreadable", {"--error=GetCameraFirmwareVersion@1-5"}, /*update=*/0, /*slept=*/0ms},
    {"AnnouncementRefused", {"--refuse-announcement"}, /*update=*/0, /*slept=*/0ms},
    // 102 polls, 100 ms apart; the last answer still counts.
    {"InfoOnTheLastPoll", {"--info-false=101"}, /*update=*/1, /*slept=*/10100ms},
    {"InfoNever", {"--info-false=forever"}, /*update=*/0, /*slept=*/10200ms},
    // The limit bounds the whole check: it ends when the limit is reached, not a poll later.
    {"InfoNeverWithALimit", {"--info-false=forever"}, /*update=*/0, /*slept=*/5s, /*limit=*/"5"},
    // camd's positions and lengths are signed 32-bit. (Accepting the largest would cost a read of 2 GiB.)
    {"ImageTooLargeForCamd", {}, /*update=*/0, /*slept=*/0ms, /*limit=*/nullptr, /*bytes=*/1ull << 31},
};
class AnUpdateCheck : public CamdBusTest, public ::testing::WithParamInterface<CheckRow> {
 protected:
  int Check() {
    StartSim(GetParam().sim);
    if (GetParam().limit) setenv("QUORVEX_STALL_SECONDS", GetParam().limit, 1);
    std::filesystem::resize_file(AddPackage(2, RandomBytes(1000, 3)), GetParam().bytes);
    Helpers::VyrCamera camera("0", clock_);
    int update = -1;
    Capture([&] { update = camera.CheckForUpdate(); });
    return update;
  }
};

TEST_P(AnUpdateCheck, DecidesWhetherToUpdate) { EXPECT_EQ(Check(), GetParam().update); }

TEST_P(AnUpdateCheck, WaitsNoLongerThanDesigned) {
  Check();
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
}
INSTANTIATE_TEST_SUITE_P(Camd, AnUpdateCheck, ValuesIn(kChecks), RowName<CheckRow>);

using AnAnnouncement = CamdBusTest;

TEST_F(AnAnnouncement, CarriesTheChecksumOfTheWholeImage) {
  std::string image;  // several checksum pieces, ending mid-piece, none like another
  for (int i = 0; i < 3 * 65536 + 1234; ++i) image += static_cast<char>(i % 251);
  AddPackage(2, image);
  StartSim({});
  Helpers::VyrCamera camera("0", clock_);
  EXPECT_THAT(Capture([&] { camera.CheckForUpdate(); }).out,
              HasSubstr("\nChecksum:e8c1\n"));  // CRC-16/CCITT-FALSE, worked out bit by bit
}

// What another user could have written or chosen through a link, or an empty image, is refused at once.
struct TrustRow {
  std::string name, kind, tail;  // the red line: "<kind> [<the firmware and lock directory><tail>"
  void (*tamper)(CamdBusTest&);
};
void PrintTo(const TrustRow& row, std::ostream* os) { *os << row.name; }
const TrustRow kTrusts[] = {
    {"LinkByPath", "Firmware package", "/camera-region0-3.bin] is a link out of the firmware directory",
     [](auto& t) { fs::create_symlink(t.fw_ / "camera-region0-2.bin", t.fw_ / "camera-region0-3.bin"); }},
    {"EmptyPackage", "Firmware image", "/camera-region0-2.bin] is empty",
     [](auto& t) { t.AddPackage(2, ""); }},
    {"LockDirectoryWritableByGroup", "Lock directory", "] is writable by group or others",
     [](auto& t) { chmod(t.fw_.path().c_str(), 0770); }},
    {"LockFileAFifo", "Lock file", "/" + kLock + "] is not a regular file",
     [](auto& t) { mkfifo((t.fw_ / kLock).c_str(), 0600); }},
    {"PackageWritableByOthers", "Firmware package", "/camera-region0-2.bin] is writable by group or others",
     [](auto& t) { chmod((t.fw_ / "camera-region0-2.bin").c_str(), 0606); }},
};
class AnUntrustedFile : public CamdBusTest, public ::testing::WithParamInterface<TrustRow> {};

TEST_P(AnUntrustedFile, IsRefusedSayingWhy) {
  StartSim({});
  AddPackage(2, "image");
  GetParam().tamper(*this);
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Capture([&] { EXPECT_EQ(camera.CheckForUpdate(), 0); });
  const std::string says = kRed + GetParam().kind + " [" + fw_.path() + GetParam().tail + "; not updating";
  EXPECT_THAT(run.out + run.err, HasSubstr(says));
}
INSTANTIATE_TEST_SUITE_P(Files, AnUntrustedFile, ValuesIn(kTrusts), RowName<TrustRow>);

struct StallRow {
  std::string name;
  std::vector<std::string> sim;
  const char* limit;  // QUORVEX_STALL_SECONDS
  int sends;
  std::chrono::milliseconds slept;
};
void PrintTo(const StallRow& row, std::ostream* os) { *os << row.name; }
const StallRow kStalls[] = {
    // Every chunk lost: two rounds of ten polls (2 s each) reach a 4 s limit, which ends the loop then.
    {"EveryChunkLost", {"--loss-rate=1"}, /*limit=*/"4", /*sends=*/2, /*slept=*/4s},
    // No limit: a position named again and again, or error answers, are paced 0.2 s doubling up to 3.2 s,
    // and the eighth such round ends the loop.
    {"OnePositionForEver", {"--next=3-:128"}, /*limit=*/"0", /*sends=*/11, /*slept=*/12600ms},
    {"ErrorAnswers", {"--error=WaitForAck"}, /*limit=*/"0", /*sends=*/8, /*slept=*/12600ms},
    // An empty chunk at the end of the image moves nothing forward, however far it lies.
    {"EmptyChunksAtTheEnd", {"--next=3-:1000", "--ack-status=4-:0"}, "0", 11, 12600ms},
    // Forgotten mid-transfer: one chunk lost (2 s), the rest sent, then the end of the image named for ever.
    {"CamdRestarted", {"--restart-at=3"}, /*limit=*/"0", /*sends=*/26, /*slept=*/14600ms},
};
class ABlockLoop : public CamdBusTest, public ::testing::WithParamInterface<StallRow> {
 protected:
  int Sends() {  // as the machine runs it, one block past the expected count at most
    StartSim(GetParam().sim);
    AddPackage(2, RandomBytes(1000, 3));
    setenv("QUORVEX_STALL_SECONDS", GetParam().limit, 1);
    Helpers::VyrCamera camera("0", clock_);
    int sends = 0;
    Capture([&] {
      camera.CheckForUpdate();
      int block = camera.GetFirstUpdateBlock();
      for (; sends <= GetParam().sends && camera.SendFirmwareBlock(block); ++sends)
        if (camera.WaitForAck(0) != 1) block = camera.GetNextFirmwareBlock();
    });
    return sends;
  }
};

TEST_P(ABlockLoop, GivesUpAfterTheDesignedRounds) { EXPECT_EQ(Sends(), GetParam().sends); }

TEST_P(ABlockLoop, PausesOnlyAfterRoundsWithoutProgress) {
  Sends();
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
}

INSTANTIATE_TEST_SUITE_P(WithoutProgress, ABlockLoop, ValuesIn(kStalls), RowName<StallRow>);

// A package manager renames a new image over the file right after the update check.
struct ReplacedAfterCheck : Helpers::VyrCamera {
  using VyrCamera::VyrCamera;
  int CheckForUpdate() override {
    const int update = VyrCamera::CheckForUpdate();
    if (replace) replace();
    return update;
  }
  std::function<void()> replace;
};

struct WholeRow {
  std::string name;
  std::vector<std::string> sim;
  std::size_t bytes;
  bool replaced = false;
};
void PrintTo(const WholeRow& row, std::ostream* os) { *os << row.name; }
const WholeRow kWholes[] = {
    {"Resumed", {"--first=1024", "--preload="}, 1500},  // camd holds the image up to the position it names
    {"NineInTenLost", {"--loss-rate=0.9", "--seed=5"}, 1000},  // within the default stall limit
    {"ImageReplacedAfterTheCheck", {}, 1000, /*replaced=*/true},
    // Progress in between starts the count of idle rounds afresh: five, progress, five more.
    {"IdleRoundsBetweenProgress", {"--next=2-6:0", "--next=9-13:128"}, 1000},
};
class AWholeUpdate : public CamdBusTest, public ::testing::WithParamInterface<WholeRow> {
 protected:
  void Run() {
    const std::string path = AddPackage(3, image_);
    auto args = GetParam().sim;
    for (auto& arg : args) arg += arg == "--preload=" ? path : "";
    StartSim(args);
    ReplacedAfterCheck camera("0", clock_);
    if (GetParam().replaced)
      camera.replace = [&] {
        std::filesystem::rename(fw_.Write("new", std::string(image_.size(), 'x')), path);
      };
    SM::UpdateMachine machine;  // as main runs it
    machine.SetHelper(&camera);
    Capture([&] { machine.start(); });
  }
  const std::string image_ = RandomBytes(GetParam().bytes, 4);
};

// camd's verdict: what it holds matches the announced length and checksum.
TEST_P(AWholeUpdate, DeliversTheAnnouncedImageByteForByte) {
  Run();
  EXPECT_EQ(ReadFile(OutPath()), image_);
  EXPECT_THAT(sim_->Out(), HasSubstr("VERDICT ok camera=0 bytes=" + std::to_string(image_.size()) + " "));
}

INSTANTIATE_TEST_SUITE_P(Cases, AWholeUpdate, ValuesIn(kWholes), RowName<WholeRow>);

using AServiceManager = CamdBusTest;

// Each line also extends the unit's start time-out past the stall limit.
TEST_F(AServiceManager, HearsTheAcknowledgedBytesRiseToTheWholeImage) {
  NotifySocket notify(fw_ / "notify");
  setenv("NOTIFY_SOCKET", notify.path.c_str(), 1);
  AddPackage(3, RandomBytes(1000, 4));
  StartSim({"--loss-rate=0.5"});
  Helpers::VyrCamera camera("0", clock_);
  SM::UpdateMachine machine;
  machine.SetHelper(&camera);
  Capture([&] { machine.start(); });
  long long last = 0;
  for (const auto& line : notify.Take()) {
    const long long done = std::stoll(line.substr(line.find(": ") + 2));  // the whole line is compared next
    EXPECT_EQ(line, "STATUS=camera 0: " + std::to_string(done) + "/1000 bytes (" + std::to_string(done / 10) +
                        "%)\nEXTEND_TIMEOUT_USEC=330000000");
    EXPECT_GT(done, std::exchange(last, done));
  }
  EXPECT_EQ(last, 1000);
}

}  // namespace
}  // namespace Updater::Testing
