// The counter-link helper on one thread and a fake clock, the test (or the board simulator) playing the
// board: frames fed one read() at a time, the downlink read back from a FIFO.
#include "link.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "board.hpp"
#include "fake_clock.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "lc/downlink_frame.hpp"
#include "text.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using namespace VYRCam;
using namespace Updater::Testing;
using testing::ElementsAre;
using testing::HasSubstr;
using Updater::Helpers::Tallyvane;
using Bytes = std::vector<std::uint8_t>;

Bytes Frame(const Packet& packet) {  // 0xAA 0xA9 and the packed packet, as the board writes it
  Bytes out{0xAA, 0xA9};
  out.resize(2 + static_cast<std::size_t>(packet.Length()));
  packet.Pack(out.data() + 2);
  return out;
}
Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
Bytes Damaged(Bytes frame, std::size_t at) {
  frame[at] ^= 0x10;
  return frame;
}

class BoardHelperTest : public testing::Test {
 public:  // the table rows of kept texts drive the fixture from outside
  // The downlink device is a FIFO whose read end stays open, so that every write lands.
  explicit BoardHelperTest(bool concurrent = false) : helper(dir / "no-device", clock, concurrent) {
    mkfifo((dir / "downlink").c_str(), 0600);
    tap = open((dir / "downlink").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", dir.Write("board-version", "5\n").c_str(), 1);
  }
  ~BoardHelperTest() override { close(tap); }
  // The packets written since the last call, in order; each on the helper's channel.
  std::vector<Bytes> Sent() {
    Bytes got(1 << 16);
    got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(tap, got.data(), got.size()))));
    std::vector<Bytes> out;
    for (std::size_t at = 0, count = 0; at + lc::kDownlinkHeaderBytes <= got.size(); at += 5 + count) {
      EXPECT_TRUE(got[at] == 0xAA && got[at + 1] == 0xA9 && got[at + 2] == Tallyvane::kDownlinkChannel);
      count = got[at + 3] | (got[at + 4] << 8);
      out.emplace_back(got.begin() + at + 5, got.begin() + std::min(got.size(), at + 5 + count));
    }
    return out;
  }
  std::vector<int> SentTypes() {
    std::vector<int> types;
    for (const auto& packet : Sent()) types.push_back(packet[1]);
    return types;
  }
  void Feed(const Bytes& bytes) { helper.Link().Receive(bytes.data(), bytes.size()); }
  std::string Printed(const Bytes& bytes) {
    return Capture([&] { Feed(bytes); }).out;
  }
  void AckEverything() {
    for (auto sequence : helper.Sender().PendingSequences()) Feed(Frame(DatalinkPacketAck(sequence, true)));
  }
  TempDir dir;
  int tap = -1;
  FakeClock clock;
  Tallyvane helper;
};

class TheReceivePath : public BoardHelperTest {};

TEST_F(TheReceivePath, AnswersOnlyTheFirstCompletionWithApplyUpdate) {
  EXPECT_THAT(Printed(Frame(UpdateComplete())), HasSubstr("that the update has completed!"));
  EXPECT_THAT(SentTypes(), ElementsAre(kApplyUpdate));
  Feed(Frame(DatalinkPacketAck(0, true)));  // a second ApplyUpdate would go out at once
  EXPECT_EQ(Printed(Frame(UpdateComplete())), "");
  EXPECT_TRUE(Sent().empty());
}

TEST_F(TheReceivePath, TakesACompletionAsTheAcknowledgementOfTheLastBlockSent) {
  Feed(Frame(ReceivedFirmwareBlock(10, 20)));
  Printed(Frame(UpdateComplete()));
  EXPECT_EQ(helper.Board().State().lastAckedBlock, -1);
  EXPECT_EQ(helper.Board().State().nextBlock, -1);
}

