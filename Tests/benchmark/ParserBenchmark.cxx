// How fast the parsers of the serial links take sound frames, in bytes per second of line data. Run by hand;
// see Docs/performance.md.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Serial/McuFrame.h"
#include "BSW/Serial/McuFrameParser.h"
#include "BSW/Serial/SerialLineReader.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

namespace {

constexpr size_t kFrames = 1000;

// `frame` ended by its check byte, many times in a row.
std::vector<uint8_t> Repeat(std::vector<uint8_t> frame) {
  frame.push_back(CrcXor(frame.data(), frame.size()));
  std::vector<uint8_t> all;
  for (size_t i = 0; i < kFrames; ++i) all.insert(all.end(), frame.begin(), frame.end());
  return all;
}

void McuFrames(benchmark::State& state) {
  std::vector<uint8_t> frame = {0xAA, 0xDD, 0x07, 0x02, 0x01, 0x90, 0x02, 0x00, 0x02, 0x01, 0xA3};
  frame.resize(frame.size() + 512, 0x5A);
  const std::vector<uint8_t> line = Repeat(frame);
  while (state.KeepRunning()) {
    McuFrameParser parser(line.data(), line.size(), McuFrame::EM_UART_MSG_MAX_LEN);
    size_t found = 0;
    while (parser.Next() == McuFrameParser::Found::Frame) {
      found += McuFrame::Unpack(parser.Frame(), parser.FrameSize()).has_value() ? 1U : 0U;
    }
    if (found != kFrames) state.SkipWithError("a frame was lost");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(line.size()));
}
BENCHMARK(McuFrames);

// The counter says how many times longer 10 MiB of a byte that could begin a frame take than 1 MiB.
void McuGarbage(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  constexpr size_t kMebibyte = 1U << 20U;
  const std::vector<uint8_t> garbage(10 * kMebibyte, 0xAA);
  const auto seconds = [&](size_t size) {
    const auto start = Clock::now();
    McuFrameParser parser(garbage.data(), size, McuFrame::EM_UART_MSG_MAX_LEN);
    if (parser.Next() != McuFrameParser::Found::Nothing) state.SkipWithError("found a frame in garbage");
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  double one = 0;
  double ten = 0;
  while (state.KeepRunning()) {
    one += seconds(kMebibyte);
    ten += seconds(10 * kMebibyte);
  }
  state.counters["ten_to_one"] = ten / one;
}
BENCHMARK(McuGarbage);

void LegacyFrames(benchmark::State& state) {
  std::vector<uint8_t> frame = {0xAA, 0xDD, 0xB1, 0x00, 0x02};
  frame.resize(frame.size() + 512, 0x5A);
  const std::vector<uint8_t> line = Repeat(frame);
  std::vector<uint8_t> out(1024);
  while (state.KeepRunning()) {
    size_t at = 0;
    const auto refill = [&](char* buffer, int length) {
      const size_t count = std::min(line.size() - at, static_cast<size_t>(length));
      std::copy_n(line.begin() + static_cast<std::ptrdiff_t>(at), count, buffer);
      at += count;
      return static_cast<int>(count);
    };
    SerialLineReader reader(1024);
    size_t found = 0;
    while (reader.GetLine(out.data(), 1000, refill) > 0) ++found;
    if (found != kFrames) state.SkipWithError("a frame was lost");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(line.size()));
}
BENCHMARK(LegacyFrames);

void RtxPackets(benchmark::State& state) {
  const Rtx::Bytes packet = Rtx::PackFlPacket(Rtx::Bytes(2055, 0x12));
  while (state.KeepRunning()) {
    if (!Rtx::ParseFlPacket(packet)) state.SkipWithError("the packet was refused");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(packet.size()));
}
BENCHMARK(RtxPackets);

}  // namespace

BENCHMARK_MAIN();
