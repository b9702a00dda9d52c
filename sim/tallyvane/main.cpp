// tallyvane-sim: the counter-link board, played through two FIFOs.
// See --help (options.cpp) for the command line and the behaviour.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "board.hpp"
#include "link.hpp"
#include "options.hpp"
#include "replay.hpp"

namespace {

volatile sig_atomic_t gStop = 0;

void OnSignal(int) { gStop = 1; }

// The simulator's log: a console that fails takes nothing else down.
void PrintLine(const std::string& line) {
  (void)std::fputs(line.c_str(), stdout);
  (void)std::fputc('\n', stdout);
  (void)std::fflush(stdout);
}

// Creates `path` as a FIFO unless one is there. `created` tells whether
// this run made it (and so removes it at the end).
bool MakeFifo(const std::string& path, bool& created) {
  created = false;
  if (mkfifo(path.c_str(), 0600) == 0) {
    created = true;
    return true;
  }
  struct stat st {};
  if (errno == EEXIST && stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode)) return true;
  std::cerr << "tallyvane-sim: cannot make FIFO " << path << ": "
            << (errno == EEXIST ? "exists and is not a FIFO" : std::strerror(errno)) << '\n';
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tallyvane_sim;
  Options options;
  bool help = false;
  std::string error;
  ReplayOptions replay;
  std::vector<char*> args;
  if (!TakeReplayOptions(argc, argv, replay, args, error) ||
      !ParseOptions(static_cast<int>(args.size()) - 1, args.data(), options, help, error)) {
    std::cerr << "tallyvane-sim: " << error << "\n\n" << kUsage << kReplayUsage;
    return 2;
  }
  if (help) {
    std::cout << kUsage << kReplayUsage;
    return 0;
  }

  struct sigaction action {};
  action.sa_handler = OnSignal;  // no SA_RESTART: poll() must return at once
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  (void)signal(SIGPIPE, SIG_IGN);  // cannot fail for a valid signal

  bool madeUplink = false;
  bool madeDownlink = false;
  if (!MakeFifo(options.uplink, madeUplink)) return 2;
  if (!MakeFifo(options.downlink, madeDownlink)) {
    if (madeUplink) unlink(options.uplink.c_str());
    return 2;
  }
  // O_RDWR on both: opening never waits for or fails on the absent other
  // side, the downlink never reports end-of-file when a writer leaves, and
  // uplink frames wait in the pipe until the updater reads them.
  const int down = open(options.downlink.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  const int up = open(options.uplink.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (down < 0 || up < 0) {
    std::cerr << "tallyvane-sim: cannot open the FIFOs: " << std::strerror(errno) << '\n';
    if (madeUplink) unlink(options.uplink.c_str());
    if (madeDownlink) unlink(options.downlink.c_str());
    return 2;
  }

  if (!replay.path.empty()) {
    const int status = RunReplay(replay, options, down, up, gStop, PrintLine);
    close(up);
    close(down);
    if (madeUplink) unlink(options.uplink.c_str());
    if (madeDownlink) unlink(options.downlink.c_str());
    return status;
  }

  UplinkWriter uplink(up, options, PrintLine);
  Board board(
      options,
      [&uplink](Bytes packet, std::chrono::milliseconds delay, std::string what) {
        uplink.Queue(std::move(packet), delay, std::move(what));
      },
      PrintLine);
  board.WriteVersionFile(options.boardVersion);
  PrintLine("READY uplink=" + options.uplink + " downlink=" + options.downlink);

  DownlinkParser parser;
  while (gStop == 0 && !board.ApplyRequested()) {
    const auto wait = uplink.TimeToNext(std::chrono::milliseconds(100));
    pollfd pfd{down, POLLIN, 0};
    const int ready = poll(&pfd, 1, static_cast<int>(wait.count()));
    if (ready > 0 && (pfd.revents & POLLIN) != 0) {
      std::uint8_t buffer[4096];
      const ssize_t n = read(down, buffer, sizeof buffer);
      if (n > 0) parser.Feed(buffer, static_cast<std::size_t>(n));
    }
    DownlinkParser::Frame frame;
    while (parser.Next(frame)) {
      if (const std::size_t skipped = parser.TakeSkipped()) {
        PrintLine("WARN skipped " + std::to_string(skipped) + " downlink bytes");
      }
      board.OnFrame(frame.channel, frame.payload);
      if (board.ApplyRequested()) break;
    }
    if (const std::size_t skipped = parser.TakeSkipped()) {
      PrintLine("WARN skipped " + std::to_string(skipped) + " downlink bytes");
    }
    uplink.Pump();
  }

  // The acknowledgement of ApplyUpdate, and anything else due, still goes out.
  uplink.Pump();
  uplink.Flush();
  const bool ok = board.Finish();
  close(up);
  close(down);
  if (madeUplink) unlink(options.uplink.c_str());
  if (madeDownlink) unlink(options.downlink.c_str());
  return ok ? 0 : 1;
}