// One read each. After a frame that does not unpack, every byte up to the next sync bytes (or the end of the
// read) costs a "CHOKE"; a packet without sync bytes in front is never taken.
struct ReadCase {
  std::string name;
  Bytes read;
  std::size_t chokes = 0;
  std::size_t gulps = 0;  // lines saying the rest of the read was dropped
  int next = -1;          // the position a report in the read asked for; -1 when none was taken
};
void PrintTo(const ReadCase& row, std::ostream* os) { *os << row.name; }
const Bytes kReport = Frame(ReceivedFirmwareBlock(-1, 128));
const Bytes kUnsynced(kReport.begin() + 2, kReport.end());
const Bytes kUnknown = Damaged(Frame(UpdateComplete()), 3);  // type 51, which no packet has
const Bytes kBadReport = Damaged(Frame(ReceivedFirmwareBlock(10, 20)), 14);

class ARead : public BoardHelperTest, public testing::WithParamInterface<ReadCase> {};

TEST_P(ARead, IsCutIntoFramesAtTheSyncBytes) {
  const auto out = Printed(GetParam().read);
  EXPECT_EQ(CountOf(out, "CHOKE\n"), GetParam().chokes);
  EXPECT_EQ(CountOf(out, "GULP; ignoring this frame's data\n"), GetParam().gulps);
  EXPECT_EQ(helper.Board().State().nextBlock, GetParam().next);
}

const ReadCase kReadCases[] = {
    {"TwoBytes", {0x01, 0x02}},
    {"FirstSyncByteAlone", Concat({{0xAA, 0x00}, kReport}), /*chokes=*/0, /*gulps=*/1},
    {"PacketWithoutSyncBytes", Concat({{0x12, 0x34}, kUnsynced}), /*chokes=*/0, /*gulps=*/1},
    {"NoiseAfterAFrame", Concat({kReport, {0x55, 0x66}, kReport}), /*chokes=*/0, /*gulps=*/1, /*next=*/128},
    {"UnknownType", Concat({kUnknown, kReport}), /*chokes=*/7, /*gulps=*/0, /*next=*/128},
    {"DamagedReport", Concat({kBadReport, kReport}), /*chokes=*/15, /*gulps=*/0, /*next=*/128},
    {"DamagedThenUnsynced", Concat({kBadReport, {0x12}, kUnsynced}), /*chokes=*/29, /*gulps=*/0},
};
INSTANTIATE_TEST_SUITE_P(Reads, ARead, testing::ValuesIn(kReadCases), RowName<ReadCase>);

class TheSendPath : public BoardHelperTest {
 protected:
  void SendTwo() {  // both want an acknowledgement
    RequestUpdateInfo request;
    ClearPendingUpdate clear;
    helper.Sender().SendPacket(request);
    helper.Sender().SendPacket(clear);
  }
};

TEST_F(TheSendPath, ResendsTheOldestPacketEachTimeItHasWaitedMoreThanThreeSeconds) {
  SendTwo();
  Sent();
  const auto resent = [&](std::chrono::nanoseconds wait) {  // the packets sent again after `wait`
    clock.Advance(wait);
    Capture([&] { helper.Sender().ResendExpired(); });
    return SentTypes();
  };
  EXPECT_THAT(resent(3000ms), ElementsAre());
  EXPECT_THAT(resent(1ns), ElementsAre(kRequestUpdateInfo));
  EXPECT_THAT(resent(3000ms), ElementsAre());
  EXPECT_THAT(resent(1ns), ElementsAre(kRequestUpdateInfo));
}

TEST_F(TheSendPath, RemovesOnlyThePacketAcknowledgedAsOk) {
  SendTwo();
  Feed(Concat({Frame(DatalinkPacketAck(0, false)), Frame(DatalinkPacketAck(9, true))}));
  EXPECT_EQ(helper.Sender().PendingSequences(), (Bytes{0, 1}));
  Feed(Frame(DatalinkPacketAck(1, true)));
  EXPECT_EQ(helper.Sender().PendingSequences(), (Bytes{0}));
}

class TheAckWait : public BoardHelperTest {
 protected:
  int SendAndWait(bool reported) {  // for one chunk, which the board acknowledges and reports or ignores
    int status = -1;
    Capture([&] {
      helper.Mode().SendBlock(0, Bytes(4, 0x5A));
      if (reported) AckEverything();
      if (reported) Feed(Frame(ReceivedFirmwareBlock(helper.Board().State().lastSentBlock, 0)));
      status = helper.WaitForAck(0);
    });
    return status;
  }
};

