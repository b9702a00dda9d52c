// The camd client and the camera helper in process against camd-sim, on a fake clock (no real waits).
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>

#include "camd_fixture.hpp"
#include "common/notify.hpp"
#include "dbus/camd_methods.hpp"
#include "helpers/camera/camera_lock.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "notify_socket.hpp"
#include "sm/update_machine.hpp"

namespace Updater::Testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ValuesIn;

const std::string kRed = "\033[0;31mfw-updater Debug: [ERROR] -- ";
const std::string kLock = "firmware-updater-camera-0.lock";

// Client and camd-sim both build their calls from the table: only the published interface can tell a wrong
// signature.
TEST(CamdMethodTable, MatchesTheDocumentedInterface) {
  const std::string xml = ReadFile(FWU_SOURCE_DIR "/docs/camd-firmware.xml");
  ASSERT_THAT(xml, HasSubstr(std::string("<interface name=\"") + Camd::kInterface + "\">"));
  const auto quoted = [](const std::string& text, std::size_t q) {  // the value whose opening quote is at q
    return text.substr(q + 1, text.find('"', q + 1) - q - 1);
  };
  std::vector<std::string> documented, table;
  for (auto at = xml.find("<method name="); at != std::string::npos; at = xml.find("<method name=", at + 1)) {
    const std::string block = xml.substr(at, xml.find("</method>", at) - at);
    std::string sig[2];  // in, out
    for (auto t = block.find("type="); t != std::string::npos; t = block.find("type=", t + 1))
      sig[quoted(block, block.find("direction=", t) + 10) == "out"] += quoted(block, t + 5);
    const std::string noReply = CountOf(block, "Method.NoReply") ? " noreply" : "";
    documented.push_back(quoted(block, 13) + "(" + sig[0] + ")" + sig[1] + noReply);
  }
  for (const auto& m : Camd::kMethods) {
    const std::string noReply = m.reply == Camd::Reply::None ? " noreply" : "";
    table.push_back(m.name + ("(" + std::string(m.in) + ")") + m.out + noReply);
  }
  EXPECT_EQ(documented, table);
}

using ACamdClient = CamdBusTest;

TEST_F(ACamdClient, AddressesTheCameraIndexAsTyped) {
  StartSim({"--camera=03"});
  EXPECT_TRUE(Helpers::VyrCamera("03", clock_).Proxy().SendUpdateAvailable(4, 0, 0));
}

TEST_F(ACamdClient, TriesAFailingCallFiveTimes) {
  StartSim({"--region=3", "--error=GetFlashRegion@1-4"});
  Helpers::VyrCamera camera("0", clock_);
  int region = -1;
  const std::string err = Stderr([&] { region = camera.Proxy().GetFlashRegion(); });
  EXPECT_EQ(region, 3);
  EXPECT_EQ(CountOf(err, "Dbus::Error: injected failure of GetFlashRegion\n"), 4u);
}

// camd-sim registers `iii` and `iay`; the bus refuses a body of other types.
TEST_F(ACamdClient, SendsSigned32BitValuesAndByteArrays) {
  StartSim({});
  Helpers::VyrCamera camera("0", clock_);
  camera.Proxy().SendUpdateAvailable(-2, 0xFFFF, 2147483647);
  camera.Proxy().SendFirmwareBlock(0, {});
  EXPECT_THAT(sim_->Log(),
              HasSubstr("SendUpdateAvailable version=-2 checksum=65535 length=2147483647 -> true"));
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=0 bytes=0 -> true"));
}

