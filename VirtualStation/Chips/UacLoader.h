/// The boot loader of the USB audio chip, behind a USB serial adapter. Owned by Chips; tests and scenarios
/// make it misbehave and read what it holds. The protocol is told in the source file.
#pragma once

#include <mutex>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/Line.h"

namespace station {

/// All members: any thread.
class UacLoader {
 public:
  UacLoader();

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }
  Line& line() { return m_line; }

  /// All blocks of the transfer that came last, the padding of the last one included.
  Bytes Memory() const;
  /// The transfer came to its end.
  bool Complete() const;
  /// The loader starts anew; the memory remains.
  void PowerCycle();

 private:
  void _Receive(const Bytes& bytes);
  void _TimeOut();
  bool _TakeItem();
  void _TakeBlock(std::size_t size);
  void _Answer(Phase phase, std::uint8_t answer);

  Conduct m_conduct;
  mutable std::mutex m_mutex;  ///< guards the state below
  Bytes m_memory, m_input;
  bool m_underWay = false, m_complete = false;
  std::uint8_t m_nextBlock = 1;
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station