TEST_F(TheAckWait, FailsAndEmptiesTheQueueWhenTheChunkIsNotReported) {
  EXPECT_EQ(SendAndWait(/*reported=*/false), 1);
  EXPECT_EQ(helper.Sender().PendingCount(), 0u);
}

TEST_F(TheAckWait, TriesThreeTimesAFiveSecondPollAndTwelvePauses) {
  SendAndWait(/*reported=*/false);
  EXPECT_EQ(clock.Slept(), 3 * (167 * 30ms + 12 * 250ms));  // 167 polls of 30 ms are the first past 5 s
}

TEST_F(TheAckWait, DoublesThePacketSizeFromOneWithEachReportedChunkUpToSixtyFour) {
  SendAndWait(/*reported=*/false);  // which drops it to one
  for (int expected : {2, 4, 8, 16, 32, 64, 64}) {
    EXPECT_EQ(SendAndWait(/*reported=*/true), 0);
    EXPECT_EQ(helper.Mode().PacketSize(), expected);
  }
}

// Texts that look like slips but are kept on purpose, each pinned where the board helper prints it: a "fix"
// fails here. A row names what makes the helper print its text, on either stream.
struct KeptText {
  std::string name;
  std::function<Captured(BoardHelperTest&)> print;
  std::string text;
};
void PrintTo(const KeptText& row, std::ostream* os) { *os << row.name; }

class AKeptText : public TheAckWait, public testing::WithParamInterface<KeptText> {};

TEST_P(AKeptText, IsPrintedAsItAlwaysWas) {
  const Captured printed = GetParam().print(*this);
  EXPECT_THAT(printed.out + printed.err, HasSubstr(GetParam().text));
}

Captured UnackedWait(BoardHelperTest& t) {
  return Capture([&] {
    t.helper.Mode().SendBlock(0, Bytes(4, 0x5A));
    t.helper.WaitForAck(0);
  });
}
Captured ChunkSent(BoardHelperTest& t) {
  return Capture([&] { t.helper.Mode().SendBlock(0, Bytes(4, 0x5A)); });
}
Captured Completion(BoardHelperTest& t) {
  return Capture([&] { t.Feed(Frame(UpdateComplete())); });
}
Captured ExpiredRequest(BoardHelperTest& t) {
  RequestUpdateInfo request;
  t.helper.Sender().SendPacket(request);
  t.clock.Advance(3001ms);
  return Capture([&] { t.helper.Sender().ResendExpired(); });
}
Captured ImageChecked(BoardHelperTest& t) {
  t.dir.Write("tallyvane-7.bin", "abc");
  t.Feed(Frame(UpdateInfo(0, 0, 64, 1)));
  return Capture([&] { t.helper.CheckForUpdate(); });
}

const KeptText kKeptTexts[] = {
    {"BoardNameMisspelt", UnackedWait, "[Talyvane] waiting for ACK!\n"},
    {"BlackForBlock", UnackedWait, "Returning without firmware black ACK!\n"},
    {"OtherProductsQueue", UnackedWait, "Clearing Vexalume packet queue"},
    {"BlockNumLiteral", ChunkSent, "** Sending bytes from [blockNum()] to [3]\n"},
    {"BracketNeverClosed", Completion, "Last acked block: [-1], last sent block: [-1, setting them equal.\n"},
    {"CameraNameForTheBoard", ExpiredRequest, "VYR cam expired ACK [#0], resending.\n"},
    {"StaleLocationTag", ImageChecked,
     "[uint16_t Updater::Helpers::Tallyvane::tallyvane_checksum(const char*, size_t)::542]  "},
};
INSTANTIATE_TEST_SUITE_P(Texts, AKeptText, testing::ValuesIn(kKeptTexts), RowName<KeptText>);

class TheUpdateCheck : public BoardHelperTest {};

