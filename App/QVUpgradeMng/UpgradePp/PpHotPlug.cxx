/// Parts' serial devices and storages as they come and go.
#include "UpgradePp/PpHotPlug.h"

#include <chrono>
#include <vector>

#include "BSW/BasicFun/BlockNodes.h"
#include "BSW/Log/CLog.h"
#include "BSW/PhyInterface/PhyInterface.h"

using namespace UpgPp;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* m_strUsbDeviceFile = "/dev/tty(ACM[0-9]|USB[1-8])";
constexpr const char* m_strStorageDev = BlockNodes::kWatchPattern;

}  // namespace

void PpHotPlug::Init() {
  PhyInterface* const monitor = PhyInterface::instance();
  monitor->RegisterInterface(m_strUsbDeviceFile, [this](const std::string& device, bool plugged) {
    return _UsbHotPlugProcessCallback(device, plugged);
  });
  monitor->RegisterInterface(m_strStorageDev, [this](const std::string& node, bool present) {
    return _LoadStorageDevCallback(node, present);
  });
}

void PpHotPlug::SetClockStatus(bool bStatus) {
  LOGI("SetClockStatus bStatus = %d", bStatus);
  const CLock events(m_plugMutex);
  m_bCascadeClockSync = bStatus;
  if (!bStatus) return;
  CLock lock(m_flags.Mutex());
  const std::vector<PpDevices::UsbHotPlugInfo> known = m_devices.Known();
  lock.Unlock();
  for (const PpDevices::UsbHotPlugInfo& info : known) {
    LOGI("SetClockStatus strDevFile = %s, bState =%d", info.strDevFile.c_str(), info.bState);
    _Handle(info);
  }
  // Devices that wait for their turn had to wait for the clock as well.
  lock.Lock();
  m_flags.Notify();
}

int PpHotPlug::_UsbHotPlugProcessCallback(const std::string& device, bool plugged) {
  const CLock events(m_plugMutex);
  _Handle({device, plugged});
  return 0;
}

void PpHotPlug::_Handle(const PpDevices::UsbHotPlugInfo& info) {
  if (m_flags.Ending()) return;
  CLock lock(m_flags.Mutex());
  const PpDevices::Event event = m_devices.Report(info, m_bCascadeClockSync, Clock::now());
  m_bUsbInsert = m_devices.AnyPresent();
  lock.Unlock();
  if (event == PpDevices::Event::NoChange) {
    LOGW("USB state no change ,no need process");
    return;
  }
  if (event == PpDevices::Event::HeldBack) {
    LOGI("m_bCascadeClockSync is false, strDevFile = %s, bState =%d", info.strDevFile.c_str(), info.bState);
    return;
  }
  if (info.bState) {
    _PlugIn(info.strDevFile);
  } else {
    _PlugOut(info.strDevFile);
  }
  LOGI("_UsbHotPlugProcessCallback out");
}

void PpHotPlug::_PlugIn(const std::string& device) {
  if (PpDevices::MayHaveStorage(device)) LOGI("Identified to 7204");
  LOGI("%s usb plug in ", device.c_str());
  if (_EndTurn(device)) {  // its going was held back
    m_7308.OnPlugOut();
    m_link.CloseUartsOf(device);
  }
  LOGI("Normal plug in state:%d, type:%d, m_iFlags:%d", _State(), m_link.Info().m_emPpType, m_flags.Flags());
  const CLock lock(m_flags.Mutex());
  m_devices.AddTurn(device, Clock::now());
  if (device == m_devices.Current()) m_flags.SetHeld(EM_FLAG_7204_RE_INSERT);
  m_flags.Notify();
}

void PpHotPlug::_PlugOut(const std::string& device) {
  LOGI("%s usb plug out ", device.c_str());
  const bool wasUnderWay = _EndTurn(device);
  LOGI("plug out state:%d, type:%d, m_iFlags:%d", _State(), m_link.Info().m_emPpType, m_flags.Flags());
  if (wasUnderWay) m_7308.OnPlugOut();
  LOGI("m_iLongTermFlags:%d", m_flags.LongTermFlags());
  if (wasUnderWay) m_link.CloseUartsOf(device);
}

bool PpHotPlug::_EndTurn(const std::string& device) {
  const CLock lock(m_flags.Mutex());
  if (device != m_devices.Current()) return false;
  const bool wasUnderWay = m_flags.Has(EM_FLAG_PLUG_IN);
  m_flags.Clear(EM_FLAG_PLUG_IN | EM_FLAG_7204_RE_INSERT);
  return wasUnderWay;
}

UpgradeStateType PpHotPlug::_State() {
  const CLock lock(m_flags.Mutex());
  return m_emState;
}

int PpHotPlug::_LoadStorageDevCallback(const std::string& node, bool present) {
  if (!BlockNodes::IsNode(node)) return 0;
  const CLock lock(m_flags.Mutex());
  if (present) {
    LOGI("Load storage dev, dev:%s", node.c_str());
    m_devices.StorageCame(node, Clock::now());
    m_flags.SetHeld(EM_FLAG_LOAD_STORAGE);
  } else {
    LOGI("Storage dev disconnect.Dev:%s", node.c_str());
    m_devices.StorageWent(node);
    if (!m_devices.AnyStorage()) m_flags.Clear(EM_FLAG_LOAD_STORAGE);
  }
  return 0;
}
