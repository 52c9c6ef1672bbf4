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
#include <filesystem>
#include <functional>
#include <utility>

#include "BSW/BasicFun/Crc.h"
#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"
#include "UpgradeFrame/RtxSubmodules/IntelHexReader.h"
#include "UpgradeFrame/RtxSubmodules/RtxMessages.h"

using namespace Rtx;

namespace {

constexpr const char* kStationLabel = "RRU";
constexpr const char* kModuleLabel = "RTX";
constexpr const char* kPreLoaderName = "rtx-pre-loader.bin";
constexpr const char* kFlashLoaderName = "rtx-flash-loader.bin";
constexpr const char* kFirmwareSuffix = ".spihex";

/// What the length headers can say.
constexpr size_t kMaxImageBytes = 0xFFFF;
constexpr uint32_t kBaudRatePauseMs = 10;
/// A module answers and is silent; more than this can only be noise.
constexpr size_t kMaxQueuedChunks = 1024;

uint8_t LowByte(size_t value) {
  return static_cast<uint8_t>(value & 0xFFU);
}

uint8_t HighByte(size_t value) {
  return static_cast<uint8_t>(value >> 8U & 0xFFU);
}

bool Contains(const Bytes& chunk, uint8_t byte) {
  return std::find(chunk.begin(), chunk.end(), byte) != chunk.end();
}

/// Reads a loader image; false, logged, when it is missing, empty or too large for its header.
bool LoadImage(const std::string& path, Bytes& image) {
  std::string content;
  if (!ReadFileToString(path, kMaxImageBytes, content) || content.empty()) {
    LOGE("No usable image in %s (1 to %zu bytes)", path.c_str(), kMaxImageBytes);
    return false;
  }
  image.assign(content.begin(), content.end());
  return true;
}

/// The name of the firmware in `directory`, the first by name; empty when there is none. Hidden files are
/// what some systems leave beside the real ones.
std::string FindFirmware(const std::string& directory) {
  namespace fs = std::filesystem;
  std::string firmware;
  std::error_code error;
  for (auto entry = fs::directory_iterator(directory, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.front() == '.' || entry->path().extension() != kFirmwareSuffix) continue;
    if (!XIsRegularFile(entry->path().string())) continue;
    if (firmware.empty() || name < firmware) firmware = name;
  }
  return firmware;
}

}  // namespace

const RtxExchange::State& RtxExchange::_StateOf(UpgradeStateType state) {
  static const std::array<State, EM_STATE_MAX> states = {{
      {"Idle", &RtxExchange::_HandleIdleState},
      {"Init", &RtxExchange::_HandleInitState},
      {"EnterBoot", &RtxExchange::_HandleEnterBootState},
      {"DlPreLoader", &RtxExchange::_HandleDlPreLoaderState},
      {"ChangeBaudRate", &RtxExchange::_HandleChangeBaudRateState},
      {"DlFlashLoader", &RtxExchange::_HandleDlFlashLoaderState},
      {"WriteCfgOfFlash", &RtxExchange::_HandleWriteCfgOfFlashState},
      {"DlFirmware", &RtxExchange::_HandleDlFirmwareState},
      {"Success", &RtxExchange::_HandleSuccessState},
      {"Failed", &RtxExchange::_HandleFailedState},
  }};
  return states.at(state);
}

// ---------------------------------------------------------------------------------------------- lifecycle

RtxExchange::RtxExchange(const char* threadName, const char* uartName, int waitTime)
    : CThread(threadName),
      m_iWaitTime(waitTime),
      m_pSerial(std::make_unique<SerialPort>(uartName, EM_CFG_MAX_UART_RECV_SIZE)) {
  m_stUartInfo.strMasterType = kStationLabel;
  m_stUartInfo.strSlaverType = kModuleLabel;
  m_pSerial->RegisterUartEventCallback(
      [this](const void* data, short length) { return _UartRecvHandler(data, length); });
}

bool RtxExchange::_OpenExchange() {
  if (CreateThread(0) && m_UartHandler.CreateThread(0)) return true;
  LOGE("Cannot start the threads of an RTX upgrade");
  _CloseExchange();
  return false;
}