TEST_F(TheUpdateCheck, GivesUpAfter102PollsOfASilentBoard) {
  Capture([&] { EXPECT_EQ(helper.CheckForUpdate(), 0); });
  EXPECT_EQ(clock.Slept(), 102 * 100ms);
}

// An update of a 1000-byte image announced to a board that has answered already.
class AnAnnouncedImage : public BoardHelperTest {
 protected:
  explicit AnAnnouncedImage(bool concurrent = false) : BoardHelperTest(concurrent) {
    dir.Write("tallyvane-7.bin", RandomBytes(1000, 5));
    Feed(Frame(UpdateInfo(0, 0, 64, 1)));
    Capture([&] { EXPECT_EQ(helper.CheckForUpdate(), 1); });
    AckEverything();
  }
};

TEST_F(AnAnnouncedImage, IsSentAsAnEmptyChunkAtItsEnd) {
  Capture([&] { EXPECT_EQ(helper.SendFirmwareBlock(1000), 1); });
}

TEST_F(AnAnnouncedImage, HasNoChunkPastItsEnd) {
  Capture([&] { EXPECT_EQ(helper.SendFirmwareBlock(1001), 0); });
}

TEST_F(AnAnnouncedImage, IsRefusedWhenAFifoTakesItsPlace) {
  const std::string path = dir / "tallyvane-7.bin";
  unlink(path.c_str());
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto out = Capture([&] { EXPECT_EQ(helper.SendFirmwareBlock(0), 0); }).out;
  EXPECT_THAT(out, HasSubstr("Firmware package [" + path + "] is not a regular file; not updating"));
}

TEST_F(AnAnnouncedImage, IsReadThroughALinkToAnotherNameInItsDirectory) {
  std::filesystem::rename(dir / "tallyvane-7.bin", dir / "tallyvane-7.real");
  std::filesystem::create_symlink("tallyvane-7.real", dir / "tallyvane-7.bin");
  Capture([&] { EXPECT_EQ(helper.SendFirmwareBlock(0), 1); });
}

TEST_F(AnAnnouncedImage, IsRefusedInADirectoryOthersMayWrite) {
  chmod(dir.path().c_str(), 0703);
  const auto out = Capture([&] { EXPECT_EQ(helper.SendFirmwareBlock(0), 0); }).out;
  EXPECT_THAT(out, HasSubstr("Firmware directory [" + dir.path() + "] is writable by group or others"));
}

// The concurrent mode's stall limit of two seconds, on the fake clock: the board asked for the first chunk
// and is silent from then on. Its update information came at once, so the first wait is the floor of 50 ms,
// and each silent one doubles the next.
class AConcurrentUpdate : public AnAnnouncedImage {
 protected:
  AConcurrentUpdate() : AnAnnouncedImage(/*concurrent=*/true) {}
  static void SetUpTestSuite() { setenv("QUORVEX_STALL_SECONDS", "2", 1); }
};

TEST_F(AConcurrentUpdate, SendsTheAnnouncementAsSoonAsTheRequestBeforeItIsAcknowledged) {
  EXPECT_THAT(SentTypes(), ElementsAre(kRequestUpdateInfo, kUpdateAvailable));
}

TEST_F(AConcurrentUpdate, WaitsEverLongerForASilentBoardUntilTheStallLimit) {
  Feed(Frame(ReceivedFirmwareBlock(-1, 0)));
  const auto start = clock.Monotonic();
  int sent = 0;
  Capture([&] {
    for (; sent < 20 && helper.SendFirmwareBlock(0); ++sent) helper.WaitForAck(0);
  });
  EXPECT_EQ(sent, 6) << "50, 100, 200, 400 and 800 ms, then the 450 ms the limit leaves";
  EXPECT_EQ(clock.Monotonic() - start, 2s);
}

