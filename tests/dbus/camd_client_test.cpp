// The camd client against a real dbus-daemon and camd-sim: wire types,
// results, the five-try call path, what escapes it, and the bring-up texts.
#include <gtest/gtest.h>

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>

#include "camd_fixture.hpp"
#include "dbus/bus.hpp"
#include "dbus/camd_dbus_iface.hpp"
#include "dbus/camd_methods.hpp"
#include "dbus/errors.hpp"

namespace Updater::Testing {
namespace {

using Helpers::CamdDbusIface;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

// What the camera helper builds, minus the helper.
struct Client {
  explicit Client(const std::string& index) {
    Dbus::Initialize();
    dispatcher = Dbus::Dispatcher::Create();
    connection = dispatcher->CreateSessionConnection();
    proxy = CamdDbusIface::create(connection, Camd::kService, Camd::ObjectPath(index),
                                  Camd::kInterface);
  }
  std::shared_ptr<Dbus::Dispatcher> dispatcher;
  std::shared_ptr<sdbus::IConnection> connection;
  std::shared_ptr<CamdDbusIface> proxy;
};

TEST(CamdMethodTable, ReplyKindsAgreeWithSignatures) {
  std::set<std::string> names;
  for (const auto& m : Camd::kMethods) {
    names.insert(m.name);
    const std::string out = m.out;
    switch (m.reply) {
      case Camd::Reply::Int: EXPECT_EQ(out, "i") << m.name; break;
      case Camd::Reply::Bool: EXPECT_EQ(out, "b") << m.name; break;
      case Camd::Reply::None: EXPECT_EQ(out, "") << m.name; break;
    }
  }
  EXPECT_EQ(names.size(), Camd::kMethods.size());
  EXPECT_STREQ(Camd::Info(Camd::Method::GetFlashRegion).name, "GetFlashRegion");
  EXPECT_STREQ(Camd::Info(Camd::Method::DequeuePacket).name, "DequeuePacket");
  EXPECT_EQ(Camd::FindMethod("Nope"), nullptr);
  EXPECT_EQ(Camd::ObjectPath("03"), "/com/quorvex/common/Camd1/Camera03");
}

TEST(CamdMethodTable, MatchesTheDocumentedInterface) {
  std::ifstream in(FWU_SOURCE_DIR "/docs/camd-firmware.xml");
  ASSERT_TRUE(in) << "docs/camd-firmware.xml";
  const std::string xml((std::istreambuf_iterator<char>(in)), {});
  // Method blocks in document order; each must equal the table row at its place.
  std::size_t row = 0;
  for (auto at = xml.find("<method name=\""); at != std::string::npos;
       at = xml.find("<method name=\"", at + 1), ++row) {
    const auto nameEnd = xml.find('"', at + 14);
    const std::string name = xml.substr(at + 14, nameEnd - at - 14);
    const auto blockEnd = xml.find("</method>", at);
    const std::string block = xml.substr(at, blockEnd - at);
    std::string in, out;
    for (auto arg = block.find("type=\""); arg != std::string::npos; arg = block.find("type=\"", arg + 1)) {
      const auto typeEnd = block.find('"', arg + 6);
      const std::string type = block.substr(arg + 6, typeEnd - arg - 6);
      (block.compare(typeEnd + 1, 18, " direction=\"out\"/>") == 0 ? out : in) += type;
    }
    const bool noReply = block.find("org.freedesktop.DBus.Method.NoReply") != std::string::npos;
    ASSERT_LT(row, Camd::kMethods.size()) << name;
    const auto& method = Camd::kMethods[row];
    EXPECT_EQ(name, method.name);
    EXPECT_EQ(in, method.in) << name;
    EXPECT_EQ(out, method.out) << name;
    EXPECT_EQ(noReply, method.reply == Camd::Reply::None) << name;
  }
  EXPECT_EQ(row, Camd::kMethods.size());
  EXPECT_NE(xml.find(std::string("<interface name=\"") + Camd::kInterface + "\">"), std::string::npos);
}

using CamdClientTest = CamdBusTest;

TEST_F(CamdClientTest, SecondClientFindsTheLibraryInitialized) {
  // Under ctest each test has a process of its own, so this is normally the
  // first bring-up; run in one binary with the others it may not be.
  const bool before = Dbus::Initialized();
  CaptureStdout();
  Client first("0");
  const std::string firstOut = GetCapturedStdout();
  CaptureStdout();
  Client second("1");
  const std::string secondOut = GetCapturedStdout();
  EXPECT_EQ(firstOut, before ? "dbus-cxx already initialized\n" : "Initializing dbus-cxx\n");
  EXPECT_TRUE(Dbus::Initialized());
  EXPECT_EQ(secondOut, "dbus-cxx already initialized\n");
}

TEST_F(CamdClientTest, ReadsIntAndBoolResults) {
  StartSim({"--version=7", "--region=3", "--first=40"});
  Client client("0");
  auto& camd = *client.proxy;

  CaptureStdout();
  EXPECT_EQ(camd.GetCameraFirmwareVersion(), 7);
  EXPECT_EQ(GetCapturedStdout(), "Asking camd for firmware version\n");
  CaptureStdout();
  EXPECT_EQ(camd.GetPreviouslyDownloadedChunks(), 0);
  EXPECT_EQ(GetCapturedStdout(), "Asking camd for downloaded chunks\n");
  EXPECT_EQ(camd.GetFlashRegion(), 3);
  EXPECT_EQ(camd.GetFirstUpdateBlock(), 40);

  EXPECT_FALSE(camd.UpdateInfoReceived());
  camd.RequestUpdateInfo();
  EXPECT_TRUE(camd.UpdateInfoReceived());
  EXPECT_EQ(SimCalls("UpdateInfoReceived"), 2u);
  EXPECT_EQ(SimCalls("RequestUpdateInfo"), 1u);
}

TEST_F(CamdClientTest, ArgumentsArriveWithTheTableTypes) {
  // The simulator registers `iii` and `iay` from the table; the bus refuses
  // a call whose body has other types, so a dispatched call proves them.
  StartSim({});
  Client client("0");
  auto& camd = *client.proxy;

  EXPECT_TRUE(camd.SendUpdateAvailable(5, 0xFFFF, 0));
  EXPECT_EQ(CountOf(sim_->Log(), "SendUpdateAvailable version=5 checksum=65535 length=0 -> true"), 1u);

  CaptureStdout();
  EXPECT_TRUE(camd.SendFirmwareBlock(0, {}));
  EXPECT_EQ(GetCapturedStdout(), "Sending camd firmware block\n");
  EXPECT_EQ(CountOf(sim_->Log(), "SendFirmwareBlock position=0 bytes=0 -> true"), 1u);
  EXPECT_TRUE(camd.SendFirmwareBlock(-1, {0x00, 0xff, 0x80}));
  EXPECT_EQ(CountOf(sim_->Log(), "SendFirmwareBlock position=-1 bytes=3 -> true"), 1u);

  EXPECT_TRUE(camd.SendUpdateAvailable(-2, 0, 2147483647));
  EXPECT_EQ(CountOf(sim_->Log(), "version=-2 checksum=0 length=2147483647"), 1u);
}

TEST_F(CamdClientTest, CamdAbsentEveryReplyMethodFailsAfterFiveTries) {
  Client client("0");
  auto& camd = *client.proxy;
  const std::vector<std::pair<std::string, std::function<long()>>> operations = {
      {"GetCameraFirmwareVersion", [&] { return camd.GetCameraFirmwareVersion(); }},
      {"GetPreviouslyDownloadedChunks", [&] { return camd.GetPreviouslyDownloadedChunks(); }},
      {"GetFlashRegion", [&] { return camd.GetFlashRegion(); }},
      {"GetNextFirmwareBlock", [&] { return camd.GetNextFirmwareBlock(); }},
      {"SendUpdateAvailable", [&] { return camd.SendUpdateAvailable(1, 2, 3) ? 1 : 0; }},
      {"UpdateInfoReceived", [&] { return camd.UpdateInfoReceived() ? 1 : 0; }},
      {"SendFirmwareBlock", [&] { return camd.SendFirmwareBlock(0, {1, 2}) ? 1 : 0; }},
  };
  for (const auto& [name, call] : operations) {
    const bool isBool = Camd::FindMethod(name)->reply == Camd::Reply::Bool;
    CaptureStderr();
    const long result = call();
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(result, isBool ? 0 : -1) << name;
    EXPECT_EQ(CountOf(err, "Dbus::Error: "), 5u) << name << "\n" << err;
    EXPECT_EQ(CountOf(err, "Dbus::Error: The name com.quorvex.common.Camd1 was not provided"), 5u) << err;
  }

  // Nobody waits for an answer that is never asked for.
  CaptureStderr();
  camd.RequestUpdateInfo();
  camd.ClearPendingUpdate();
  camd.DequeuePacket();
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(CamdClientTest, ErrorRepliesAreRetriedAtMostFiveTimes) {
  StartSim({"--region=9", "--version=4", "--error=GetFlashRegion@1-4",
            "--error=GetCameraFirmwareVersion@1-5"});
  Client client("0");
  auto& camd = *client.proxy;

  CaptureStderr();
  EXPECT_EQ(camd.GetFlashRegion(), 9);
  std::string err = GetCapturedStderr();
  EXPECT_EQ(CountOf(err, "Dbus::Error: injected failure of GetFlashRegion\n"), 4u) << err;

  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(camd.GetCameraFirmwareVersion(), -1);
  err = GetCapturedStderr();
  EXPECT_EQ(GetCapturedStdout(), "Asking camd for firmware version\n");
  EXPECT_EQ(CountOf(err, "Dbus::Error: "), 5u);
  // No sixth try: the next operation's single call is camd's sixth.
  EXPECT_EQ(camd.GetCameraFirmwareVersion(), 4);
  EXPECT_EQ(SimCalls("GetCameraFirmwareVersion"), 6u);
}

TEST_F(CamdClientTest, WrongReplyTypeEscapesOnTheFirstTry) {
  StartSim({"--wrong-type=GetFlashRegion", "--wrong-type=UpdateInfoReceived",
            "--wrong-type=SendFirmwareBlock"});
  Client client("0");
  auto& camd = *client.proxy;

  CaptureStderr();
  EXPECT_THROW(camd.GetFlashRegion(), Dbus::ReplyTypeMismatch);       // b where i belongs
  EXPECT_THROW(camd.UpdateInfoReceived(), Dbus::ReplyTypeMismatch);   // i where b belongs
  EXPECT_THROW(camd.SendFirmwareBlock(0, {7}), Dbus::ReplyTypeMismatch);
  EXPECT_EQ(CountOf(GetCapturedStderr(), "Dbus::Error: "), 0u);
  EXPECT_EQ(SimCalls("GetFlashRegion"), 1u);
  EXPECT_EQ(SimCalls("UpdateInfoReceived"), 1u);
  EXPECT_EQ(SimCalls("SendFirmwareBlock"), 1u);

  // It is a std::exception, so inside the machine it reaches the exception hook.
  try {
    camd.GetFlashRegion();
    FAIL() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("GetFlashRegion"), std::string::npos) << e.what();
  }
}

TEST_F(CamdClientTest, ObjectPathKeepsTheIndexTextAsTyped) {
  StartSim({"--camera=12", "--camera=03", "--version=4"});
  Client twelve("12");
  Client zeroThree("03");
  Client three("3");
  EXPECT_EQ(twelve.proxy->Path(), "/com/quorvex/common/Camd1/Camera12");
  EXPECT_EQ(zeroThree.proxy->Path(), "/com/quorvex/common/Camd1/Camera03");
  EXPECT_EQ(twelve.proxy->GetFlashRegion(), 0);
  EXPECT_EQ(zeroThree.proxy->GetCameraFirmwareVersion(), 4);

  CaptureStderr();
  EXPECT_EQ(three.proxy->GetFlashRegion(), -1);
  const std::string err = GetCapturedStderr();
  EXPECT_EQ(CountOf(err, "Dbus::Error: Unknown object '/com/quorvex/common/Camd1/Camera3'"), 5u) << err;
}

TEST_F(CamdClientTest, NoReplyMethodsDoNotWaitForCamd) {
  StartSim({"--slow=RequestUpdateInfo:3000", "--slow=DequeuePacket:3000"});
  Client client("0");
  const auto started = std::chrono::steady_clock::now();
  client.proxy->RequestUpdateInfo();
  client.proxy->DequeuePacket();
  const auto took = std::chrono::steady_clock::now() - started;
  // Generous bound: a waiting call would take at least the 3 s camd holds it.
  EXPECT_LT(took, std::chrono::milliseconds(1500));
}

}  // namespace
}  // namespace Updater::Testing
