// camd-sim: a stand-in for camd's firmware interface, for tests, the demo
// and the benchmarks. See --help.
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "camera_model.hpp"
#include "dbus/camd_methods.hpp"
#include "replay.hpp"

namespace {

using Updater::Camd::MethodInfo;
using Updater::Camd::Reply;

class Service {
 public:
  explicit Service(const CamdSim::Options& options) : options_(options) {}

  void Run() {
    std::vector<std::string> cameras = options_.cameras;
    if (!options_.replayPath.empty()) {
      replay_ =
          std::make_unique<CamdSim::Replay>(options_.replayPath, options_.replayFast,
                                            [](const std::string& line) { std::cout << line << std::endl; });
      cameras = {replay_->Camera()};
    }
    connection_ = sdbus::createSessionBusConnection();
    for (const auto& index : cameras) {
      auto camera = std::make_unique<CamdSim::Camera>(index, options_);
      auto object = sdbus::createObject(*connection_, Updater::Camd::ObjectPath(index));
      for (const auto& method : Updater::Camd::kMethods) {
        sdbus::Flags flags;
        if (method.reply == Reply::None) flags.set(sdbus::Flags::METHOD_NO_REPLY);
        // The bus only lets a reply out with the registered signature, so a
        // method told to answer with the wrong type is registered that way.
        const bool wrongType = WrongType(method.name);
        const char* out = method.out;
        if (wrongType) out = method.reply == Reply::Int ? "b" : "i";
        object->registerMethod(
            Updater::Camd::kInterface, method.name, method.in, out,
            [this, cam = camera.get(), &method](sdbus::MethodCall call) { Handle(*cam, method, call); },
            flags);
      }
      object->finishRegistration();
      cameras_.push_back(std::move(camera));
      objects_.push_back(std::move(object));
    }
    // The name goes up last: whoever sees it can call every object at once.
    connection_->requestName(Updater::Camd::kService);
    Log("*", "serving " + std::to_string(cameras_.size()) + " camera(s)", true);
    connection_->enterEventLoop();
  }

 private:
  // `always`: even with --quiet, for lines whoever started us waits for.
  void Log(const std::string& camera, const std::string& text, bool always = false) const {
    if (always || !options_.quiet) std::cerr << "camd-sim[" << camera << "]: " << text << std::endl;
  }

  bool WrongType(const std::string& method) const {
    return std::find(options_.wrongTypes.begin(), options_.wrongTypes.end(), method) !=
           options_.wrongTypes.end();
  }

  static bool Matches(const std::vector<CamdSim::MethodFault>& faults, const std::string& method, long call) {
    return std::any_of(faults.begin(), faults.end(), [&](const CamdSim::MethodFault& f) {
      return (f.method == method || f.method == "all") && f.calls.Contains(call);
    });
  }