struct CallRow {  // every method that answers
  std::string name;
  bool fiveTries;  // else a poll of its own
  long failure;    // the result once every try failed
  std::function<long(Helpers::CamdDbusIface&)> call;
};
const CallRow kCalls[] = {
    {"GetCameraFirmwareVersion", true, -1, [](auto& c) { return c.GetCameraFirmwareVersion(); }},
    {"GetPreviouslyDownloadedChunks", true, -1, [](auto& c) { return c.GetPreviouslyDownloadedChunks(); }},
    {"GetFlashRegion", true, -1, [](auto& c) { return c.GetFlashRegion(); }},
    {"UpdateInfoReceived", true, false, [](auto& c) { return c.UpdateInfoReceived(); }},
    {"GetNextFirmwareBlock", true, -1, [](auto& c) { return c.GetNextFirmwareBlock(); }},
    {"SendUpdateAvailable", true, false, [](auto& c) { return c.SendUpdateAvailable(1, 2, 3); }},
    {"SendFirmwareBlock", true, false,
     [](auto& c) {
       return c.SendFirmwareBlock(0, {1, 2});
     }},
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
  std::string name, index, busAddress, error;
  std::size_t noReplyErrors;  // of three calls that expect no reply
};
const UnreachableRow kUnreachables[] = {
    {"CamdAbsent", "0", "", "The name com.quorvex.common.Camd1 was not provided", 0},
    {"IndexNoPathElement", "a-b ü", "", "Invalid object path '/com/quorvex/common/Camd1/Cameraa-b ü'", 15},
    {"NoSuchBus", "0", "unix:path=/nonexistent/bus", "Failed to open bus (No such file or directory) at [",
     15},
};
class AnUnreachableCamd : public CamdBusTest, public ::testing::WithParamInterface<UnreachableRow> {
 protected:
  void SetUp() override {
    CamdBusTest::SetUp();
    if (!GetParam().busAddress.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", GetParam().busAddress.c_str(), 1);
  }
  ~AnUnreachableCamd() override { setenv("DBUS_SESSION_BUS_ADDRESS", busAddress_.c_str(), 1); }
  const std::string busAddress_ = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  Helpers::VyrCamera camera_{GetParam().index, clock_};
};

TEST_P(AnUnreachableCamd, FailsEveryCallAfterFiveTries) {
  for (const auto& call : kCalls) {
    if (!call.fiveTries) continue;
    long result = 42;
    const std::string err = Stderr([&] { result = call.call(camera_.Proxy()); });
    EXPECT_EQ(result, call.failure) << call.name;
    EXPECT_EQ(CountOf(err, "Dbus::Error: " + GetParam().error), 5u) << call.name << err;
  }
}

// Nobody waits for an answer that is never asked for; only a local failure counts.
TEST_P(AnUnreachableCamd, FailsACallWithoutReplyOnlyWhenItCannotBeSent) {
  const std::string err = Stderr([&] {
    camera_.Proxy().RequestUpdateInfo();
    camera_.Proxy().ClearPendingUpdate();
    camera_.Proxy().DequeuePacket();
  });
  EXPECT_EQ(CountOf(err, "Dbus::Error: "), GetParam().noReplyErrors) << err;
}

INSTANTIATE_TEST_SUITE_P(Ways, AnUnreachableCamd, ValuesIn(kUnreachables), RowName<UnreachableRow>);

struct LockNameRow {
  std::string name, index, file;
};
std::string Times(int n, const std::string& text) {
  std::string all;
  for (int i = 0; i < n; ++i) all += text;
  return all;
}
const std::string kLockPrefix = "firmware-updater-camera-";
const LockNameRow kLockNames[] = {
    {"OtherBytesEscaped", "a-b ü", kLockPrefix + "a-b%20%C3%BC.lock"},
    // The longest name NAME_MAX allows; longer ones are cut short with the FNV-1a hash of the whole index.
    {"LongestPlain", Times(226, "b"), kLockPrefix + Times(226, "b") + ".lock"},
    {"LongerHashed", Times(300, "a"), kLockPrefix + Times(209, "a") + "+EE7717EBA7A17E21.lock"},
    // Too long once escaped; no escape is cut in two.
    {"EscapedHashed", Times(76, " "), kLockPrefix + Times(69, "%20") + "+2D35C9AD3E401755.lock"},
};
class ACameraLockName : public ::testing::TestWithParam<LockNameRow> {};

TEST_P(ACameraLockName, EscapesAndBoundsTheIndex) {
  EXPECT_EQ(Helpers::CameraLockName(GetParam().index), GetParam().file);
}
INSTANTIATE_TEST_SUITE_P(Indices, ACameraLockName, ValuesIn(kLockNames), RowName<LockNameRow>);

using ACameraLock = CamdBusTest;

// Readable by others, as an older run may have left it: whoever can open it can lock it.
TEST_F(ACameraLock, MakesAnOldLockFileOwnerOnly) {
  chmod(fw_.Write(kLock).c_str(), 0644);
  const int fd = Helpers::TakeCameraLock("0", clock_, std::nullopt);
  EXPECT_EQ(std::filesystem::status(fw_ / kLock).permissions(), std::filesystem::perms(0600));
  close(fd);
}

TEST_F(ACameraLock, IsTakenWithinATenthOfASecondOfItsRelease) {
  HoldLock();
  clock_.onSleep = [&] {
    if (clock_.Slept() < 1050ms || held_ < 0) return;
    close(held_);
    held_ = -1;
  };
  int fd = -1;
  Stderr([&] { fd = Helpers::TakeCameraLock("0", clock_, clock_.Monotonic() + 5s); });
  EXPECT_EQ(clock_.Slept(), 1100ms);
  close(fd);
}

TEST_F(ACameraLock, StillHeldIsGivenUpWhenTheStallLimitIsReached) {
  HoldLock();
  setenv("QUORVEX_STALL_SECONDS", "5", 1);
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Capture([&] { EXPECT_EQ(camera.CheckForUpdate(), 0); });
  EXPECT_THAT(run.out + run.err,
              HasSubstr(kRed + "Another update of camera [0] has held the lock for 5 s; not updating"));
  EXPECT_EQ(clock_.Slept(), 5s);
}

struct AckRow {
  std::string name;
  std::vector<std::string> sim;
  int size, status, sizeAfter;  // packet size before and after the wait
  std::size_t pauses;           // of 200 ms each
};
const AckRow kAcks[] = {
    {"LostAtTwo", {"--lose-acks=1-10"}, /*size=*/2, /*status=*/1, /*sizeAfter=*/1, /*pauses=*/10},
    {"LostAtTheFloor", {"--lose-acks=1-10"}, /*size=*/1, /*status=*/1, /*sizeAfter=*/1, /*pauses=*/10},
    // Not a halving of 64 but below the ceiling: it doubles past 64.
    {"DeliveredBelowTheCeiling", {}, /*size=*/63, /*status=*/0, /*sizeAfter=*/126, /*pauses=*/0},
    {"OtherStatus", {"--ack-status=1-:5"}, /*size=*/64, /*status=*/5, /*sizeAfter=*/64, /*pauses=*/10},
    {"ErrorAnswer", {"--error=WaitForAck@1"}, /*size=*/64, /*status=*/1, /*sizeAfter=*/32, /*pauses=*/0},
    // Once camd has said the image is complete, a later error cannot make it a loss.
    {"ErrorAfterComplete",
     {"--ack-status=1:3", "--error=WaitForAck@2"},
     64,
     3,
     /*sizeAfter=*/64,
     /*pauses=*/1},
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
  EXPECT_EQ(camera_.Proxy().packetSize, GetParam().sizeAfter);
}

TEST_P(AnAckWait, PausesAfterEachPollThatWasNoAcknowledgement) {
  Wait();
  EXPECT_EQ(clock_.Slept(), GetParam().pauses * 200ms);
}

TEST_P(AnAckWait, DropsOnlyALostChunk) {
  const int status = Wait();
  EXPECT_EQ(SimCalls("DequeuePacket"), status == 1 ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(Answers, AnAckWait, ValuesIn(kAcks), RowName<AckRow>);

// Asked twice: the comparison uses the first answer, the log the second.
const std::string kAskedTwice =
    "version\nFile version: 2\nAsking camd for firmware version\nCam version: 2\n";
struct CheckRow {
  std::string name;
  std::vector<std::string> sim;
  int update;
  std::chrono::milliseconds slept;
  std::string says;
};
const CheckRow kChecks[] = {
    {"SameVersion", {"--version=2"}, /*update=*/0, 0ms, kAskedTwice},
    {"OlderRealMinusOne", {"--version=-1"}, /*update=*/1, 0ms, "Cam version: -1\n"},
    {"VersionUnreadable",
     {"--error=GetCameraFirmwareVersion@1-5"},
     /*update=*/0,
     0ms,
     "version could not be read"},
    {"AnnouncementRefused",
     {"--refuse-announcement"},
     /*update=*/0,
     0ms,
     "camd did not take the announcement"},
    // 102 polls, 100 ms apart; the last answer still counts.
    {"InfoOnTheLastPoll", {"--info-false=101"}, /*update=*/1, 10100ms, "Checksum:"},
    {"InfoNever",
     {"--info-false=forever"},
     /*update=*/0,
     10200ms,
     "Error asking camd for update info status"},
};
class AnUpdateCheck : public CamdBusTest {
 protected:
  int Check(const std::vector<std::string>& sim, std::uintmax_t bytes = 100) {
    StartSim(sim);
    std::filesystem::resize_file(AddPackage(2, RandomBytes(1000, 3)), bytes);  // sparse past 1000 bytes
    Helpers::VyrCamera camera("0", clock_);
    int update = -1;
    const auto run = Capture([&] { update = camera.CheckForUpdate(); });
    said_ = run.out + run.err;
    return update;
  }
  std::string said_;
};
class AnUpdateCheckWhere : public AnUpdateCheck, public ::testing::WithParamInterface<CheckRow> {};

TEST_P(AnUpdateCheckWhere, DecidesWhetherToUpdate) { EXPECT_EQ(Check(GetParam().sim), GetParam().update); }

TEST_P(AnUpdateCheckWhere, SaysWhy) {
  Check(GetParam().sim);
  EXPECT_THAT(said_, HasSubstr(GetParam().says));
}

TEST_P(AnUpdateCheckWhere, WaitsNoLongerThanDesigned) {
  Check(GetParam().sim);
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
}
INSTANTIATE_TEST_SUITE_P(Camd, AnUpdateCheckWhere, ValuesIn(kChecks), RowName<CheckRow>);

// The limit bounds the whole check: it ends when the limit is reached, not a poll later.
TEST_F(AnUpdateCheck, EndsAtTheStallLimit) {
  setenv("QUORVEX_STALL_SECONDS", "5", 1);
  EXPECT_EQ(Check({"--info-false=forever"}), 0);
  EXPECT_EQ(clock_.Slept(), 5s);
}

TEST_F(AnUpdateCheck, AnnouncesTheChecksumOfTheWholeImage) {
  ASSERT_EQ(ReferenceCrc("123456789"), "29b1");          // the catalogue check value
  const auto image = RandomBytes(3 * 65536 + 1234, 42);  // several checksum pieces, ending mid-piece
  AddPackage(2, image);
  StartSim({});
  Helpers::VyrCamera camera("0", clock_);
  EXPECT_THAT(Stdout([&] { camera.CheckForUpdate(); }),
              HasSubstr("\nChecksum:" + ReferenceCrc(image) + "\n"));
}

// camd's positions and lengths are signed 32-bit. The largest costs a read of 2 GiB for its checksum: seconds
// natively, too long under a sanitizer or an emulator, where the plain build's run stands for it.
TEST_F(AnUpdateCheck, AnnouncesTheLargestImageCamdCanAddress) {
#if defined(__SANITIZE_ADDRESS__) || defined(FWU_EMULATED)
  GTEST_SKIP();
#endif
  EXPECT_EQ(Check({}, (1ull << 31) - 1), 1);
}

TEST_F(AnUpdateCheck, RefusesAnImageOneByteLarger) {
  EXPECT_EQ(Check({}, 1ull << 31), 0);
  EXPECT_THAT(said_,
              HasSubstr(kRed + "Firmware image [" + fw_ / "camera-region0-2.bin] is 2147483648 bytes"));
}

// What another user could have written is refused at once.
struct TrustRow {
  std::string name, kind, tail;  // the red line: "<kind> [<the firmware and lock directory><tail>"
  void (*tamper)(CamdBusTest&);
};
const std::string kPackage = "camera-region0-2.bin";
const TrustRow kTrusts[] = {
    {"LockFileOfAnotherUser", "Lock file", "/" + kLock + "] is owned by user 65534",
     [](auto& t) { t.HoldLock(65534); }},
    {"LockDirectoryWritableByGroup", "Lock directory", "] is writable by group or others",
     [](auto& t) { chmod(t.fw_.path().c_str(), 0770); }},
    {"LockFileAFifo", "Lock file", "/" + kLock + "] is not a regular file",
     [](auto& t) { mkfifo((t.fw_ / kLock).c_str(), 0600); }},
    {"PackageWritableByOthers", "Firmware package", "/" + kPackage + "] is writable by group or others",
     [](auto& t) { chmod((t.fw_ / kPackage).c_str(), 0646); }},
    {"PackageOfAnotherUser", "Firmware package", "/" + kPackage + "] is owned by user 65534",
     [](auto& t) { EXPECT_EQ(chown((t.fw_ / kPackage).c_str(), 65534, 65534), 0); }},
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

struct FirstBlockRow {
  std::string name;
  std::vector<std::string> sim;
  int first;
  std::chrono::milliseconds slept;
};
const FirstBlockRow kFirstBlocks[] = {
    {"PositionZero", {}, /*first=*/0, /*slept=*/0ms},        // a real answer
    {"NotYet", {"--first=-1"}, /*first=*/-1, /*slept=*/2s},  // ten polls, 200 ms apart
    // An error ends the polls with the last answer, and no retry.
    {"ErrorOnTheThirdPoll", {"--first=-1", "--error=GetFirstUpdateBlock@3"}, /*first=*/-1, /*slept=*/400ms},
};
class AFirstBlockQuery : public CamdBusTest, public ::testing::WithParamInterface<FirstBlockRow> {
 protected:
  int Ask() {
    StartSim(GetParam().sim);
    Helpers::VyrCamera camera("0", clock_);
    camera.Proxy().SendUpdateAvailable(2, 0, 100);
    return camera.GetFirstUpdateBlock();
  }
};

TEST_P(AFirstBlockQuery, ReturnsCamdsLastAnswerAfterTheDesignedPauses) {
  EXPECT_EQ(Ask(), GetParam().first);
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
}
INSTANTIATE_TEST_SUITE_P(Answers, AFirstBlockQuery, ValuesIn(kFirstBlocks), RowName<FirstBlockRow>);

struct StallRow {
  std::string name;
  std::vector<std::string> sim;
  const char* limit;  // QUORVEX_STALL_SECONDS
  int sends;
  std::chrono::milliseconds slept;
  int at;  // the block it gives up at
};
const StallRow kStalls[] = {
    // Every chunk lost: two rounds of ten polls (2 s each) reach a 4 s limit, which ends the loop then.
    {"EveryChunkLost", {"--loss-rate=1"}, /*limit=*/"4", /*sends=*/2, /*slept=*/4s, /*at=*/0},
    // No limit: a position named again and again, or error answers, are paced 0.2 s doubling up to 3.2 s,
    // and the eighth such round ends the loop.
    {"OnePositionForEver", {"--next=3-:128"}, /*limit=*/"0", /*sends=*/11, /*slept=*/12600ms, /*at=*/128},
    {"ErrorAnswers", {"--error=WaitForAck"}, /*limit=*/"0", /*sends=*/8, /*slept=*/12600ms, /*at=*/0},
    // An empty chunk at the end of the image moves nothing forward, however far it lies.
    {"EmptyChunksAtTheEnd", {"--next=3-:1000", "--ack-status=4-:0"}, "0", 11, 12600ms, /*at=*/1000},
};
class ABlockLoop : public CamdBusTest, public ::testing::WithParamInterface<StallRow> {
 protected:
  int Sends() {  // as the machine runs it, one block past the expected count at most
    StartSim(GetParam().sim);
    AddPackage(2, RandomBytes(1000, 3));
    setenv("QUORVEX_STALL_SECONDS", GetParam().limit, 1);
    Helpers::VyrCamera camera("0", clock_);
    int sends = 0;
    said_ = Stdout([&] {
      camera.CheckForUpdate();
      int block = camera.GetFirstUpdateBlock();
      for (; sends <= GetParam().sends && camera.SendFirmwareBlock(block); ++sends)
        if (camera.WaitForAck(0) != 1) block = camera.GetNextFirmwareBlock();
    });
    return sends;
  }
  std::string said_;
};

TEST_P(ABlockLoop, GivesUpAfterTheDesignedRounds) { EXPECT_EQ(Sends(), GetParam().sends); }

TEST_P(ABlockLoop, PausesOnlyAfterRoundsWithoutProgress) {
  Sends();
  EXPECT_EQ(clock_.Slept(), GetParam().slept);
}

TEST_P(ABlockLoop, SaysWhereItGaveUp) {
  Sends();
  const auto seconds = std::to_string(GetParam().slept / 1s), at = std::to_string(GetParam().at);
  EXPECT_THAT(said_, HasSubstr(kRed + "No progress for " + seconds + " s, at block [" + at +
                               "]; giving up the update"));
}
INSTANTIATE_TEST_SUITE_P(WithoutProgress, ABlockLoop, ValuesIn(kStalls), RowName<StallRow>);

struct ReadRow {
  std::string name;
  int block, packetSize;
  int sent;  // bytes camd receives, or -1
};
const ReadRow kReads[] = {
    {"EndingAtTheEnd", 936, 64, /*sent=*/64},
    {"RunningPastTheEnd", 960, 64, /*sent=*/40},
    {"StartingAtTheEnd", 1000, 64, /*sent=*/0},
    {"StartingPastTheEnd", 1001, 64, /*sent=*/-1},
    {"OfNoSize", 0, 0, /*sent=*/-1},
};
class AChunk : public CamdBusTest, public ::testing::WithParamInterface<ReadRow> {};

TEST_P(AChunk, IsSentAsFarAsTheImageGoes) {
  StartSim({});
  AddPackage(2, RandomBytes(1000, 7));
  Helpers::VyrCamera camera("0", clock_);
  Capture([&] { camera.CheckForUpdate(); });  // which opens the image
  camera.Proxy().packetSize = GetParam().packetSize;
  const std::size_t logged = sim_->Log().size();
  int sent = -1;
  Capture([&] { sent = camera.SendFirmwareBlock(GetParam().block); });
  EXPECT_EQ(sent, GetParam().sent >= 0);
  const std::string call = "SendFirmwareBlock position=" + std::to_string(GetParam().block);
  const std::string expected =
      "camd-sim[0]: " + call + " bytes=" + std::to_string(GetParam().sent) + " -> true\n";
  EXPECT_EQ(sim_->Log().substr(logged), GetParam().sent >= 0 ? expected : "");
}
INSTANTIATE_TEST_SUITE_P(AtTheEdges, AChunk, ValuesIn(kReads), RowName<ReadRow>);

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
const WholeRow kWholes[] = {
    {"EmptyImage", {}, 0},
    {"SevenLossesInARow", {"--lose-acks=1-70"}, 300},   // 64 -> 32 -> ... -> 1, and once more at 1
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

// Within a second only the line that completes the transfer goes out, and only once.
TEST_F(AServiceManager, HearsAtMostALineASecondBesidesTheLast) {
  NotifySocket notify(fw_ / "notify");
  setenv("NOTIFY_SOCKET", notify.path.c_str(), 1);
  ProgressNotifier progress("camera 7", clock_);
  progress.Report(10, 200);
  clock_.Advance(999ms);
  progress.Report(20, 200);
  clock_.Advance(1ms);
  progress.Report(30, 200);
  progress.Report(200, 200);
  progress.Report(200, 200);
  EXPECT_THAT(notify.Take(),
              ElementsAre("STATUS=camera 7: 10/200 bytes (5%)", "STATUS=camera 7: 30/200 bytes (15%)",
                          "STATUS=camera 7: 200/200 bytes (100%)"));
}

}  // namespace
}  // namespace Updater::Testing