bool RtxExchange::_CloseExchange() {
  if (HasCrashed()) return true;
  m_UartHandler.DestroyThread(true, false);
  DestroyThread(true, false);
  _CloseLine();
  const bool parserEnded = m_UartHandler.DestroyThread(false, true);
  if (!DestroyThread(false, true) || !parserEnded) return false;
  _CloseLine();  // the state thread may have opened it meanwhile
  _CleanCache();
  m_deqFwData.clear();
  m_emLastState = EM_STATE_MAX;
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_emState = EM_STATE_IDLE;
  m_bStart = false;
  return true;
}

bool RtxExchange::_StartRun(const char* device) {
  const std::lock_guard<std::mutex> runLock(m_RunLock);
  const std::lock_guard<std::mutex> lock(m_SateLock);
  if (!IsRunning() || _RunUnderWay() || !m_stUartInfo.SetDevName(device)) return false;
  m_bStart = true;
  m_bAborted = false;
  m_cvStateMachineCtrl.notify_all();
  return true;
}

void RtxExchange::_AbortRun() {
  const std::lock_guard<std::mutex> runLock(m_RunLock);
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    if (!_RunUnderWay()) return;
    m_bAborted = true;
    m_cvStateMachineCtrl.notify_all();
  }
  _CloseLine();
}

void RtxExchange::OnStopRequested() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_cvStateMachineCtrl.notify_all();
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
  UpgradeStateType next = EM_STATE_IDLE;
  if (state == m_emLastState) {
    LOGE("State no change!ErrVal:%s", _StateOf(state).name);
    m_emFailedState = state;
  } else {
    m_emLastState = state;
    next = (this->*_StateOf(state).handler)();
  }
  if (!IsRunning()) return;
  if (next == EM_STATE_FAILED) m_emFailedState = state;
  if (next == EM_STATE_IDLE) {
    _CloseLine();
    m_deqFwData.clear();
    // Before the exchange is idle: whoever starts the next run must not hear the end of this one.
    _RunEnded(state == EM_STATE_SUCCESS);
  }
  _ToggleState(next);
}

std::string RtxExchange::_FailureText() const {
  return std::string(m_bAborted ? "stopped in " : "failed in ") + _StateOf(m_emFailedState).name;
}