  void Handle(CamdSim::Camera& camera, const MethodInfo& method, sdbus::MethodCall& call) {
    if (replay_) return replay_->Handle(method, call);
    ++totalCalls_;
    const long nth = ++callsPerMethod_[camera.Index() + "/" + method.name];
    if (options_.exitAfterCalls > 0 && totalCalls_ >= options_.exitAfterCalls) {
      Log(camera.Index(),
          std::string("exiting on call ") + std::to_string(totalCalls_) + " (" + method.name + ")");
      _exit(3);
    }
    if (auto slow = options_.slowMs.find(method.name); slow != options_.slowMs.end())
      std::this_thread::sleep_for(std::chrono::milliseconds(slow->second));
    if (Matches(options_.errors, method.name, nth)) {
      Log(camera.Index(), std::string(method.name) + " -> injected error");
      throw sdbus::Error("com.quorvex.common.Camd1.Error.Injected",
                         std::string("injected failure of ") + method.name);
    }

    const std::string name = method.name;
    std::string text = name;
    long intResult = 0;
    bool boolResult = false;
    if (name == "GetCameraFirmwareVersion") {
      intResult = camera.GetCameraFirmwareVersion();
    } else if (name == "GetFirstUpdateBlock") {
      intResult = camera.GetFirstUpdateBlock();
    } else if (name == "GetFirmwareUpdateChunkSize") {
      intResult = 64;
    } else if (name == "GetPreviouslyDownloadedChunks") {
      intResult = camera.GetPreviouslyDownloadedChunks();
    } else if (name == "SendUpdateAvailable") {
      std::int32_t version = 0, checksum = 0, length = 0;
      call >> version >> checksum >> length;
      text += " version=" + std::to_string(version) + " checksum=" + std::to_string(checksum) +
              " length=" + std::to_string(length);
      boolResult = camera.SendUpdateAvailable(version, checksum, length);
      // A new announcement starts a new update, which gets its own verdict.
      reported_[camera.Index()] = false;
    } else if (name == "SendFirmwareBlock") {
      std::int32_t position = 0;
      std::vector<std::uint8_t> data;
      call >> position >> data;
      text += " position=" + std::to_string(position) + " bytes=" + std::to_string(data.size());
      boolResult = camera.SendFirmwareBlock(position, std::move(data));
    } else if (name == "WaitForAck") {
      intResult = camera.WaitForAck();
    } else if (name == "GetNextFirmwareBlock") {
      intResult = camera.GetNextFirmwareBlock();
    } else if (name == "RequestUpdateInfo") {
      camera.RequestUpdateInfo();
    } else if (name == "UpdateInfoReceived") {
      boolResult = camera.UpdateInfoReceived();
    } else if (name == "ClearPendingUpdate") {
      camera.ClearPendingUpdate();
    } else if (name == "GetFlashRegion") {
      intResult = camera.GetFlashRegion();
    } else if (name == "DequeuePacket") {
      camera.DequeuePacket();
    }

    const bool wrongType = WrongType(method.name);
    auto reply = call.createReply();
    switch (method.reply) {
      case Reply::Int:
        text += " -> " + std::to_string(intResult);
        if (wrongType)
          reply << (intResult != 0);
        else
          reply << static_cast<std::int32_t>(intResult);
        break;
      case Reply::Bool:
        text += boolResult ? " -> true" : " -> false";
        if (wrongType)
          reply << static_cast<std::int32_t>(boolResult);
        else
          reply << boolResult;
        break;
      case Reply::None:
        if (wrongType) reply << std::int32_t{0};
        break;
    }
    if (wrongType) text += " (wrong type)";
    Log(camera.Index(), text);
    // Sent even for the no-reply methods: the bus drops it when the caller
    // asked for none, and it keeps a caller that did ask from hanging.
    reply.send();

    if (camera.Done() && !reported_[camera.Index()]) {
      reported_[camera.Index()] = true;
      Finish(camera);
    }
  }

  void Finish(const CamdSim::Camera& camera) {
    if (!options_.outPath.empty()) {
      const std::string path =
          options_.cameras.size() > 1 ? options_.outPath + "." + camera.Index() : options_.outPath;
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<const char*>(camera.Image().data()),
                static_cast<std::streamsize>(camera.Image().size()));
    }
    const std::string verdict = camera.Verdict();
    std::cout << verdict << std::endl;
    if (!options_.verdictPath.empty()) std::ofstream(options_.verdictPath, std::ios::app) << verdict << "\n";
    Log(camera.Index(), "update complete: " + verdict);
  }

  const CamdSim::Options& options_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<CamdSim::Replay> replay_;
  std::vector<std::unique_ptr<CamdSim::Camera>> cameras_;
  std::vector<std::unique_ptr<sdbus::IObject>> objects_;
  std::map<std::string, long> callsPerMethod_;
  std::map<std::string, bool> reported_;
  long totalCalls_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::string message;
  bool help = false;
  const auto options = CamdSim::ParseOptions(std::vector<std::string>(argv + 1, argv + argc), message, help);
  if (!options) {
    (help ? std::cout : std::cerr) << message << std::endl;
    return help ? 0 : 2;
  }
  try {
    Service(*options).Run();
  } catch (const std::runtime_error& e) {  // sdbus::Error among them
    std::cerr << "camd-sim: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
