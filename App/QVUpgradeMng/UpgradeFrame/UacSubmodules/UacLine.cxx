/// The port of the USB audio chip's boot loader.
#include "UpgradeFrame/UacSubmodules/UacLine.h"

#include "BSW/Log/CLog.h"

namespace {

constexpr uint32_t kMaxChunkBytes = 1024;

}  // namespace

UacLine::UacLine() : m_port("UAC", kMaxChunkBytes) {
  m_port.RegisterUartEventCallback([this](const void* data, short length) { return _Queue(data, length); });
}

UacLine::~UacLine() {
  Close();
}

bool UacLine::Open() {
  UART_MNG_INFO_S info;
  info.SetDevName(kDevice);
  info.eBaudRate = emSerialBaudRate_115200;
  info.eDataBits = emSerialDataBits_8;
  info.eStopBits = emSerialStopBits_1;
  info.eParity = emSerialParity_None;
  info.eFlowControl = emSerialFlowControl_None;
  return m_port.CreateSerial(&info);
}

void UacLine::Close() {
  m_port.DestroySerial();
}

int UacLine::Receive(std::chrono::milliseconds time) {
  const CLock lock(m_mutex);
  m_cond.WaitFor(m_mutex, time, [this]() REQUIRES(m_mutex) { return m_bStopped || !m_received.empty(); });
  if (m_bStopped) return kStopped;
  if (m_received.empty()) return kSilence;
  const int byte = m_received.front();
  m_received.pop_front();
  return byte;
}

void UacLine::Purge() {
  const CLock lock(m_mutex);
  m_received.clear();
}

bool UacLine::Send(const uint8_t* data, size_t size) {
  const auto length = static_cast<int>(size);
  return m_port.SendFrame(reinterpret_cast<const char*>(data), length) == length;
}

void UacLine::Stop() {
  const CLock lock(m_mutex);
  m_bStopped = true;
  m_cond.NotifyAll();
}

int UacLine::_Queue(const void* data, short length) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  const CLock lock(m_mutex);
  m_received.insert(m_received.end(), bytes, bytes + length);
  m_cond.NotifyAll();
  return 0;
}
