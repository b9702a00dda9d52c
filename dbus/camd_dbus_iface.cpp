#include "dbus/camd_dbus_iface.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <iostream>

#include "dbus/errors.hpp"

namespace Updater::Helpers {

using Camd::Method;

namespace {

constexpr int kTries = 5;
constexpr int kFirstBlockPolls = 10;
constexpr int kAckPolls = 10;
constexpr auto kPollPause = std::chrono::milliseconds(200);
constexpr std::int32_t kMaxGrowablePacket = 63;

void LogDbusError(const sdbus::Error& e) {
  std::cerr << "Dbus::Error: " << e.getMessage() << std::endl;
}

// One try: build the call from the method table, send it, and wait for the
// answer when the method has one (library default time-out). Every failure
// in here is a D-Bus error and counts as a failed try.
template <class... Args>
sdbus::MethodReply SendOnce(sdbus::IProxy& proxy, const std::string& interface, Method m,
                            const Args&... args) {
  const auto& method = Camd::Info(m);
  auto call = proxy.createMethodCall(interface, method.name);
  if (method.reply == Camd::Reply::None) call.dontExpectReply();
  ((call << args), ...);
  return proxy.callMethod(call);
}

// Reading the answer is a separate step: a failure here means camd answered
// with another type than the table says, which no retry will mend.
template <class T>
T ReadFirst(sdbus::MethodReply& reply, Method m) {
  T value{};
  try {
    reply >> value;
  } catch (const sdbus::Error& e) {
    throw Dbus::ReplyTypeMismatch(Camd::Info(m).name, e.getMessage());
  }
  if (!reply) throw Dbus::ReplyTypeMismatch(Camd::Info(m).name, "no argument in the reply");
  return value;
}

template <class T, class... Args>
T CallWithTries(sdbus::IProxy& proxy, const std::string& interface, Method m, T failure,
                const Args&... args) {
  for (int left = kTries; left > 0; --left) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(proxy, interface, m, args...);
    } catch (const sdbus::Error& e) {
      LogDbusError(e);
      continue;
    }
    return ReadFirst<T>(reply, m);
  }
  return failure;
}

void SendWithTries(sdbus::IProxy& proxy, const std::string& interface, Method m) {
  for (int left = kTries; left > 0; --left) {
    try {
      SendOnce(proxy, interface, m);
      return;
    } catch (const sdbus::Error& e) {
      LogDbusError(e);
    }
  }
}

}  // namespace

std::shared_ptr<CamdDbusIface> CamdDbusIface::create(std::shared_ptr<sdbus::IConnection> connection,
                                                     const std::string& service,
                                                     const std::string& path,
                                                     const std::string& interface, Clock& clock) {
  return std::shared_ptr<CamdDbusIface>(
      new CamdDbusIface(std::move(connection), service, path, interface, clock));
}

CamdDbusIface::CamdDbusIface(std::shared_ptr<sdbus::IConnection> connection,
                             const std::string& service, const std::string& path,
                             const std::string& interface, Clock& clock)
    : connection_(std::move(connection)),
      proxy_(sdbus::createProxy(*connection_, service, path)),
      path_(path),
      interface_(interface),
      clock_(clock) {}

// The proxy must go before the connection it borrows.
CamdDbusIface::~CamdDbusIface() { proxy_.reset(); }

int CamdDbusIface::GetCameraFirmwareVersion() {
  std::cout << "Asking camd for firmware version" << std::endl;
  return CallWithTries<std::int32_t>(*proxy_, interface_, Method::GetCameraFirmwareVersion, -1);
}

int CamdDbusIface::GetPreviouslyDownloadedChunks() {
  std::cout << "Asking camd for downloaded chunks" << std::endl;
  return CallWithTries<std::int32_t>(*proxy_, interface_, Method::GetPreviouslyDownloadedChunks,
                                     -1);
}

int CamdDbusIface::GetFlashRegion() {
  return CallWithTries<std::int32_t>(*proxy_, interface_, Method::GetFlashRegion, -1);
}

int CamdDbusIface::GetNextFirmwareBlock() {
  return CallWithTries<std::int32_t>(*proxy_, interface_, Method::GetNextFirmwareBlock, -1);
}

bool CamdDbusIface::SendUpdateAvailable(int version, int checksum, int size) {
  return CallWithTries<bool>(*proxy_, interface_, Method::SendUpdateAvailable, false,
                             std::int32_t{version}, std::int32_t{checksum}, std::int32_t{size});
}

bool CamdDbusIface::UpdateInfoReceived() {
  return CallWithTries<bool>(*proxy_, interface_, Method::UpdateInfoReceived, false);
}

bool CamdDbusIface::SendFirmwareBlock(int block, std::vector<unsigned char> data) {
  std::cout << "Sending camd firmware block" << std::endl;
  return CallWithTries<bool>(*proxy_, interface_, Method::SendFirmwareBlock, false,
                             std::int32_t{block}, data);
}

void CamdDbusIface::RequestUpdateInfo() {
  SendWithTries(*proxy_, interface_, Method::RequestUpdateInfo);
}

void CamdDbusIface::ClearPendingUpdate() {
  SendWithTries(*proxy_, interface_, Method::ClearPendingUpdate);
}

void CamdDbusIface::DequeuePacket() { SendWithTries(*proxy_, interface_, Method::DequeuePacket); }

int CamdDbusIface::GetFirstUpdateBlock() {
  std::cout << "Asking camd for first update block (really)" << std::endl;
  std::int32_t last = -1;
  for (int poll = 0; poll < kFirstBlockPolls; ++poll) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(*proxy_, interface_, Method::GetFirstUpdateBlock);
    } catch (const sdbus::Error& e) {
      LogDbusError(e);
      return last;
    }
    last = ReadFirst<std::int32_t>(reply, Method::GetFirstUpdateBlock);
    if (last >= 0) return last;
    clock_.Sleep(kPollPause);
  }
  return last;
}

int CamdDbusIface::WaitForAck() {
  std::cout << "camd waiting for ACK!" << std::endl;
  std::int32_t status = 1;
  for (int poll = 0; poll < kAckPolls; ++poll) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(*proxy_, interface_, Method::WaitForAck);
    } catch (const sdbus::Error& e) {
      // An error answer is treated like a lost chunk.
      std::cout << "Exception caught: " << e.what() << std::endl;
      status = 1;
      break;
    }
    status = ReadFirst<std::int32_t>(reply, Method::WaitForAck);
    if (status == 0) break;
    clock_.Sleep(kPollPause);
  }
  std::cout << "camd ACK status: " << status << std::endl;

  if (status == 0) {
    // Grows back only up to where it started; see the halving below.
    if (packetSize <= kMaxGrowablePacket) {
      packetSize *= 2;
      std::cout << "Bumping packet size to [" << packetSize << "]" << std::endl;
    }
    return 0;
  }
  if (status == 1) {
    DequeuePacket();
    if (packetSize > 1) packetSize /= 2;
    std::cout << "********************* Dropping packet size to [" << packetSize << "]"
              << std::endl;
    std::cerr << "Caught ACK timeout! Still waiting..." << std::endl;
    return 1;
  }
  return status;
}

}  // namespace Updater::Helpers
