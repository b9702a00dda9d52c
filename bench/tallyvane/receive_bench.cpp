// Parsing cost of one full 1024-byte read of the board's device. Acks are
// used because their handler prints nothing, so the figures are the parser's
// and the pending queue's, not the console's.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "helpers/tallyvane/tallyvane.hpp"
#include "vyrcam/packets.hpp"

namespace {

std::vector<std::uint8_t> ReadOfAcks() {
  std::vector<std::uint8_t> read;
  for (unsigned sequence = 0;; ++sequence) {
    VYRCam::DatalinkPacketAck ack(static_cast<std::uint8_t>(sequence), true);
    const auto length = static_cast<std::size_t>(ack.Length());
    if (read.size() + 2 + length > 1024) break;
    read.push_back(0xAA);
    read.push_back(0xA9);
    read.resize(read.size() + length);
    ack.Pack(read.data() + read.size() - length);
  }
  return read;
}

void BM_ParseReadOfAcks(benchmark::State& state) {
  Updater::Helpers::Tallyvane helper("/nonexistent");
  const auto read = ReadOfAcks();
  for (auto _ : state) helper.Link().Receive(read.data(), read.size());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * read.size()));
}
BENCHMARK(BM_ParseReadOfAcks);

}  // namespace
