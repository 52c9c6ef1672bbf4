/// What a radio module says: the thread that takes the received bytes in their order, understands them by the
/// state of the run and sets the flag of each answer. Two answers it gives itself, because the module does
/// not wait: the pre-loader's image and the echo of its check value.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>

#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/RtxSubmodules/RtxLine.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"
#include "common/Condition.h"

/// The exchange owns it, starts and stops its thread; the state thread calls what is public.
class RtxParser final : public CThread {
 public:
  /// All of it outlives the parser.
  RtxParser(RtxLine& line, CFlags& flags, const std::atomic<Rtx::UpgradeStateType>& state);

  /// The pre-loader that the module may ask for from now on.
  void OfferPreLoader(Rtx::Bytes image);
  /// Forgets what came before a request, so that nothing stale is taken for its answer.
  void ClearAnswers(uint32_t flags);
  /// Forgets all of one module, so that nothing of it reaches the next. The line is closed.
  void _CleanCache();

  /// The check value that the module gave for the flash loader.
  [[nodiscard]] uint8_t FlashLoaderCrc() const { return m_iFlCrcRecv; }
  /// The CRC-32 of the flash that the flash loader gave.
  [[nodiscard]] uint32_t FlashCrc() const { return m_iCrcRecv; }

 private:
  void ThreadProc() override;
  void OnStopRequested() override;

  /// The port's receive thread.
  int _UartRecvHandler(const void* data, short length);

  void _ParseUartData(const Rtx::Bytes& chunk);
  void _ParsePreLoaderData(const Rtx::Bytes& chunk);
  void _SendPreLoader();
  void _ParseBaudRateData(const Rtx::Bytes& chunk);
  void _ProcFlPacketData(const Rtx::Bytes& chunk);
  void _ProcConfirmation(const Rtx::FlPayload_t& payload);

  RtxLine& m_line;
  CFlags& m_flags;
  const std::atomic<Rtx::UpgradeStateType>& m_emState;

  std::shared_ptr<const Rtx::Bytes> m_vecPreloader GUARDED_BY(m_flags.Mutex());
  Rtx::RtxPacketJoiner m_joiner GUARDED_BY(m_flags.Mutex());
  std::atomic<uint8_t> m_iPlCrc{0};  ///< check value of the pre-loader
  std::atomic<uint8_t> m_iFlCrcRecv{0};
  std::atomic<uint32_t> m_iCrcRecv{0};

  CMutex m_UartDataLock;
  CCondition m_cvUartRecvCtrl;
  std::deque<Rtx::Bytes> m_deqUartRecvList GUARDED_BY(m_UartDataLock);
  bool m_bParsing GUARDED_BY(m_UartDataLock) = false;  ///< a chunk is in hand
};
