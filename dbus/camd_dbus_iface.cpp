#include "dbus/camd_dbus_iface.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "common/console.hpp"
#include "dbus/bus.hpp"
#include "dbus/errors.hpp"

namespace Updater::Helpers {

using Camd::Method;

namespace {

constexpr int kTries = 5;
constexpr int kFirstBlockPolls = 10;
constexpr int kAckPolls = 10;
constexpr auto kPollPause = std::chrono::milliseconds(200);
constexpr std::int32_t kMaxGrowablePacket = 63;
constexpr std::int32_t kLastBlockAcked = 3;
constexpr auto kDefaultCallTimeout = std::chrono::seconds(25);  // sd-bus's

void LogDbusError(const sdbus::Error& e) { std::cerr << "Dbus::Error: " << e.getMessage() << std::endl; }

// Errors that say the connection itself is gone (the bus daemon ended, the
// socket broke), as opposed to camd answering with an error or not at all.
bool ConnectionBroken(const sdbus::Error& e) {
  const std::string& name = e.getName();
  return name == "org.freedesktop.DBus.Error.Disconnected" || name.rfind("System.Error.", 0) == 0;
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

}  // namespace

std::shared_ptr<CamdDbusIface> CamdDbusIface::create(const std::string& service, const std::string& path,
                                                     const std::string& interface, Clock& clock) {
  return std::shared_ptr<CamdDbusIface>(new CamdDbusIface(service, path, interface, clock));
}

CamdDbusIface::CamdDbusIface(const std::string& service, const std::string& path,
                             const std::string& interface, Clock& clock)
    : service_(service), path_(path), interface_(interface), clock_(clock) {}

// The proxy must go before the connection it borrows.
CamdDbusIface::~CamdDbusIface() { proxy_.reset(); }

sdbus::IProxy& CamdDbusIface::Proxy() {
  if (!proxy_) {
    if (!connection_) {
      // Like a call: the library's default time-out, shortened by the deadline.
      auto timeout = std::chrono::duration_cast<std::chrono::microseconds>(kDefaultCallTimeout);
      if (deadline_)
        timeout = std::min(
            timeout, std::chrono::duration_cast<std::chrono::microseconds>(*deadline_ - clock_.Monotonic()));
      connection_ = Dbus::ConnectSessionBus(std::max(timeout, std::chrono::microseconds(1)));
    }
    proxy_ = sdbus::createProxy(*connection_, service_, path_);
  }
  return *proxy_;
}

bool CamdDbusIface::PastDeadline() { return deadline_ && clock_.Monotonic() >= *deadline_; }

// One try: connect if need be, build the call from the method table, send it,
// and wait for the answer when the method has one. Every failure in here is
// a D-Bus error and counts as a failed try.
template <class... Args>
sdbus::MethodReply CamdDbusIface::SendOnce(Method m, const Args&... args) {
  try {
    return CallOnce(m, args...);
  } catch (const sdbus::Error& e) {
    // Only here, once the call message is gone: it borrows the connection.
    if (ConnectionBroken(e)) {
      proxy_.reset();
      connection_.reset();
    }
    throw;
  }
}

template <class... Args>
sdbus::MethodReply CamdDbusIface::CallOnce(Method m, const Args&... args) {
  auto& proxy = Proxy();
  const auto& method = Camd::Info(m);
  auto call = proxy.createMethodCall(interface_, method.name);
  if (method.reply == Camd::Reply::None) call.dontExpectReply();
  ((call << args), ...);
  std::chrono::microseconds timeout{0};  // the library's default
  if (deadline_) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*deadline_ - clock_.Monotonic());
    if (left < std::chrono::microseconds(connection_->getMethodCallTimeout()))
      timeout = std::max(left, std::chrono::microseconds(1));
  }
  return proxy.callMethod(call, static_cast<std::uint64_t>(timeout.count()));
}

template <class T, class... Args>
std::optional<T> CamdDbusIface::CallWithTries(Method m, const Args&... args) {
  for (int left = kTries; left > 0 && !PastDeadline(); --left) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(m, args...);
    } catch (const sdbus::Error& e) {
      LogDbusError(e);
      continue;
    }
    return ReadFirst<T>(reply, m);
  }
  return std::nullopt;
}

