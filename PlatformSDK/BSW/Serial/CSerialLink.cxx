/// The life of a port: who may open, reopen and close the line, and how the receive thread hears of it. The
/// order of locks is m_portMutex before those of CSerial.
#include "BSW/Serial/CSerialLink.h"

#include <chrono>
#include <utility>

#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"

namespace {

constexpr int kLineTimeoutMs = 3000;

}  // namespace

CSerialLink::CSerialLink(const std::string& name, uint32_t maxRecvLen, std::string master, std::string slaver)
    : m_recvMaxLen(maxRecvLen),
      m_SerialMasterName(std::move(master)),
      m_SerialSlaverName(std::move(slaver)),
      m_Name("SP:" + name),
      m_Thread(m_Name, *this) {}

bool CSerialLink::CreateSerial(const UART_MNG_INFO_S* info) {
  // A thread that a callback stopped is still to be joined.
  if (!IsReceiving()) m_Thread.DestroyThread(false, true);
  {
    const CLock lock(m_portMutex);
    if (info == nullptr || m_bStopping || !_OpenLine(*info)) {
      m_bRunFlag = false;
      m_pCSerial->Close();
      LOGW("OPEN SERIAL ERROR!");
      return false;
    }
  }
  if (IsReceiving() || m_Thread.CreateThread(0)) return true;
  LOGE("Cannot start the receive thread %s", m_Name.c_str());
  DestroySerial();
  return false;
}

bool CSerialLink::DestroySerial() {
  {
    const CLock lock(m_portMutex);
    m_bStopping = true;
    m_bRunFlag = false;
  }
  const bool joined = m_Thread.DestroyThread(true, true);
  {
    const CLock lock(m_portMutex);
    m_pCSerial->Close();
    ++m_iLine;
    m_bStopping = false;
  }
  LineClosed();
  return joined;
}

bool CSerialLink::RestartSerial(const UART_MNG_INFO_S* info) {
  const CLock lock(m_portMutex);
  if (info != nullptr && !m_bStopping && _Reopen(*info)) return true;
  LOGE("Restart Serial error!");
  return false;
}

void CSerialLink::Recover(uint32_t number) {
  const CLock lock(m_portMutex);
  if (number != m_iLine || !m_bRunFlag) return;
  LOGE("SerialPort error restart");
  if (!_Reopen(m_serialInfo)) LOGE("Restart Serial error!");
}

bool CSerialLink::_Reopen(const UART_MNG_INFO_S& info) {
  m_bRunFlag = false;
  m_pCSerial->Close();
  // A reopening that fails is tried again with these.
  if (&info != &m_serialInfo) m_serialInfo = info;
  return _OpenLine(m_serialInfo);
}

bool CSerialLink::_OpenLine(const UART_MNG_INFO_S& info) {
  if (!m_pCSerial->Open(&info, kLineTimeoutMs)) return false;
  if (&info != &m_serialInfo) m_serialInfo = info;
  {
    const CLock lock(m_nameMutex);
    if (!info.strMasterType.empty()) m_SerialMasterName = info.strMasterType;
    if (!info.strSlaverType.empty()) m_SerialSlaverName = info.strSlaverType;
  }
  ++m_iLine;
  m_bRunFlag = true;
  m_cvUsable.NotifyAll();
  return true;
}

bool CSerialLink::WaitUntilUsable(uint32_t idleMs) {
  const CLock lock(m_portMutex);
  m_cvUsable.WaitFor(m_portMutex, std::chrono::milliseconds(idleMs),
                     [this]() REQUIRES(m_portMutex) { return m_bRunFlag || !IsReceiving(); });
  return m_bRunFlag;
}

bool CSerialLink::IsUsable() const {
  const CLock lock(m_portMutex);
  return m_bRunFlag;
}

void CSerialLink::_WakeReceiver() {
  {
    // The thread either has yet to look at its run flag, or waits already.
    const CLock lock(m_portMutex);
  }
  m_cvUsable.NotifyAll();
  m_pCSerial->Interrupt();
}

void CSerialLink::ModifySerialName(const std::string& master, const std::string& slaver) {
  const CLock lock(m_nameMutex);
  m_SerialMasterName = master;
  m_SerialSlaverName = slaver;
}

void CSerialLink::DumpFrame(SerialName from, SerialDataType type, const char* data, int length) const {
  if (data == nullptr || length < 0) return;
  std::string sender;
  std::string receiver;
  {
    const CLock lock(m_nameMutex);
    sender = m_SerialMasterName;
    receiver = m_SerialSlaverName;
  }
  if (from == SERIAL_NAME_RECV) sender.swap(receiver);
  const auto size = static_cast<size_t>(length);
  if (type == SERIAL_DATA_HEX) {
    CLog::instance()->Access("%s, len = %02d, %s", (sender + "->" + receiver).c_str(), length,
                             HexText(data, size).c_str());
  } else {
    LOGD("%s -> %s : %s", sender.c_str(), receiver.c_str(), std::string(data, size).c_str());
  }
}