void RtxExchange::_ToggleState(UpgradeStateType state) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  if (state == m_emState) {
    LOGW("UpgradeRtx is in state [%s] already", _StateOf(state).name);
    return;
  }
  LOGI("UpgradeRtx StateMachine change [%s] ----> [%s]", _StateOf(m_emState).name, _StateOf(state).name);
  m_emState = state;
  m_bStart = false;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleIdleState() {
  std::unique_lock<std::mutex> lock(m_SateLock);
  m_cvStateMachineCtrl.wait(lock, [this] { return m_bStart || !IsRunning(); });
  return EM_STATE_INIT;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleInitState() {
  return _PrepareFiles() ? EM_STATE_ENTER_BOOT : EM_STATE_FAILED;
}

bool RtxExchange::_SetFiles(const std::string& directory) {
  const std::string firmware = FindFirmware(directory);
  if (firmware.empty()) {
    LOGE("get strPackPath bin file error");
    return false;
  }
  m_strPreLoaderFile = directory + "/" + kPreLoaderName;
  m_strFlashLoaderFile = directory + "/" + kFlashLoaderName;
  m_strFirmwareFile = directory + "/" + firmware;
  LOGI("Parse file path:\nPlFile:%s\nFlFile:%s\nFwFile:%s", m_strPreLoaderFile.c_str(),
       m_strFlashLoaderFile.c_str(), m_strFirmwareFile.c_str());
  return true;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleEnterBootState() {
  _CleanCache();
  m_stUartInfo.eBaudRate = emSerialBaudRate_19200;
  if (_Ending() || !m_pSerial->CreateSerial(&m_stUartInfo)) return EM_STATE_FAILED;
  m_iLongTermFlags |= EM_FLAG_UART_OPEN;
  _EnterBoot();
  return _WaitFor(EM_FLAG_RECV_STX, "Waiting for STX timeout") ? EM_STATE_DL_PRE_LOADER : EM_STATE_FAILED;
}

/// The parser sends the image, when the module has taken the announcement.
RtxExchange::UpgradeStateType RtxExchange::_HandleDlPreLoaderState() {
  Bytes image;
  if (!LoadImage(m_strPreLoaderFile, image)) return EM_STATE_FAILED;
  const Bytes header = {EM_CFG_SOH_CHAR, LowByte(image.size()), HighByte(image.size())};
  m_iPlCrc = CrcXor(image.data(), image.size());
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    m_vecPreloader = std::make_shared<const Bytes>(std::move(image));
  }
  _ClearAnswers(EM_FLAG_RECV_PL_ACK | EM_FLAG_RECV_PL_CRC | EM_FLAG_RECV_CORRECT_CRC);
  if (!_SendRaw(header) || !_WaitFor(EM_FLAG_RECV_PL_ACK, "Waiting for ACK of pre loader timeout")) {
    return EM_STATE_FAILED;
  }
  // The wait that all others take in milliseconds, in seconds.
  if (!_Wait(EM_FLAG_RECV_PL_CRC, std::chrono::seconds(m_iWaitTime))) {
    if (!_Ending()) {
      LOGE("Waiting for CRC of pre loader timeout.m_bRecvPlCrc%d", _HasFlag(EM_FLAG_RECV_PL_CRC));
    }
    return EM_STATE_FAILED;
  }
  LOGI("get CRC");
  return _HasFlag(EM_FLAG_RECV_CORRECT_CRC) ? EM_STATE_CHANGE_BAUD_RATE : EM_STATE_FAILED;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleChangeBaudRateState() {
  _ClearAnswers(EM_FLAG_PL_READY);
  if (!_SendRaw({EM_PRELOAD_START}) || !_WaitFor(EM_FLAG_PL_READY, "Waiting for EM_PRELOAD_READY timeout")) {
    return EM_STATE_FAILED;
  }
  if (!_SendRaw(Bytes(3, EM_PRELOADER_BAUD_230400))) return EM_STATE_FAILED;
  Pause(kBaudRatePauseMs);  // until they are out
  m_stUartInfo.eBaudRate = emSerialBaudRate_230400;
  if (_Ending() || !m_pSerial->RestartSerial(&m_stUartInfo)) return EM_STATE_FAILED;
  _ClearAnswers(EM_FLAG_BAUDREADY);
  if (!_SendRaw({EM_PRELOAD_NEW_BAUDRATE}) ||
      !_WaitFor(EM_FLAG_BAUDREADY, "Waiting for EM_PRELOAD_NEW_BAUDRATE timeout")) {
    return EM_STATE_FAILED;
  }
  return EM_STATE_DL_FLASH_LOADER;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleDlFlashLoaderState() {
  Bytes image;
  if (!LoadImage(m_strFlashLoaderFile, image)) return EM_STATE_FAILED;
  const uint8_t crc = CrcXor(image.data(), image.size());
  _ClearAnswers(EM_FLAG_RECV_FL_CRC);
  if (!_SendRaw({HighByte(image.size()), LowByte(image.size())}) || !_SendRaw(image) ||
      !_WaitFor(EM_FLAG_RECV_FL_CRC, "Waiting for CRC of flash loader timeout")) {
    return EM_STATE_FAILED;
  }
  if (m_iFlCrcRecv != crc) {
    LOGE("Recv error CRC!RightVal:%02X, RecvVal:%02X", crc, m_iFlCrcRecv.load());
    return EM_STATE_FAILED;
  }
  return EM_STATE_WRITE_CFG_OF_FLASH;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleWriteCfgOfFlashState() {
  const bool written =
      _Ask(ReadVersionRequest(), EM_FLAG_RECV_SW_VER, "Waiting for [EM_READ_SW_VERSION_CFM] timeout") &&
      _Ask(WriteConfigRequest(), EM_FLAG_WRITE_CFG_CFM, "Waiting for [EM_WRITE_CONFIG_CFM] timeout");
  return written ? EM_STATE_DL_FIRMWARE : EM_STATE_FAILED;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleDlFirmwareState() {
  struct Step {
    const char* name;
    bool (RtxExchange::*run)();
  };
  static constexpr std::array<Step, 4> kSteps = {{
      {"_ParseFwFile", &RtxExchange::_ParseFwFile},
      {"_EraseSectors", &RtxExchange::_EraseSectors},
      {"_ProgramSectors", &RtxExchange::_ProgramSectors},
      {"_VerifySectors", &RtxExchange::_VerifySectors},
  }};
  for (const Step& step : kSteps) {
    if ((this->*step.run)()) continue;
    if (!_Ending()) LOGE("%s failed!", step.name);
    return EM_STATE_FAILED;
  }
  return EM_STATE_SUCCESS;
}

bool RtxExchange::_ParseFwFile() {
  if (!m_deqFwData.empty()) {
    LOGI("upg rtx2 no need parse again.");
    return true;
  }
  return IntelHexReader().ReadFile(m_strFirmwareFile, m_deqFwData);
}

bool RtxExchange::_EraseSectors() {
  if (m_deqFwData.empty()) {
    LOGE("Empty firmware data.");
    return false;
  }
  for (const FwData_t& block : m_deqFwData) {
    LOGI("Erase from 0x%08X to 0x%08X", block.m_iStartAddr, block.m_iEndAddr);
    for (const uint32_t address : SectorsOf(block)) {
      if (!_Ask(EraseRequest(address), EM_FLAG_EARSE_SECTOR_CFM,
                "Waiting for [EM_FLASH_ERASE_CFM] timeout")) {
        return false;
      }
    }
  }
  return true;
}

bool RtxExchange::_ProgramSectors() {
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
      if (!_Ask(ProgramRequest(address, &block.m_vecData[at], size), EM_FLAG_PROGRAM_SECTOR_CFM,
                "Waiting for [EM_PROG_FLASH_CFM] timeout")) {
        return false;
      }
      _ChunkProgrammed(++done, total);
    }
  }
  return true;
}

bool RtxExchange::_VerifySectors() {
  for (const FwData_t& block : m_deqFwData) {
    const uint32_t length = VerifyLength(block);
    LOGI("Verify addr:0x%08X, size:%zu, length:%u", block.m_iStartAddr, block.m_vecData.size(), length);
    if (!_Ask(CalcCrc32Request(block.m_iStartAddr, length), EM_FLAG_VERIFY_SECTOR_CFM,
              "Waiting for [EM_CALC_CRC32_CFM] timeout")) {
      return false;
    }
    if (m_iCrcRecv != block.m_iCrc) {
      LOGE("Crc not right!Store:0x%08X, Recv:0x%08X", block.m_iCrc, m_iCrcRecv.load());
      return false;
    }
  }
  return true;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleSuccessState() {
  _CloseLine();
  _CleanCache();
  const char* const nextDevice = _ModuleSucceeded();
  if (nextDevice == nullptr) return EM_STATE_IDLE;
  return m_stUartInfo.SetDevName(nextDevice) ? EM_STATE_ENTER_BOOT : EM_STATE_FAILED;
}

RtxExchange::UpgradeStateType RtxExchange::_HandleFailedState() {
  _CloseLine();
  _ModuleFailed();
  _CleanCache();
  return EM_STATE_IDLE;
}

// ------------------------------------------------------------------------------------- sending and waiting

bool RtxExchange::_Ask(const Bytes& payload, FlagType confirmation, const char* onTimeout) {
  _ClearAnswers(confirmation);
  return _SendPacket(payload) && _WaitFor(confirmation, onTimeout);
}

bool RtxExchange::_SendPacket(const Bytes& payload) {
  const Bytes packet = PackFlPacket(payload);
  if (packet.empty()) return false;
  CLog::instance()->Access("%s -> %s [%d], L:%zu, %s", kStationLabel, kModuleLabel, _Module(), packet.size(),
                           HexText(packet.data(), packet.size()).c_str());
  return _SendRaw(packet);
}

bool RtxExchange::_SendRaw(const Bytes& bytes) {
  if (_Ending()) return false;
  const auto size = static_cast<int>(bytes.size());
  if (m_pSerial->SendFrame(reinterpret_cast<const char*>(bytes.data()), size) == size) return true;
  if (!_Ending()) LOGE("_SendRaw error");
  return false;
}

bool RtxExchange::_WaitFor(FlagType flag, const char* onTimeout) {
  if (_Wait(flag, std::chrono::milliseconds(m_iWaitTime))) return true;
  if (!_Ending()) LOGE("%s", onTimeout);
  return false;
}

bool RtxExchange::_Wait(FlagType flag, std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(m_SateLock);
  m_cvStateMachineCtrl.wait_for(lock, time, [&] { return _HasFlag(flag) || _Ending(); });
  return _HasFlag(flag) && !_Ending();
}

void RtxExchange::_SetFlags(uint32_t flags) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_iFlags |= flags;
  m_cvStateMachineCtrl.notify_all();
}

void RtxExchange::_ClearAnswers(uint32_t flags) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_iFlags &= ~flags;
  m_joiner.Reset();
}

void RtxExchange::_CloseLine() {
  m_iLongTermFlags &= ~static_cast<uint32_t>(EM_FLAG_UART_OPEN);
  // Whatever the flag said: a restart of the port may have crossed an earlier closing.
  if (m_pSerial) m_pSerial->DestroySerial();
}

void RtxExchange::_CleanCache() {
  constexpr uint32_t kExchangeFlags =
      EM_FLAG_RECV_STX | EM_FLAG_RECV_PL_ACK | EM_FLAG_RECV_PL_CRC | EM_FLAG_PL_READY | EM_FLAG_BAUDREADY |
      EM_FLAG_RECV_FL_CRC | EM_FLAG_RECV_SW_VER | EM_FLAG_WRITE_CFG_CFM | EM_FLAG_EARSE_SECTOR_CFM |
      EM_FLAG_PROGRAM_SECTOR_CFM | EM_FLAG_VERIFY_SECTOR_CFM | EM_FLAG_RECV_CORRECT_CRC;
  {
    // The line is closed: nothing comes behind what the parser has in hand, and nothing holds it up.
    std::unique_lock<std::mutex> lock(m_UartDataLock);
    m_deqUartRecvList.clear();
    m_cvUartRecvCtrl.wait(lock, [this] { return !m_bParsing; });
  }
  _ClearAnswers(kExchangeFlags);
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_vecPreloader.reset();
}

// ---------------------------------------------------------------------------------------------- receiving

int RtxExchange::_UartRecvHandler(const void* data, short length) {
  if (data == nullptr || length <= 0) {
    LOGE("No data of %d bytes from the module!", length);
    return -1;
  }
  const auto* const bytes = static_cast<const uint8_t*>(data);
  CLog::instance()->Access("%s [%d] -> %s, L:%d, %s", kModuleLabel, _Module(), kStationLabel, length,
                           HexText(data, static_cast<size_t>(length)).c_str());
  const std::lock_guard<std::mutex> lock(m_UartDataLock);
  if (m_deqUartRecvList.size() >= kMaxQueuedChunks) {
    LOGE("Too much data from the module, %d bytes dropped!", length);
    return -1;
  }
  m_deqUartRecvList.emplace_back(bytes, bytes + length);
  m_cvUartRecvCtrl.notify_all();
  return length;
}

void RtxExchange::Parser::OnStopRequested() {
  const std::lock_guard<std::mutex> lock(m_exchange.m_UartDataLock);
  m_exchange.m_cvUartRecvCtrl.notify_all();
}

void RtxExchange::_ProcessUartData() {
  LOGI("Start processing uart data from rtx.");
  std::unique_lock<std::mutex> lock(m_UartDataLock);
  while (m_UartHandler.IsRunning()) {
    if (m_deqUartRecvList.empty()) {
      m_cvUartRecvCtrl.wait(lock);
      continue;
    }
    const Bytes chunk = std::move(m_deqUartRecvList.front());
    m_deqUartRecvList.pop_front();
    m_bParsing = true;
    lock.unlock();
    _ParseUartData(chunk);
    lock.lock();
    m_bParsing = false;
    m_cvUartRecvCtrl.notify_all();
  }
}

void RtxExchange::_ParseUartData(const Bytes& chunk) {
  if (chunk.empty()) {
    LOGE("Empty uart data!");
    return;
  }
  switch (m_emState) {
    case EM_STATE_IDLE:
    case EM_STATE_INIT:
    case EM_STATE_ENTER_BOOT:
      if (chunk.front() != EM_CFG_STX_CHAR || _HasFlag(EM_FLAG_RECV_STX)) break;
      LOGI("Recv STX char, now RTX in boot mod.");
      _SetFlags(EM_FLAG_RECV_STX);
      break;
    case EM_STATE_DL_PRE_LOADER:
      _ParsePreLoaderData(chunk);
      break;
    case EM_STATE_CHANGE_BAUD_RATE:
      _ParseBaudRateData(chunk);
      break;
    case EM_STATE_DL_FLASH_LOADER:
      // The last byte: what stands before it is noise.
      m_iFlCrcRecv = chunk.back();
      _SetFlags(EM_FLAG_RECV_FL_CRC);
      break;
    case EM_STATE_WRITE_CFG_OF_FLASH:
    case EM_STATE_DL_FIRMWARE:
      _ProcFlPacketData(chunk);
      break;
    default:
      break;
  }
}

void RtxExchange::_ParsePreLoaderData(const Bytes& chunk) {
  if (!_HasFlag(EM_FLAG_RECV_PL_ACK)) {
    // A boot ROM that calls again and again may have done so once more before it.
    if (Contains(chunk, EM_CFG_PRE_LOADER_ACK)) _SendPreLoader();
    return;
  }
  const uint8_t crc = chunk.back();
  LOGI("Recv PL CRC.Crc:0x%02X", crc);
  uint32_t flags = EM_FLAG_RECV_PL_CRC;
  if (crc == m_iPlCrc) {
    // Before the flags: they let the state thread send.
    _SendRaw({crc});
    flags |= EM_FLAG_RECV_CORRECT_CRC;
  } else {
    LOGE("Recv error CRC!RightVal:%02X, RecvVal:%02X", m_iPlCrc.load(), crc);
  }
  _SetFlags(flags);
}

void RtxExchange::_SendPreLoader() {
  std::shared_ptr<const Bytes> image;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    image = m_vecPreloader;
  }
  _SetFlags(EM_FLAG_RECV_PL_ACK);
  LOGI("Try to send pre loader.");
  // For an image that did not go out no check value will come.
  if (!image || !_SendRaw(*image)) _SetFlags(EM_FLAG_RECV_PL_CRC);
  LOGI("Send pre loader done.");
}

/// While the line changes its speed, noise may stand around the answers.
void RtxExchange::_ParseBaudRateData(const Bytes& chunk) {
  if (!_HasFlag(EM_FLAG_PL_READY)) {
    if (!Contains(chunk, EM_PRELOAD_READY)) return;
    LOGI("Recv EM_PRELOAD_READY");
    _SetFlags(EM_FLAG_PL_READY);
  } else if (Contains(chunk, EM_PRELOAD_NEW_BAUDRATE_READY)) {
    _SetFlags(EM_FLAG_BAUDREADY);
  }
}

void RtxExchange::_ProcFlPacketData(const Bytes& chunk) {
  std::optional<FlPayload_t> payload;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    payload = m_joiner.Add(chunk);
  }
  if (payload) _ProcConfirmation(*payload);
}