void CamdDbusIface::SendWithTries(Method m) {
  for (int left = kTries; left > 0 && !PastDeadline(); --left) {
    try {
      SendOnce(m);
      return;
    } catch (const sdbus::Error& e) {
      LogDbusError(e);
    }
  }
}

std::optional<std::int32_t> CamdDbusIface::ReadCameraFirmwareVersion() {
  if (Console::Detail()) std::cout << "Asking camd for firmware version" << std::endl;
  return CallWithTries<std::int32_t>(Method::GetCameraFirmwareVersion);
}

int CamdDbusIface::GetCameraFirmwareVersion() { return ReadCameraFirmwareVersion().value_or(-1); }

int CamdDbusIface::GetPreviouslyDownloadedChunks() {
  if (Console::Detail()) std::cout << "Asking camd for downloaded chunks" << std::endl;
  return CallWithTries<std::int32_t>(Method::GetPreviouslyDownloadedChunks).value_or(-1);
}

int CamdDbusIface::GetFlashRegion() {
  return CallWithTries<std::int32_t>(Method::GetFlashRegion).value_or(-1);
}

int CamdDbusIface::GetNextFirmwareBlock() {
  return CallWithTries<std::int32_t>(Method::GetNextFirmwareBlock).value_or(-1);
}

bool CamdDbusIface::SendUpdateAvailable(int version, int checksum, int size) {
  return CallWithTries<bool>(Method::SendUpdateAvailable, std::int32_t{version}, std::int32_t{checksum},
                             std::int32_t{size})
      .value_or(false);
}

bool CamdDbusIface::UpdateInfoReceived() {
  return CallWithTries<bool>(Method::UpdateInfoReceived).value_or(false);
}

bool CamdDbusIface::SendFirmwareBlock(int block, const std::vector<unsigned char>& data) {
  if (Console::Detail()) std::cout << "Sending camd firmware block" << std::endl;
  return CallWithTries<bool>(Method::SendFirmwareBlock, std::int32_t{block}, data).value_or(false);
}

void CamdDbusIface::RequestUpdateInfo() { SendWithTries(Method::RequestUpdateInfo); }

void CamdDbusIface::ClearPendingUpdate() { SendWithTries(Method::ClearPendingUpdate); }

void CamdDbusIface::DequeuePacket() { SendWithTries(Method::DequeuePacket); }

int CamdDbusIface::GetFirstUpdateBlock() {
  if (Console::Detail()) std::cout << "Asking camd for first update block (really)" << std::endl;
  std::int32_t last = -1;
  for (int poll = 0; poll < kFirstBlockPolls; ++poll) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(Method::GetFirstUpdateBlock);
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
  if (Console::Detail()) std::cout << "camd waiting for ACK!" << std::endl;
  std::int32_t status = 1;
  bool lastBlockAcked = false;
  ackFailed_ = false;
  for (int poll = 0; poll < kAckPolls; ++poll) {
    sdbus::MethodReply reply;
    try {
      reply = SendOnce(Method::WaitForAck);
    } catch (const sdbus::Error& e) {
      // An error answer is treated like a lost chunk, unless camd has
      // already confirmed the whole image.
      std::cout << "Exception caught: " << e.what() << std::endl;
      status = lastBlockAcked ? kLastBlockAcked : 1;
      ackFailed_ = true;
      break;
    }
    status = ReadFirst<std::int32_t>(reply, Method::WaitForAck);
    if (status == 0) break;
    lastBlockAcked = lastBlockAcked || status == kLastBlockAcked;
    clock_.Sleep(kPollPause);
  }
  if (Console::Detail()) std::cout << "camd ACK status: " << status << std::endl;

  if (status == 0) {
    // Grows back only up to where it started; see the halving below.
    if (packetSize <= kMaxGrowablePacket) {
      packetSize *= 2;
      if (Console::Detail()) std::cout << "Bumping packet size to [" << packetSize << "]" << std::endl;
    }
    return 0;
  }
  if (status == 1) {
    DequeuePacket();
    if (packetSize > 1) packetSize /= 2;
    if (Console::Detail())
      std::cout << "********************* Dropping packet size to [" << packetSize << "]" << std::endl;
    std::cerr << "Caught ACK timeout! Still waiting..." << std::endl;
    return 1;
  }
  return status;
}

}  // namespace Updater::Helpers
