/// The line to the portable part under way: two ports with one framing each, of which the part speaks one,
/// the commands that go out and the answers that come in. An answer sets its flag; versions are kept.
///
/// Opening and closing come from the state thread and from plug-outs; they take turns, and the lock of the
/// flags is never held meanwhile, because a receive thread that is waited for may want it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/Serial/SerialProtocolMng.h"
#include "BSW/Serial/UartMngInfo.h"
#include "UpgradePp/OldProtocol/OldProtocol.h"
#include "UpgradePp/PpTypes.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member, unless said otherwise.
class PpLink {
 public:
  using Bytes = std::vector<uint8_t>;
  using ProtocolType = UpgPp::ProtocolType;

  /// What became of a request.
  enum class Answer {
    Came,
    TimedOut,
    GivenUp,  ///< it could not be sent, which is logged, or the flags are ending
  };

  static constexpr std::chrono::milliseconds m_iWaitTime{1000};  ///< for an acknowledgement of an upgrade
  static constexpr std::chrono::seconds m_i7204UpgTime{180};     ///< for a 7204's user to agree

  /// Both ports are closed. `flags` outlives this. `onReady` is called on the receive thread of the newer
  /// frames with no lock held, when a part reports that it is ready.
  PpLink(CFlags& flags, std::function<void()> onReady);

  /// Names this end in dumps. Before the first opening.
  void SetStationName(const std::string& name) EXCLUDES(m_portMutex);
  /// Closes both ports and ends all threads, for good; once the flags are ending nothing opens them again.
  void CleanUp();

  /// Opens the port of `type` on `device`; true also when it is open. False without EM_FLAG_PLUG_IN: a device
  /// that went is not opened any more. Neither this nor closing on a receive thread.
  bool OpenUart(ProtocolType type, const std::string& device) EXCLUDES(m_portMutex, m_flags.Mutex());
  bool CloseUart(ProtocolType type) EXCLUDES(m_portMutex, m_flags.Mutex());
  void CloseUarts() EXCLUDES(m_portMutex, m_flags.Mutex());
  /// Closes both ports if they were opened last on `device`.
  void CloseUartsOf(const std::string& device) EXCLUDES(m_portMutex, m_flags.Mutex());

  /// The protocol that the part is assumed to speak, and with which commands go out.
  void SetProtocol(ProtocolType type) { m_emProtoclType = type; }
  [[nodiscard]] ProtocolType Protocol() const { return m_emProtoclType; }
  static const char* TraceProtocolType(ProtocolType type);

  /// Sends one command. The legacy protocol has but the version request.
  bool SendCmd(uint16_t cmd, const Bytes& data = {});
  /// Sends a frame that is built already, on the newer protocol's port.
  bool SendBuiltFrame(const Bytes& frame) EXCLUDES(m_portMutex);
  /// Clears `flags`, sends, and waits until one of them is set.
  Answer Request(uint16_t cmd, uint32_t flags, std::chrono::milliseconds time, const Bytes& data = {})
      EXCLUDES(m_flags.Mutex());
  /// The version request of the assumed protocol.
  Answer RequestVersion(std::chrono::milliseconds time) EXCLUDES(m_flags.Mutex());

  /// What the part reported last, or is taken for until it does.
  PpInfo_t Info() EXCLUDES(m_flags.Mutex());
  /// Forgets what the part reported; `type` is what it is taken for until it reports.
  void CleanInfo(UpgPp::PpType type = UpgPp::EM_PP_MAX) EXCLUDES(m_flags.Mutex());

 private:
  using ProtocolData_t = SerialProtocolMng::ProtocolData_t;

  bool _CloseUart(ProtocolType type) REQUIRES(m_portMutex);
  void _CloseBoth() REQUIRES(m_portMutex);
  CSerialLink& _Port(ProtocolType type);
  void _PrintPorts(const char* action) const;

  // The receive threads.
  bool _ProtocolDataRecvCb(const ProtocolData_t& data);
  bool _UnpackNewFrame(const ProtocolData_t& data);
  bool _OldProtocolRecvCb(const OldProtocol::Frame_t& frame);
  bool _UnpackOldFrame(const OldProtocol::Frame_t& frame);
  bool _ProcVerInfo(const ProtocolData_t& data);
  bool _ProcSendFwInfoAck(const Bytes& data);
  bool _ProcAck(const Bytes& data, uint32_t flag, const char* handler);
  bool _TakeVersion(ProtocolType protocol, const PpInfo_t& info);

  CFlags& m_flags;
  const std::function<void()> m_onReady;
  std::atomic<ProtocolType> m_emProtoclType{UpgPp::EM_PROT_72_NEW};
  PpInfo_t m_stPpInfo GUARDED_BY(m_flags.Mutex());

  CMutex m_portMutex;  ///< serialises opening and closing; taken before the lock of the flags
  UART_MNG_INFO_S m_UartInfo GUARDED_BY(m_portMutex);
  const std::shared_ptr<OldProtocol> m_pOldProtocol;
  const std::shared_ptr<SerialProtocolMng> m_pNewProtocol;
};