// The board asked for the first chunk; every packet is acknowledged as soon as the helper waits, and the
// board reports a chunk only when the test says so.
class AConcurrentUpdateWithLostReports : public AConcurrentUpdate {
 protected:
  AConcurrentUpdateWithLostReports() {
    Feed(Frame(ReceivedFirmwareBlock(-1, 0)));
    clock.onSleep = [this] {
      AckEverything();
      if (report_) Feed(Frame(*report_));
      report_.reset();
    };
  }
  ~AConcurrentUpdateWithLostReports() override { clock.onSleep = nullptr; }
  // Sends the chunk at `position` and waits for it; `report` is the board's answer, if any.
  int SendAndWait(int position, std::optional<ReceivedFirmwareBlock> report = std::nullopt) {
    report_ = std::move(report);
    int status = -1;
    Capture([&] {
      if (helper.SendFirmwareBlock(position) == 1)
        status = helper.WaitForAck(static_cast<unsigned>(position));
    });
    return status;
  }
  std::optional<ReceivedFirmwareBlock> report_;
};

// Its report came too late for the chunk, sent again at half the size: a board asking past that half holds
// the bytes in between, unreported, and gets them again at once.
TEST_F(AConcurrentUpdateWithLostReports, SendsAtOnceTheBytesTheBoardHoldsPastTheReportedChunk) {
  ASSERT_EQ(SendAndWait(0), 1);  // bytes 0 to 63, not reported
  ASSERT_EQ(SendAndWait(0, ReceivedFirmwareBlock(31, 64)), 0);
  EXPECT_EQ(helper.GetNextFirmwareBlock(), 32);
}

TEST_F(AConcurrentUpdateWithLostReports, GoesWhereTheBoardAsksWhenItAsksForTheByteAfterTheChunk) {
  ASSERT_EQ(SendAndWait(0), 1);
  ASSERT_EQ(SendAndWait(0, ReceivedFirmwareBlock(31, 32)), 0);
  EXPECT_EQ(helper.GetNextFirmwareBlock(), 32);
}

TEST_F(AConcurrentUpdateWithLostReports, GoesWhereTheBoardAsksPastBytesItReportedBefore) {
  ASSERT_EQ(SendAndWait(64, ReceivedFirmwareBlock(127, 0)), 0);
  ASSERT_EQ(SendAndWait(0, ReceivedFirmwareBlock(63, 128)), 0);
  EXPECT_EQ(helper.GetNextFirmwareBlock(), 128);
}

// The image's last chunk (960 to 999) goes again whole when its report is lost; any other chunk at half the
// size.
TEST_F(AConcurrentUpdateWithLostReports, KeepsTheSizeOfTheLastChunkAfterALostReport) {
  ASSERT_EQ(SendAndWait(960), 1);
  EXPECT_EQ(helper.Mode().PacketSize(), 64);
}

TEST_F(AConcurrentUpdateWithLostReports, HalvesAChunkBeforeTheLastAfterALostReport) {
  ASSERT_EQ(SendAndWait(896), 1);
  EXPECT_EQ(helper.Mode().PacketSize(), 32);
}

// The helper against the board simulator (faults named as on its command line), which answers whenever the
// helper waits, driven as the machine drives it. The board judges the image by announced length and byte sum.
const char* const kOk = "VERDICT ok bytes=[0-9]+ checksum=[0-9a-f]{4} version=7";
struct BoardCase {
  std::string name;
  std::vector<std::string> simArgs;
  std::size_t chunks;             // firmware blocks the board received; none when nothing was announced
  std::string verdict;            // a pattern for the board's verdict; empty when it gave none
  std::size_t replacedBy = 0;     // bytes of another image written over it after the check; 0: none
  std::size_t imageBytes = 1000;  // of version 7, against the board's 5
};
void PrintTo(const BoardCase& row, std::ostream* os) { *os << row.name; }

