#include "dbus/camd_dbus_iface.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "common/chunk_size.hpp"
#include "common/console.hpp"
#include "common/record.hpp"
#include "dbus/bus.hpp"
#include "dbus/camd_record.hpp"
#include "dbus/errors.hpp"
#include "helpers/camera/kept_texts.hpp"
#include "sm/ack_status.hpp"

namespace Updater::Helpers {

using Camd::Method;

namespace {

constexpr int kTries = 5;
constexpr int kFirstBlockPolls = 10;
constexpr int kAckPolls = 10;
constexpr auto kPollPause = std::chrono::milliseconds(200);
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

// The first argument of `reply` as camd sent it, left unread for the caller.
void AddReply(Json::Object& line, sdbus::MethodReply& reply, Method m) {
  if (Camd::Info(m).reply == Camd::Reply::None || reply.isEmpty()) return;
  try {
    std::string type, contents;
    reply.peekType(type, contents);
    if (type == "i") {
      std::int32_t value = 0;
      reply >> value;
      line.Add(Camd::kReplyKey, std::int64_t{value});
    } else if (type == "b") {
      bool value = false;
      reply >> value;
      line.Add(Camd::kReplyKey, value);
    }
  } catch (const sdbus::Error&) {
    // Whatever it is, reading it is the caller's to fail.
  }
  reply.rewind(true);
}

// One try as a recording's line; the answer is added by the caller.
template <class... Args>
Json::Object CallLine(Method m, std::chrono::steady_clock::time_point start, const Args&... args) {
  Json::Object line;
  line.Add(Camd::kCallKey, Camd::Info(m).name).Add(Camd::kArgsKey, Camd::ArgsText(args...));
  const auto took = std::chrono::steady_clock::now() - start;
  line.Add(Camd::kTookKey, std::int64_t{std::chrono::duration_cast<std::chrono::milliseconds>(took).count()});
  return line;
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
// a D-Bus error and counts as a failed try. Every try is recorded here, the
// one path all calls take.
template <class... Args>
sdbus::MethodReply CamdDbusIface::SendOnce(Method m, const Args&... args) {
  Record::Recorder* recorder = Record::Active();
  // The clock is read only for a recording: this runs three times a chunk.
  const auto start =
      recorder != nullptr ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point{};
  try {
    auto reply = CallOnce(m, args...);
    if (recorder != nullptr) {
      auto line = CallLine(m, start, args...);
      AddReply(line, reply, m);
      recorder->Exchange(std::move(line));
    }
    return reply;
  } catch (const sdbus::Error& e) {
    if (recorder != nullptr)
      recorder->Exchange(CallLine(m, start, args...)
                             .Add(Camd::kErrorKey, e.getName())
                             .Add(Camd::kMessageKey, e.getMessage()));
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
  if (Console::Detail()) std::cout << Kept::kFirstBlockReally << std::endl;
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
  std::int32_t status = kResend;
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
      status = lastBlockAcked ? kLastBlockAcked : kResend;
      ackFailed_ = true;
      break;
    }
    status = ReadFirst<std::int32_t>(reply, Method::WaitForAck);
    if (status == kAcked) break;
    lastBlockAcked = lastBlockAcked || status == kLastBlockAcked;
    clock_.Sleep(kPollPause);
  }
  if (Console::Detail()) std::cout << "camd ACK status: " << status << std::endl;

  if (status == kAcked) {
    // Grows back only up to where it started; see the halving below.
    if (packetSize < ChunkSize::kLargest) {
      packetSize = ChunkSize::AfterDelivery(packetSize);
      if (Console::Detail()) std::cout << "Bumping packet size to [" << packetSize << "]" << std::endl;
    }
    return kAcked;
  }
  if (status == kResend) {
    DequeuePacket();
    packetSize = ChunkSize::AfterLoss(packetSize);
    if (Console::Detail())
      std::cout << "********************* Dropping packet size to [" << packetSize << "]" << std::endl;
    std::cerr << "Caught ACK timeout! Still waiting..." << std::endl;
    return kResend;
  }
  return status;
}

}  // namespace Updater::Helpers
