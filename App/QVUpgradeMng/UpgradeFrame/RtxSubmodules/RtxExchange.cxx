/// One run, in the order of the states:
///
///   module                          base station
///                                   line at 19200; gets the module to start its boot ROM
///   STX                        -->
///                              <--  SOH, image length low, high
///   ACK                        -->
///                              <--  pre-loader image
///   XOR of the image           -->
///                              <--  the same byte, when it is right: the pre-loader starts
///                              <--  PRELOAD_START
///   PRELOAD_READY              -->
///                              <--  BAUD_230400 three times; both change the line's speed
///                              <--  NEW_BAUDRATE
///   NEW_BAUDRATE_READY         -->
///                              <--  image length high, low; flash-loader image
///   XOR of the image           -->  the flash loader runs: packets from here on
///                              <--  read version, write config
///                              <--  erase for each sector, program for each 2048 bytes, CRC for each block
///   a confirmation of each     -->
///
/// The module says nothing unasked, and each answer is waited for. The two length headers differ in their
/// byte order, and the check value of the pre-loader has a wait of its own: the modules are like that.
#include "UpgradeFrame/RtxSubmodules/RtxExchange.h"

#include <algorithm>
#include <array>
#include <utility>

#include "BSW/BasicFun/Crc.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

using namespace Rtx;

namespace {

constexpr uint32_t kBaudRatePauseMs = 10;
/// For the pre-loader's check value the wait that is meant in milliseconds counts in seconds.
constexpr int kPreLoaderCrcWaits = 1000;

uint8_t LowByte(size_t value) {
  return static_cast<uint8_t>(value & 0xFFU);
}

uint8_t HighByte(size_t value) {
  return static_cast<uint8_t>(value >> 8U & 0xFFU);
}

}  // namespace

const RtxExchange::State& RtxExchange::_StateOf(UpgradeStateType state) {
  static const std::array<State, EM_STATE_MAX> states = {{
      {"Idle", &RtxExchange::_HandleIdleState, EM_STATE_INIT},
      {"Init", &RtxExchange::_HandleInitState, EM_STATE_ENTER_BOOT},
      {"EnterBoot", &RtxExchange::_HandleEnterBootState, EM_STATE_DL_PRE_LOADER},
      {"DlPreLoader", &RtxExchange::_HandleDlPreLoaderState, EM_STATE_CHANGE_BAUD_RATE},
      {"ChangeBaudRate", &RtxExchange::_HandleChangeBaudRateState, EM_STATE_DL_FLASH_LOADER},
      {"DlFlashLoader", &RtxExchange::_HandleDlFlashLoaderState, EM_STATE_WRITE_CFG_OF_FLASH},
      {"WriteCfgOfFlash", &RtxExchange::_HandleWriteCfgOfFlashState, EM_STATE_DL_FIRMWARE},
      {"DlFirmware", &RtxExchange::_HandleDlFirmwareState, EM_STATE_SUCCESS},
      {"Success", &RtxExchange::_HandleSuccessState, EM_STATE_IDLE},
      {"Failed", &RtxExchange::_HandleFailedState, EM_STATE_IDLE},
  }};
  return states.at(state);
}

// ---------------------------------------------------------------------------------------------- lifecycle

RtxExchange::RtxExchange(const char* threadName, const char* uartName, int waitTime, IRtxHost& host)
    : CThread(threadName), m_host(host), m_line(uartName, waitTime, m_flags) {}

bool RtxExchange::Open() {
  if (IsRunning() || (CreateThread(0) && m_UartHandler.CreateThread(0))) return true;
  LOGE("Cannot start the threads of an RTX upgrade");
  Close();
  return false;
}