/// A status of failure is told and lets the run go on: the verification decides.
void RtxExchange::_ProcConfirmation(const FlPayload_t& payload) {
  const Confirmation* const confirmation = FindConfirmation(payload.m_iCmd);
  if (confirmation == nullptr) {
    LOGE("Unknown primitive!ErrVal:%u", payload.m_iCmd);
    return;
  }
  const Bytes& data = payload.m_vecData;
  if (data.size() != static_cast<size_t>(confirmation->size)) {
    LOGE("Error data lenth of [%s]!ErrVal:%zu", confirmation->name, data.size());
    return;
  }
  if (confirmation->hasStatus && data.back() == 0) LOGE("[%s] tells a failure!", confirmation->name);
  switch (confirmation->cmd) {
    case EM_READ_SW_VERSION_CFM:
      LOGI("Flash loader version:%u.%u.%u", data[0], data[1], data[2]);
      return _SetFlags(EM_FLAG_RECV_SW_VER);
    case EM_WRITE_CONFIG_CFM:
      return _SetFlags(EM_FLAG_WRITE_CFG_CFM);
    case EM_PROG_FLASH_CFM:
      return _SetFlags(EM_FLAG_PROGRAM_SECTOR_CFM);
    case EM_CALC_CRC32_CFM:
      m_iCrcRecv = Crc32Of(payload);
      return _SetFlags(EM_FLAG_VERIFY_SECTOR_CFM);
    case EM_FLASH_ERASE_CFM:
      return _SetFlags(EM_FLAG_EARSE_SECTOR_CFM);
    default:
      return;
  }
}
