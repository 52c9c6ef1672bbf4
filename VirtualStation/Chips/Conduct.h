/// How a chip behaves: the phases that it has been through, and the faults that a test wants of it. Each chip
/// owns one; tests arm it and wait on it, the chip asks it before every answer.
#pragma once

#include <chrono>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VirtualStation/Chips/Bytes.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// The phases of the chips, one row each: its name, and what a display calls it. A phase is reached when its
/// request has come in whole, before it is answered.
// clang-format off
#define STATION_PHASES(X) \
  X(RtxRom, "boot loader")                      /* reset into the boot loader; answer: STX */ \
  X(RtxPreLoaderHeader, "pre-loader announced") /* length of the pre-loader; answer: ACK */ \
  X(RtxPreLoaderImage, "pre-loader")            /* answer: its check byte */ \
  X(RtxPreLoaderEcho, "pre-loader confirmed")   /* the host agrees, it runs; no answer */ \
  X(RtxStart, "pre-loader runs")                /* answer: READY */ \
  X(RtxSpeed, "new speed")                      /* the chip works at it from now on; no answer */ \
  X(RtxSpeedReady, "new speed confirmed")       /* the host talks at the new speed; answer: NEW_BAUDRATE_READY */ \
  X(RtxFlashLoader, "flash loader")             /* the whole flash loader; answer: its check byte */ \
  X(RtxVersion, "version")                      /* the rest: packets and confirmations */ \
  X(RtxConfig, "flash settings") \
  X(RtxErase, "erase") \
  X(RtxProgram, "program") \
  X(RtxVerify, "verify") \
  X(McuVersion, "version") \
  X(McuEnterBoot, "boot loader") \
  X(McuFirmwareInfo, "firmware description") \
  X(McuPackage, "package") \
  X(McuDone, "done") \
  X(UacInvite, "invitation")                    /* a 'C' goes out */ \
  X(UacBlock, "block")                          /* answer: ACK */ \
  X(UacEnd, "end")                              /* answer: ACK */ \
  X(FpgaPiece, "piece")                         /* one write to the device */ \
  X(FpgaEnd, "end")                             /* the device was closed */ \
  X(PpVersion, "version") \
  X(PpStart, "start") \
  X(PpFirmwareInfo, "firmware description") \
  X(PpPacket, "packet") \
  X(PpDone, "done") \
  X(PpRadioRequest, "radio handed over")        /* answer: the part passes bytes through from now on */ \
  X(PpRadioResult, "radio result") \
  X(PpFile, "file found")                       /* on the storage; answer: it restarts */
// clang-format on

#define STATION_PHASE_NAME(name, words) name,
enum class Phase { STATION_PHASES(STATION_PHASE_NAME) };
#undef STATION_PHASE_NAME
const char* Name(Phase phase);

enum class FaultKind {
  Silent,            ///< no answer from here on, until the faults are cleared
  StopAfter,         ///< hears `bytes` bytes more, then as Silent
  Unplug,            ///< the device vanishes in place of the answer (plug it in again through line())
  WrongCheck,        ///< the answer's check value is wrong; UAC: NAK
  Refuse,            ///< the answer is a no: status, another CRC-32, NAK in place of a byte; UAC: CAN
  WrongLength,       ///< a sound frame whose data is a byte short; in place of a single byte two of them
  WrongLengthField,  ///< frames only: the length field is one too large
  Garbage,           ///< as many other bytes in place of the answer
  CutAnswer,         ///< only the first `bytes` bytes of the answer
  Split,             ///< byte by byte, apart enough to be read apart
  Noise,             ///< `bytes` bytes of noise right before the answer
  Double,            ///< the answer twice in a row
  Late,              ///< the answer comes `bytes` milliseconds late
};

struct Fault {
  FaultKind kind;
  Phase phase;
  std::size_t bytes = 0;
  std::size_t after = 0;  ///< so many times the phase goes right first
  std::size_t times = std::numeric_limits<std::size_t>::max();
};

/// All members: any thread.
class Conduct {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Faults = std::map<FaultKind, std::size_t>;  ///< kinds that strike now, each with its bytes

  /// With these faults armed.
  explicit Conduct(std::vector<Fault> faults = {}) : m_faults(std::move(faults)) {}

  void Add(const Fault& fault);
  /// Disarms every fault; a silent chip is well again. The phases stay.
  void ClearFaults();
  /// Forgets the phases too.
  void Clear();

  /// Waits until `phase` has been reached `count` times since the last Clear. False when time is up.
  bool WaitFor(Phase phase, Milliseconds timeout, std::size_t count = 1) const;
  std::size_t Count(Phase phase) const;
  /// The phases in order, one that repeats at once with how often.
  std::vector<std::pair<Phase, std::size_t>> Trail() const;

  /// For the chip: notes a phase and tells what goes wrong in it. A dead chip reaches nothing: no value.
  std::optional<Faults> Reach(Phase phase);
  /// For the chip: of `count` bytes that come in, the first so many are heard.
  std::size_t Hear(std::size_t count);

 private:
  mutable CMutex m_mutex;
  mutable CCondition m_reached;
  std::vector<Fault> m_faults GUARDED_BY(m_mutex);
  std::map<Phase, std::size_t> m_counts GUARDED_BY(m_mutex);
  std::vector<std::pair<Phase, std::size_t>> m_trail GUARDED_BY(m_mutex);
  std::size_t m_hears GUARDED_BY(m_mutex) =
      std::numeric_limits<std::size_t>::max();  ///< bytes left to hear; dead at 0
};

/// The phases in words, for a display.
std::string Words(const Conduct& conduct);

}  // namespace station
