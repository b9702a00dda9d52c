// The camd client and the camera helper in process against camd-sim, on a fake clock (no real waits).
#include <gmock/gmock.h>

#include "camd_fixture.hpp"
#include "dbus/camd_methods.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "notify_socket.hpp"
#include "sm/update_machine.hpp"

namespace Updater::Testing {
namespace {

using namespace std::chrono_literals;
// Every method that answers; the first seven fail with `failure` after five tries. Wrong-typed, each swaps b and i.
const struct { std::string name; long failure; std::function<long(Helpers::CamdDbusIface&)> call; } kCalls[] = {
    {"GetCameraFirmwareVersion", -1, [](auto& c) { return c.GetCameraFirmwareVersion(); }},
    {"GetPreviouslyDownloadedChunks", -1, [](auto& c) { return c.GetPreviouslyDownloadedChunks(); }},
    {"GetFlashRegion", -1, [](auto& c) { return c.GetFlashRegion(); }},
    {"UpdateInfoReceived", 0, [](auto& c) { return c.UpdateInfoReceived(); }},
    {"GetNextFirmwareBlock", -1, [](auto& c) { return c.GetNextFirmwareBlock(); }},
    {"SendUpdateAvailable", 0, [](auto& c) { return c.SendUpdateAvailable(1, 2, 3); }},
    {"SendFirmwareBlock", 0, [](auto& c) { return c.SendFirmwareBlock(0, {1, 2}); }},
    {"GetFirstUpdateBlock", 0, [](auto& c) { return c.GetFirstUpdateBlock(); }},
    {"WaitForAck", 0, [](auto& c) { return c.WaitForAck(); }}};

// Client and camd-sim both build their calls from the table: only the published interface can tell a wrong signature.
TEST(CamdMethodTable, MatchesTheDocumentedInterface) {
  const std::string xml = ReadFile(FWU_SOURCE_DIR "/docs/camd-firmware.xml");
  ASSERT_NE(xml.find(std::string("<interface name=\"") + Camd::kInterface + "\">"), std::string::npos);
  // The attribute value whose opening quote is at `q`.
  const auto quoted = [](const std::string& text, std::size_t q) { return text.substr(q + 1, text.find('"', q + 1) - q - 1); };
  std::string documented, table;
  for (auto at = xml.find("<method name="); at != std::string::npos; at = xml.find("<method name=", at + 1)) {
    const std::string block = xml.substr(at, xml.find("</method>", at) - at);
    std::string sig[2];  // in, out
    for (auto t = block.find("type="); t != std::string::npos; t = block.find("type=", t + 1))
      sig[quoted(block, block.find("direction=", t) + 10) == "out"] += quoted(block, t + 5);
    documented += quoted(block, 13) + "(" + sig[0] + ")" + sig[1] + (CountOf(block, "Method.NoReply") ? " noreply\n" : "\n");
  }
  for (const auto& m : Camd::kMethods)
    table += m.name + ("(" + std::string(m.in) + ")") + m.out + (m.reply == Camd::Reply::None ? " noreply\n" : "\n");
  EXPECT_EQ(documented, table);
}

// Five tries for a call that fails, the last answer counting; none for a reply of the wrong type; the index text as typed.
TEST_F(CamdBusTest, CallsTriesAndReplyTypes) {
  StartSim({"--camera=0", "--camera=12", "--camera=03", "--version=7", "--region=3", "--error=GetFlashRegion@1-4"});
  // Alone in its process (ctest) the first is the first bring-up; in one binary with the others it may not be.
  const bool before = Dbus::Initialized();
  std::unique_ptr<Helpers::VyrCamera> c;  // the last, camera 0, for the rest
  for (const std::string index : {"12", "03", "0"}) {
    EXPECT_EQ(Capture([&] { c = std::make_unique<Helpers::VyrCamera>(index, clock_); }).out,
              index == "12" && !before ? "Initializing dbus-cxx\n" : "dbus-cxx already initialized\n");
    EXPECT_TRUE(c->Proxy().SendUpdateAvailable(4, 0, 0) && CountOf(sim_->Log(), "[" + index + "]: SendUpdateAvailable")) << index;
  }
  auto& camd = c->Proxy();
  int version = 0, chunks = -1, region = 0;
  const auto run = Capture([&] {
    version = camd.GetCameraFirmwareVersion(), chunks = camd.GetPreviouslyDownloadedChunks(), region = camd.GetFlashRegion();
  });
  const std::string failed = "Dbus::Error: injected failure of GetFlashRegion\n", errors = failed + failed + failed + failed;
  EXPECT_EQ(std::make_tuple(run.out, run.err, version, region, chunks),
            std::make_tuple("Asking camd for firmware version\nAsking camd for downloaded chunks\n", errors, 7, 3, 0));
  // camd-sim registers `iii` and `iay`; the bus refuses a body of other types.
  EXPECT_TRUE(camd.SendUpdateAvailable(5, 0xFFFF, 0) && camd.SendUpdateAvailable(-2, 0, 2147483647) &&
              camd.SendFirmwareBlock(0, {}) && camd.SendFirmwareBlock(-1, {0x00, 0xff, 0x80}));
  for (const std::string line : {"SendUpdateAvailable version=5 checksum=65535 length=0", "SendFirmwareBlock position=0 bytes=0",
                                 "SendUpdateAvailable version=-2 checksum=0 length=2147483647", "SendFirmwareBlock position=-1 bytes=3"})
    EXPECT_EQ(CountOf(sim_->Log(), line + " -> true"), 1u) << line;

  std::vector<std::string> wrong;
  for (const auto& c : kCalls) wrong.push_back("--wrong-type=" + c.name);
  StartSim(wrong);
  for (const auto& c : kCalls) {
    std::string what;  // a std::exception: inside the machine it reaches the exception hook
    const auto err = Capture([&] { try { c.call(camd); } catch (const std::exception& e) { what = e.what(); } }).err;
    EXPECT_THAT(what, ::testing::HasSubstr(c.name));
    EXPECT_EQ(std::make_tuple(CountOf(err, "Dbus::Error: "), SimCalls(c.name)), std::make_tuple(0u, 1u)) << c.name << err;
  }
}

// camd absent, an index refused as a path element, an unreachable bus: a failed try of every call, never an abort.
TEST_F(CamdBusTest, UnreachableCamdFailsEveryCallAfterFiveTries) {
  // noReplyErrors: of three calls; lock: the index as the lock file names it
  const struct { std::string index, address, error; std::size_t noReplyErrors; std::string lock; } rows[] = {
      {"0", "", "The name com.quorvex.common.Camd1 was not provided", 0, "0"},
      {"a-b ü", "", "Invalid object path '/com/quorvex/common/Camd1/Cameraa-b ü'", 15, "a-b%20%C3%BC"},
      {"0", "unix:path=/nonexistent/bus", "Failed to open bus (No such file or directory) at [unix:path=/nonexistent/bus]", 15, "0"},
      // The longest plain name NAME_MAX allows; one too long for a file name, cut short with the FNV-1a hash
      // of the whole index.
      {std::string(226, 'b'), "", "The name com.quorvex.common.Camd1 was not", 0, std::string(226, 'b')},
      {std::string(300, 'a'), "", "The name com.quorvex.common.Camd1 was not", 0,
       std::string(209, 'a') + "+EE7717EBA7A17E21"},
  };
  // Readable by others, as an older run may have left it: whoever can open it can lock it.
  std::filesystem::permissions(fw_.Write("firmware-updater-camera-0.lock"), std::filesystem::perms(0644));
  const std::string bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    if (!row.address.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", row.address.c_str(), 1);
    Helpers::VyrCamera camera(row.index, clock_);
    for (std::size_t i = 0; i < 7; ++i) {
      long result = 42;
      const auto err = Capture([&] { result = kCalls[i].call(camera.Proxy()); }).err;
      EXPECT_EQ(std::make_tuple(result, CountOf(err, "Dbus::Error: "), CountOf(err, "Dbus::Error: " + row.error)),
                std::make_tuple(kCalls[i].failure, 5u, 5u)) << err;
    }
    // Nobody waits for an answer that is never asked for; only a local failure counts.
    auto& camd = camera.Proxy();
    const auto err = Capture([&] { camd.RequestUpdateInfo(), camd.ClearPendingUpdate(), camd.DequeuePacket(); }).err;
    EXPECT_EQ(CountOf(err, "Dbus::Error: "), row.noReplyErrors) << err;
    EXPECT_THAT(Capture([&] { EXPECT_EQ(camera.CheckForUpdate(), 0); }).err,  // as with camd absent
                ::testing::HasSubstr("Error asking camd for update info status, not updating\n"));
    EXPECT_EQ(std::filesystem::status(fw_ / ("firmware-updater-camera-" + row.lock + ".lock")).permissions(),
              std::filesystem::perms(0600));
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
  }
}

TEST_F(CamdBusTest, AckWaitAdaptsThePacketSize) {
  const std::string lost = "Caught ACK timeout! Still waiting...\n", injected = "Exception caught: [com.quorvex.common.Camd1."
      "Error.Injected] injected failure of WaitForAck\n", drop = "camd ACK status: 1\n********************* Dropping packet size to [";
  // out: after "camd waiting for ACK!\n"
  const struct { std::vector<std::string> sim; int size, status, end; std::string out, err; std::size_t polls, dequeues, sleeps; } rows[] = {
      {{"--lose-acks=1-10"}, 2, 1, 1, drop + "1]\n", lost, 10, 1, 10},
      {{"--lose-acks=1-10"}, 1, 1, 1, drop + "1]\n", lost, 10, 1, 10},  // the floor holds
      // Not a halving of 64 but below the ceiling: it doubles past 64.
      {{}, 63, 0, 126, "camd ACK status: 0\nBumping packet size to [126]\n", "", 1, 0, 0},
      {{"--ack-status=1-:5"}, 64, 5, 64, "camd ACK status: 5\n", "", 10, 0, 10},
      {{"--error=WaitForAck@1"}, 64, 1, 32, injected + drop + "32]\n", lost, 1, 1, 0},
      // Once camd has said the image is complete, a later error cannot make it a loss.
      {{"--ack-status=1:3", "--error=WaitForAck@2"}, 64, 3, 64, injected + "camd ACK status: 3\n", "", 2, 0, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.out);
    StartSim(row.sim);
    FakeClock clock;
    Helpers::VyrCamera camera("0", clock);
    auto& camd = camera.Proxy();
    camd.packetSize = row.size;
    camd.SendUpdateAvailable(2, 0, 1000);
    camd.SendFirmwareBlock(0, std::vector<unsigned char>(64, 1));  // something to acknowledge
    int status = -1;
    const auto run = Capture([&] { status = camd.WaitForAck(); });
    camd.GetFlashRegion();  // answered, so camd has handled any DequeuePacket sent before it
    EXPECT_EQ(std::make_tuple(run.out, run.err, status, camd.packetSize, SimCalls("WaitForAck"), SimCalls("DequeuePacket")),
              std::make_tuple("camd waiting for ACK!\n" + row.out, row.err, row.status, row.end, row.polls, row.dequeues));
    EXPECT_EQ(clock.Slept(), row.sleeps * 200ms);
  }
}

// What the update check decides and announces, the first block, and the stall limit on the check and on the block loop.
TEST_F(CamdBusTest, UpdateCheckFirstBlockAndStallLimit) {
  static constexpr const char* package = "camera-region0-2.bin";
  static constexpr const char* lock = "firmware-updater-camera-0.lock";
  ASSERT_EQ(ReferenceCrc("123456789"), "29b1");  // the catalogue check value
  const auto large = RandomBytes(3 * 65536 + 1234, 42);  // several checksum pieces, ending mid-piece
  const std::string red = "\033[0;31mfw-updater Debug: [ERROR] -- ", reset = "\033[0m\n";
  const std::string gaveUp = " s, at block [0]; giving up the update" + reset;
  // out: found on standard output or error; sends: of a block loop after the check, when any; images past the large one are sparse
  const struct { std::vector<std::string> sim; std::uintmax_t imageBytes; const char* stallSeconds; int update; std::string out;
                 std::size_t infoPolls; int sends; std::chrono::milliseconds slept; int first = 0;
                 std::size_t firstCalls = 1; void (*tamper)(CamdBusTest&) = nullptr; } rows[] = {
      // Not newer; older, a real -1. Asked twice: the comparison uses the first answer, the log the second.
      {{"--version=2"}, 100, nullptr, 0, "Asking camd for firmware version\nFile version: 2\nAsking camd for firmware version\n"
       "Cam version: 2\n", 1, 0, 0s},
      {{"--version=-1"}, 100, nullptr, 1, "File version: 2\nAsking camd for firmware version\nCam version: -1\n", 1, 0, 0s},
      {{"--version=5", "--error=GetCameraFirmwareVersion@1-5"}, 100, nullptr, 0,
       "Cam version: 5\n" + red + "The camera's firmware version could not be read, so the camera is not updated" + reset, 1, 0, 0s},
      {{}, 1ull << 31, nullptr, 0, "] is 2147483648 bytes, more than camd can address; not updating" + reset, 1, 0, 0s},
      // The 102nd and last answer about the update info still counts.
      {{"--info-false=101"}, large.size(), nullptr, 1, "\nChecksum:" + ReferenceCrc(large) +
       "\nThis file [304d2] contains [304d2] chunks of [40]\n", 102, 0, 101 * 100ms},
      {{"--info-false=forever"}, 100, "5", 0, "Error asking camd for update info status, not updating\n", 50, 0, 5s},  // 50 polls
      // Every chunk lost: two rounds of ten polls (2 s each) reach a 4 s limit, which ends the loop then.
      {{"--loss-rate=1"}, 1000, "4", 1, red + "No progress for 4" + gaveUp, 1, 2, 4s},
      // No limit: the same chunk acknowledged again and again, or error answers, are paced 0.2 s doubling
      // up to 3.2 s, and the eighth such round ends the loop.
      {{}, 1000, "0", 1, red + "No progress for 12" + gaveUp, 1, 9, 12600ms},
      {{"--error=WaitForAck"}, 1000, "0", 1, red + "No progress for 12" + gaveUp, 1, 8, 12600ms},
      // Not yet: ten polls, 200 ms apart. An error on the third poll ends them with the last answer, and no retry.
      {{"--first=-1"}, 100, nullptr, 1, "Checksum:", 1, 0, 2s, -1, 10},
      {{"--first=-1", "--error=GetFirstUpdateBlock@3"}, 100, nullptr, 1, "Dbus::Error: injected failure of GetFirstUpdateBlock\n",
       1, 0, 400ms, -1, 3},
      // Another run holds the lock: the wait ends when it reaches the stall limit, not later. <dir>: the
      // firmware and lock directory. What another user could have written is refused at once.
      {{}, 100, "5", 0, red + "Another update of camera [0] has held the lock for 5 s; not updating",
       0, 0, 5s, 0, 1, [](CamdBusTest& t) { t.HoldLock(); }},
      {{}, 100, "5", 0, red + "Lock file [<dir>/" + lock + "] is owned by user 65534; not updating",
       0, 0, 0s, 0, 1, [](CamdBusTest& t) { t.HoldLock(65534); }},
      {{}, 100, nullptr, 0, red + "Lock directory [<dir>] is writable by group or others; not updating",
       0, 0, 0s, 0, 1, [](CamdBusTest& t) { chmod(t.fw_.path().c_str(), 0770); }},
      {{}, 100, nullptr, 0, red + "Lock file [<dir>/" + lock + "] is not a regular file; not updating",
       0, 0, 0s, 0, 1, [](CamdBusTest& t) { mkfifo((t.fw_ / lock).c_str(), 0600); }},
      {{}, 100, nullptr, 0, red + "Firmware package [<dir>/" + package + "] is writable by group or others",
       1, 0, 0s, 0, 1, [](CamdBusTest& t) { chmod((t.fw_ / package).c_str(), 0646); }},
      {{}, 100, nullptr, 0, red + "Firmware package [<dir>/" + package + "] is owned by user 65534",
       1, 0, 0s, 0, 1, [](CamdBusTest& t) { EXPECT_EQ(chown((t.fw_ / package).c_str(), 65534, 65534), 0); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.out);
    chmod(fw_.path().c_str(), 0700);  // as a row before may have left them
    for (const char* name : {package, lock}) std::filesystem::remove(fw_ / name);
    StartSim(row.sim);
    std::filesystem::resize_file(AddPackage(2, row.imageBytes == large.size() ? large : RandomBytes(1000, 3)), row.imageBytes);
    row.stallSeconds ? setenv("QUORVEX_STALL_SECONDS", row.stallSeconds, 1) : unsetenv("QUORVEX_STALL_SECONDS");
    if (row.tamper) row.tamper(*this);
    FakeClock clock;
    Helpers::VyrCamera camera("0", clock);
    int update = -1, sends = 0, first = 1;
    const auto run = Capture([&] {
      update = camera.CheckForUpdate();
      first = camera.GetFirstUpdateBlock();
      // One block past the expected count at most: a loop that would not end fails instead.
      for (; row.sends && sends <= row.sends && camera.SendFirmwareBlock(first); ++sends) camera.WaitForAck(0);
    });
    ReleaseLock();
    std::string out = row.out;
    if (const auto at = out.find("<dir>"); at != std::string::npos) out.replace(at, 5, fw_.path());
    EXPECT_THAT(run.out + run.err, ::testing::HasSubstr(out));
    // Position 0 is a real answer: one call, no pause. Asked once, however many polls.
    EXPECT_EQ(std::make_tuple(update, SimCalls("UpdateInfoReceived"), SimCalls("SendUpdateAvailable"), sends, clock.Slept() / 1ms,
                              first, SimCalls("GetFirstUpdateBlock"), CountOf(run.out, "Asking camd for first update block (really)\n")),
              std::make_tuple(row.update, row.infoPolls, std::size_t(row.update), row.sends, row.slept.count(), row.first,
                              row.firstCalls, 1u));
  }
}

TEST_F(CamdBusTest, BlockReadsAtTheEdgesOfTheFile) {
  StartSim({});
  AddPackage(2, RandomBytes(1000, 7));
  Helpers::VyrCamera camera("0", clock_);
  Capture([&] { EXPECT_EQ(camera.CheckForUpdate(), 1); });  // which opens the image
  const std::string past = "extends past file (length [1000]), this should be the last chunk!\n",
                    shortRead = "Couldn't read full [64] bytes into chunk, only read [";
  const struct { int block, packet, result, sent; std::string out, err; } rows[] = {  // sent: bytes camd receives, or -1
      {960, 64, 1, 40, "This block: [3c0], blockSize: [40]\n", "Chunk #[960] " + past + shortRead + "40] bytes.\n"},
      {1000, 64, 1, 0, "This block: [3e8], blockSize: [40]\n", "Chunk #[1000] " + past + shortRead + "0] bytes.\n"},
      {1001, 64, 0, -1, "This block: [3e9], blockSize: [40]\n",
       "Calculated chunk start of [1001] which is larger than the firmware file... aborting update.\n"},
      {936, 64, 1, 64, "This block: [3a8], blockSize: [40]\n", ""},  // ends exactly at the end: no warning
      {0, 0, 0, -1, "", "Invalid chunk size from camd: [0], can't update camera firmware.\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.block);
    camera.Proxy().packetSize = row.packet;
    const std::size_t logged = sim_->Log().size();
    int result = -1;
    const auto run = Capture([&] { result = camera.SendFirmwareBlock(row.block); });
    const std::string sent = "position=" + std::to_string(row.block) + " bytes=" + std::to_string(row.sent) + " -> true\n";
    EXPECT_EQ(std::make_tuple(run.out, run.err, result, sim_->Log().substr(logged)),
              std::make_tuple(row.out + (row.sent >= 0 ? "Sending camd firmware block\n" : ""), row.err, row.result,
                              row.sent >= 0 ? "camd-sim[0]: SendFirmwareBlock " + sent : ""));
  }
}

// A package manager renames a new image over the file right after the update check.
struct ReplacedAfterCheck : Helpers::VyrCamera {
  using VyrCamera::VyrCamera;
  int CheckForUpdate() override { const int r = VyrCamera::CheckForUpdate(); if (replace) replace(); return r; }
  std::function<void()> replace;
};

TEST_F(CamdBusTest, WholeUpdatesArriveIntact) {
  // has: in what the updater or camd-sim wrote
  const struct { long long length; std::vector<std::string> sim, has; std::size_t dequeues, sends; bool replaceImage = false; } rows[] = {
      {0, {}, {"Checksum:ffff\nThis file [0] contains [0] chunks of [40]\n", "position=0 bytes=0 -> true"}, 0, 1},
      // Seven lost chunks in a row: 64 -> 32 -> ... -> 1, and once more at 1.
      {300, {"--lose-acks=1-70"}, {"Bumping packet size to [2]\n", "Bumping packet size to [40]\n", "position=0 bytes=1 -> true"},
       7, 17},
      {1500, {"--first=1024", "--preload="}, {"                First:400\nReady with block #400\n",
       "GetFirstUpdateBlock -> 1024\ncamd-sim[0]: SendFirmwareBlock position=1024 bytes=64"}, 0, 8},
      {1000, {"--loss-rate=0.9", "--seed=5"}, {"Dropping packet size to [20]\n"}, 7, 27},  // lossy, within the stall limit
      {1000, {}, {}, 0, 16, true},
  };
  NotifySocket notify(bus_->Dir() + "/notify");  // systemd's, for the progress lines
  setenv("NOTIFY_SOCKET", notify.path.c_str(), 1);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    const auto started = clock_.Now();
    const auto image = RandomBytes(row.length, 4);
    const std::string path = AddPackage(3, image);
    auto args = row.sim;
    for (auto& arg : args) arg += arg == "--preload=" ? path : "";  // camd holds the image up to the position it names
    StartSim(args);
    ReplacedAfterCheck camera("0", clock_);
    if (row.replaceImage)
      camera.replace = [&] { std::filesystem::rename(fw_.Write("new.bin", std::string(row.length, 'x')), path); };
    const auto run = Capture([&] {
      SM::UpdateMachine machine;  // as main runs it
      machine.SetHelper(&camera);
      machine.start();
    });
    for (const auto& text : row.has) EXPECT_NE((run.out + sim_->Log()).find(text), std::string::npos) << text;
    EXPECT_EQ(std::make_tuple(SimCalls("DequeuePacket"), SimCalls("SendFirmwareBlock")), std::make_tuple(row.dequeues, row.sends));
    EXPECT_EQ(ReadFile(OutPath()), image);
    EXPECT_NE(sim_->Out().find("VERDICT ok camera=0 bytes=" + std::to_string(row.length)), std::string::npos);

    // Rising acknowledged bytes up to the last chunk's, a line a second besides the last, each extending the start time-out.
    const auto status = notify.Take();
    EXPECT_TRUE(status.size() >= (row.length > 64 ? 2u : 1u) && long(status.size()) <= 2 + (clock_.Now() - started) / 1s) << status.size();
    long long last = -1;
    for (const auto& line : status) {
      const long long done = std::stoll(line.substr(line.find(": ") + 2));  // the whole line is compared next
      EXPECT_EQ(line, "STATUS=camera 0: " + std::to_string(done) + "/" + std::to_string(row.length) + " bytes (" +
                          std::to_string(row.length ? done * 100 / row.length : 100) + "%)\nEXTEND_TIMEOUT_USEC=330000000");
      EXPECT_GT(done, std::exchange(last, done));
    }
    EXPECT_EQ(last, row.length);
  }
  // Within a second only the line that completes the transfer goes out, and only once.
  ProgressNotifier progress("camera 7", clock_);
  progress.Report(10, 200), clock_.Advance(999ms), progress.Report(20, 200), clock_.Advance(1ms), progress.Report(30, 200);
  progress.Report(200, 200), progress.Report(200, 200);
  EXPECT_EQ(notify.Take(), (std::vector<std::string>{"STATUS=camera 7: 10/200 bytes (5%)",
            "STATUS=camera 7: 30/200 bytes (15%)", "STATUS=camera 7: 200/200 bytes (100%)"}));
}

}  // namespace
}  // namespace Updater::Testing