bool RtxExchange::Close() {
  if (HasCrashed()) return true;
  m_UartHandler.DestroyThread(true, false);
  RequestStop();
  m_line.Close();
  const bool parserEnded = m_UartHandler.DestroyThread(false, true);
  if (!DestroyThread(false, true) || !parserEnded) return false;
  m_line.Close();  // the state thread may have opened it meanwhile
  m_UartHandler._CleanCache();
  m_deqFwData.clear();
  m_emLastState = EM_STATE_MAX;
  const CLock lock(m_flags.Mutex());
  m_emState = EM_STATE_IDLE;
  m_bStart = false;
  return true;
}

bool RtxExchange::StartRun(const char* device) {
  const CLock runLock(m_RunLock);
  const CLock lock(m_flags.Mutex());
  if (!IsRunning() || _RunUnderWay() || !m_line.SetDevice(device)) return false;
  m_flags.Clear(kModuleFlags);
  m_flags.BeginHeld();
  m_bStart = true;
  m_flags.Notify();
  return true;
}

void RtxExchange::AbortRun() {
  const CLock runLock(m_RunLock);
  {
    const CLock lock(m_flags.Mutex());
    if (!_RunUnderWay()) return;
    m_flags.EndHeld();
  }
  m_line.Close();
}

// ------------------------------------------------------------------------------------------ state machine

void RtxExchange::ThreadProc() {
  while (IsRunning()) {
    _HandleState();
    Pause(EM_CFG_SLEEP_TIME);
  }
}

/// A handler that names its own state again ends the run: whatever it waits for, it would wait for ever.
void RtxExchange::_HandleState() {
  const UpgradeStateType state = m_emState;
  const State& row = _StateOf(state);
  UpgradeStateType next = row.next;
  Failure failure;
  if (state == m_emLastState) {
    LOGE("State no change!ErrVal:%s", row.name);
    failure = Fail(Reason::PartAnswer, "state %s does not change", row.name);
    next = EM_STATE_IDLE;
  } else {
    failure = (this->*row.handler)();
    const bool hasSecond = m_line.Module() == 2 && !m_flags.Has(EM_FLAG_UPG_RTX2_SUCCESS);
    if (state == EM_STATE_SUCCESS && hasSecond) next = EM_STATE_ENTER_BOOT;
    if (failure) next = EM_STATE_FAILED;
  }
  m_emLastState = state;
  if (failure) {
    m_emFailedState = state;
    m_failure = std::move(failure);
  }
  if (!IsRunning()) return;
  if (next == EM_STATE_IDLE) {
    m_line.Close();
    m_deqFwData.clear();
    // Before the exchange is idle: whoever starts the next run must not hear the end of this one.
    m_host.RunEnded(m_line.Module(), m_failure);
  }
  _ToggleState(next);
}

std::string RtxExchange::FailureText() const {
  return std::string(m_flags.Ending() ? "stopped in " : "failed in ") + _StateOf(m_emFailedState).name;
}

void RtxExchange::_ToggleState(UpgradeStateType state) {
  const CLock lock(m_flags.Mutex());
  if (state == m_emState) {
    LOGW("UpgradeRtx is in state [%s] already", _StateOf(state).name);
    return;
  }
  LOGI("UpgradeRtx StateMachine change [%s] ----> [%s]", _StateOf(m_emState).name, _StateOf(state).name);
  m_emState = state;
  m_bStart = false;
}

Failure RtxExchange::_HandleIdleState() {
  const CLock lock(m_flags.Mutex());
  while (!m_bStart && IsRunning()) m_flags.WaitOnce();
  m_failure = {};
  return {};
}

Failure RtxExchange::_HandleInitState() {
  std::string directory;
  if (Failure failure = m_host.PrepareFiles(directory)) return failure;
  return m_files.FindIn(directory);
}

Failure RtxExchange::_HandleEnterBootState() {
  m_UartHandler._CleanCache();
  if (Failure failure = m_line.Open()) return failure;
  m_host.EnterBoot(m_line.Module());
  return m_line.WaitFor(EM_FLAG_RECV_STX, "Waiting for STX timeout");
}

