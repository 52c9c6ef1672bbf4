/// The upgrader of the base station's two radio modules: module 1 first, then module 2 with the same
/// firmware. SubmoduleFactory::CreateRtx makes it; the frame starts it before all others. What it says to the
/// modules is RtxExchange's; here are the pins, the package and the frame.
#pragma once

#include <atomic>

#include "BSW/GPIO/GPIO.h"
#include "UpgradeFrame/RtxSubmodules/RtxExchange.h"
#include "UpgradeFrame/UpgraderBase.h"

class CQVUpgradeRtx final : public UpgraderBase, private IRtxHost {
 public:
  CQVUpgradeRtx() : UpgraderBase(UP_RTX, -1) {}

  /// Takes the modules' six lines and starts the threads. Once only.
  bool Init() override;
  bool CleanUp() override;
  /// Pauses 5 s, so that the services that were stopped let the modules go. False before Init.
  bool StartUpgrade() override;
  bool FinishUpgrade() override;
  /// Leaves `result` as it is: whoever asks has heard no report, and that is all there is to know.
  void GetUpgradeStatus(int& result, int seconds) override;
  void RequestStop() override { m_exchange.RequestStop(); }

 private:
  /// The lines of one module.
  struct IO_t {
    GPIO objPon;
    GPIO objPwr;
    GPIO objSwitch;
  };
  /// Pin numbers: boot and reset of the control attribute, the others of the kernel's GPIO lines. The power
  /// line is shared.
  enum IoDefType {
    EM_IO_BOOT_1 = 8,
    EM_IO_RESET_1 = 9,
    EM_IO_PON_1 = 39,
    EM_IO_PWR_1 = 102,
    EM_IO_SWITCH_1 = 133,
    EM_IO_BOOT_2 = 10,
    EM_IO_RESET_2 = 11,
    EM_IO_PON_2 = 139,
    EM_IO_PWR_2 = 102,
    EM_IO_SWITCH_2 = 12,
  };
  enum IoLevelType { EM_IO_LOW = 0, EM_IO_HIGH = 1 };

  static constexpr int m_iWaitTime = 5000;  ///< ms
  static constexpr const char* m_strUartName = "RtxUprageUart";
  static constexpr const char* m_strRtx1Path = "/dev/ttymxc2";
  static constexpr const char* m_strRtx2Path = "/dev/ttymxc0";

  Failure PrepareFiles(std::string& directory) override;
  void EnterBoot(int module) override { _EnterBoot(module == 2); }
  void ChunkProgrammed(int module, size_t done, size_t total) override;
  const char* ModuleSucceeded(int module) override;
  void RunEnded(int module, const Failure& failure) override;

  bool _InitGpio();
  void _EnterBoot(bool second);
  static void _SwitchPin(IoDefType pin, IoLevelType level);

  std::atomic<bool> m_bInitDone{false};
  IO_t m_stRtx1IO;
  IO_t m_stRtx2IO;
  RtxExchange m_exchange{"UpgradeRtx", m_strUartName, m_iWaitTime, *this};
};