class AnUpdateOfTheSimulatedBoard : public BoardHelperTest, public testing::WithParamInterface<BoardCase> {
 protected:
  void SetUp() override {
    std::vector<std::string> args = {"tallyvane-sim",   "--uplink", "u",     "--downlink",        "d",
                                     "--board-version", "5",        "--out", dir / "received.bin"};
    args.insert(args.end(), GetParam().simArgs.begin(), GetParam().simArgs.end());
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    tallyvane_sim::Options options;
    bool help = false;
    std::string error;
    ASSERT_TRUE(
        tallyvane_sim::ParseOptions(static_cast<int>(argv.size()), argv.data(), options, help, error));
    dir.Write("board-version", std::to_string(options.boardVersion));
    image = RandomBytes(GetParam().imageBytes, 9);
    dir.Write("tallyvane-7.bin", image);
    int uplink[2];  // the board's frames, all read at once as the receive loop would
    ASSERT_EQ(pipe2(uplink, O_NONBLOCK | O_CLOEXEC), 0);
    const tallyvane_sim::Say say = [&](const std::string& line) {
      if (line.rfind("VERDICT", 0) == 0) verdict += line;
      if (line.rfind("VERDICT", 0) != 0) said += line + "\n";
    };
    tallyvane_sim::UplinkWriter writer(uplink[1], options, say);
    tallyvane_sim::Board board(
        options, [&](Bytes p, auto delay, std::string what) { writer.Queue(p, delay, what); }, say);
    clock.onSleep = [&] {
      if (clock.Slept() > 10h) throw std::runtime_error("the helper waits for ever");
      for (const auto& packet : Sent()) board.OnFrame(lc::kPacketChannel, packet);
      writer.Flush();
      Bytes got(1 << 16);
      got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(uplink[0], got.data(), got.size()))));
      helper.Link().Receive(got.data(), got.size());
    };
    Capture([&] { UpdateToTheEnd(); });
    clock.onSleep = nullptr;
    close(uplink[0]);
    close(uplink[1]);
  }
  void UpdateToTheEnd() {  // or to a failure
    try {
      if (helper.CheckForUpdate() != 1) return;
      if (GetParam().replacedBy > 0) dir.Write("tallyvane-7.bin", RandomBytes(GetParam().replacedBy, 10));
      for (int block = helper.GetFirstUpdateBlock(); helper.SendFirmwareBlock(block);) {
        if (helper.WaitForAck(block) != 0) continue;
        block = helper.GetNextFirmwareBlock();
        if (block == -1) break;
      }
    } catch (const std::runtime_error& e) {
      ADD_FAILURE() << e.what();
    }
  }
  std::string image, said, verdict;
};

TEST_P(AnUpdateOfTheSimulatedBoard, AnnouncesOnceAndSendsAsManyChunksAsItsFaultsCost) {
  EXPECT_EQ(CountOf(said, "RX UpdateAvailable"), GetParam().chunks > 0 ? 1u : 0u);
  EXPECT_EQ(CountOf(said, "RX FirmwareBlock"), GetParam().chunks);
}

TEST_P(AnUpdateOfTheSimulatedBoard, EndsWithTheBoardsVerdict) {
  EXPECT_THAT(verdict, testing::MatchesRegex(GetParam().verdict));
  EXPECT_EQ(ReadFile(dir / "received.bin") == image, GetParam().verdict == kOk);
}

const BoardCase kBoardCases[] = {
    {"Clean", {}, /*chunks=*/16, kOk},
    {"LargeImage", {}, /*chunks=*/3125, kOk, /*replacedBy=*/0, /*imageBytes=*/200000},
    {"ImageOfTheBoardsVersion", {"--board-version", "7"}, /*chunks=*/0, ""},
    {"StartMidImage", {"--start", "600"}, /*chunks=*/17, kOk},  // up to the end, then from 0
    {"ReportDropped", {"--drop-reports", "5"}, /*chunks=*/17, kOk},
    {"AcknowledgementDropped", {"--drop-ack-every", "5"}, /*chunks=*/3, ""},  // the next chunk waits
    {"ErrorMidWay", {"--error-after", "3"}, /*chunks=*/3, ""},
    {"ImageReplaced", {}, /*chunks=*/16, "VERDICT bad-checksum bytes=1000 .*", /*replacedBy=*/1000},
    {"ImageGrown", {}, /*chunks=*/16, "VERDICT bad-length bytes=1001 expected=1000", /*replacedBy=*/1001},
};
INSTANTIATE_TEST_SUITE_P(Faults, AnUpdateOfTheSimulatedBoard, testing::ValuesIn(kBoardCases),
                         RowName<BoardCase>);

}  // namespace