/// The parser sends the image, when the module has taken the announcement.
Failure RtxExchange::_HandleDlPreLoaderState() {
  Bytes image;
  if (Failure failure = RtxFiles::LoadImage(m_files.m_strPreLoaderFile, image)) return failure;
  const Bytes header = {EM_CFG_SOH_CHAR, LowByte(image.size()), HighByte(image.size())};
  m_UartHandler.OfferPreLoader(std::move(image));
  m_UartHandler.ClearAnswers(EM_FLAG_RECV_PL_CRC | EM_FLAG_RECV_CORRECT_CRC);
  if (Failure failure = _AskRaw(header, EM_FLAG_RECV_PL_ACK, "Waiting for ACK of pre loader timeout")) {
    return failure;
  }
  const std::string onTimeout = FormatText("Waiting for CRC of pre loader timeout.m_bRecvPlCrc%d", 0);
  if (Failure failure = m_line.WaitFor(EM_FLAG_RECV_PL_CRC, onTimeout, kPreLoaderCrcWaits)) return failure;
  LOGI("get CRC");
  if (m_flags.Has(EM_FLAG_RECV_CORRECT_CRC)) return {};
  return Fail(Reason::PartVerify, "pre-loader: wrong check value, or the image did not go out");
}

Failure RtxExchange::_HandleChangeBaudRateState() {
  if (Failure failure =
          _AskRaw({EM_PRELOAD_START}, EM_FLAG_PL_READY, "Waiting for EM_PRELOAD_READY timeout")) {
    return failure;
  }
  if (Failure failure = m_line._SendRaw(Bytes(3, EM_PRELOADER_BAUD_230400))) return failure;
  Pause(kBaudRatePauseMs);  // until they are out
  if (Failure failure = m_line.SpeedUp()) return failure;
  return _AskRaw({EM_PRELOAD_NEW_BAUDRATE}, EM_FLAG_BAUDREADY, "Waiting for EM_PRELOAD_NEW_BAUDRATE timeout");
}

Failure RtxExchange::_HandleDlFlashLoaderState() {
  Bytes image;
  if (Failure failure = RtxFiles::LoadImage(m_files.m_strFlashLoaderFile, image)) return failure;
  const uint8_t crc = CrcXor(image.data(), image.size());
  m_UartHandler.ClearAnswers(EM_FLAG_RECV_FL_CRC);
  if (Failure failure = m_line._SendRaw({HighByte(image.size()), LowByte(image.size())})) return failure;
  if (Failure failure = m_line._SendRaw(image)) return failure;
  if (Failure failure = m_line.WaitFor(EM_FLAG_RECV_FL_CRC, "Waiting for CRC of flash loader timeout")) {
    return failure;
  }
  const uint8_t received = m_UartHandler.FlashLoaderCrc();
  if (received == crc) return {};
  LOGE("Recv error CRC!RightVal:%02X, RecvVal:%02X", crc, received);
  return Fail(Reason::PartVerify, "flash loader: check value %02X, expected %02X", received, crc);
}

Failure RtxExchange::_HandleWriteCfgOfFlashState() {
  if (Failure failure = _Ask(ReadVersionRequest(), EM_READ_SW_VERSION_CFM)) return failure;
  return _Ask(WriteConfigRequest(), EM_WRITE_CONFIG_CFM);
}

Failure RtxExchange::_HandleDlFirmwareState() {
  if (Failure failure = _ParseFwFile()) return failure;
  if (Failure failure = _EraseSectors()) return failure;
  if (Failure failure = _ProgramSectors()) return failure;
  return _VerifySectors();
}

Failure RtxExchange::_ParseFwFile() {
  if (!m_deqFwData.empty()) {
    LOGI("upg rtx2 no need parse again.");
    return {};
  }
  if (IntelHexReader().ReadFile(m_files.m_strFirmwareFile, m_deqFwData)) return {};
  return Fail(Reason::PartImage, "%s is no usable firmware", m_files.m_strFirmwareFile.c_str());
}

Failure RtxExchange::_EraseSectors() {
  if (m_deqFwData.empty()) {
    LOGE("Empty firmware data.");
    return Fail(Reason::PartImage, "Empty firmware data.");
  }
  for (const FwData_t& block : m_deqFwData) {
    LOGI("Erase from 0x%08X to 0x%08X", block.m_iStartAddr, block.m_iEndAddr);
    for (const uint32_t address : SectorsOf(block)) {
      if (Failure failure = _Ask(EraseRequest(address), EM_FLASH_ERASE_CFM)) return failure;
    }
  }
  return {};
}

Failure RtxExchange::_ProgramSectors() {
  size_t total = 0;
  for (const FwData_t& block : m_deqFwData) {
    total += (block.m_vecData.size() + kProgramChunk - 1) / kProgramChunk;
  }
  size_t done = 0;
  for (const FwData_t& block : m_deqFwData) {
    const size_t blockSize = block.m_vecData.size();
    for (size_t at = 0; at < blockSize; at += kProgramChunk) {
      const size_t size = std::min(kProgramChunk, blockSize - at);
      const auto address = static_cast<uint32_t>(block.m_iStartAddr + at);
      CLog::instance()->Module(kTraceLog, "Program addr:0x%08X, size:%zu, at:%zu of %zu", address, size, at,
                               blockSize);
      const Bytes request = ProgramRequest(address, &block.m_vecData[at], size);
      if (Failure failure = _Ask(request, EM_PROG_FLASH_CFM)) return failure;
      m_host.ChunkProgrammed(m_line.Module(), ++done, total);
    }
  }
  return {};
}

Failure RtxExchange::_VerifySectors() {
  for (const FwData_t& block : m_deqFwData) {
    const uint32_t length = VerifyLength(block);
    LOGI("Verify addr:0x%08X, size:%zu, length:%u", block.m_iStartAddr, block.m_vecData.size(), length);
    const Bytes request = CalcCrc32Request(block.m_iStartAddr, length);
    if (Failure failure = _Ask(request, EM_CALC_CRC32_CFM)) return failure;
    const uint32_t received = m_UartHandler.FlashCrc();
    if (received == block.m_iCrc) continue;
    LOGE("Crc not right!Store:0x%08X, Recv:0x%08X", block.m_iCrc, received);
    return Fail(Reason::PartVerify, "flash at 0x%08X: CRC 0x%08X, expected 0x%08X", block.m_iStartAddr,
                received, block.m_iCrc);
  }
  return {};
}

Failure RtxExchange::_HandleSuccessState() {
  m_line.Close();
  m_UartHandler._CleanCache();
  const bool second = m_flags.Has(EM_FLAG_UPGING_RTX2);
  const char* const nextDevice = m_host.ModuleSucceeded(m_line.Module());
  m_flags.Set(second ? EM_FLAG_UPG_RTX2_SUCCESS : EM_FLAG_UPG_RTX1_SUCCESS);
  if (second || nextDevice == nullptr) return {};
  m_flags.Set(EM_FLAG_UPGING_RTX2);
  if (m_line.SetDevice(nextDevice)) return {};
  return Fail(Reason::PartDevice, "%s is no device", nextDevice);
}

Failure RtxExchange::_HandleFailedState() {
  m_line.Close();
  m_UartHandler._CleanCache();
  return {};
}

Failure RtxExchange::_AskRaw(const Bytes& bytes, FlagType answer, const char* onTimeout) {
  m_UartHandler.ClearAnswers(answer);
  if (Failure failure = m_line._SendRaw(bytes)) return failure;
  return m_line.WaitFor(answer, onTimeout);
}

Failure RtxExchange::_Ask(const Bytes& payload, FlPrimitiveIdType confirmation) {
  const Confirmation& expected = *FindConfirmation(confirmation);
  m_UartHandler.ClearAnswers(expected.flag);
  if (Failure failure = m_line._SendPacket(payload)) return failure;
  return m_line.WaitFor(expected.flag, expected.onTimeout);
}
