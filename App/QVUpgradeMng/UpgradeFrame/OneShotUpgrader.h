/// The upgrader of a part that is put in place in one go: the SoC's file systems, the FPGA, the USB audio
/// chip. It walks four states on a thread of its own. A new such part supplies a Kind, a table made from it
/// and a payload.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "BSW/StateMachine/StateMachine.h"
#include "UpgradeFrame/UpgraderBase.h"

/// What one part does to get into place. The upgrader owns it and calls it on its own thread, Stop excepted.
class IPayload {
 public:
  /// To be told that `done` of `total` steps are behind.
  using Steps = std::function<void(size_t done, size_t total)>;

  virtual ~IPayload() = default;

  /// Does the work. After a stop of the calling thread it starts no further command, but undoes what it
  /// mounted; what it gives then is told to nobody.
  virtual Failure Install(const QVUpgradingInfo& info, const Steps& steps) = 0;
  /// How the work ended, before that is reported; not after a stop.
  virtual void Ended(const Failure& /*failure*/) {}
  /// Ends what Install waits for. Any thread; must not block.
  virtual void Stop() {}

 protected:
  IPayload() = default;
  IPayload(const IPayload&) = default;
  IPayload& operator=(const IPayload&) = default;
};

/// A second StartUpgrade finds it busy or done and changes neither.
class OneShotUpgrader : public UpgraderBase, public StateMachine<OneShotUpgrader> {
 public:
  ~OneShotUpgrader() override;

  bool Init() override { return CreateThread(0); }
  bool CleanUp() override { return DestroyThread(true, true); }
  /// Always true.
  bool StartUpgrade() override;
  void RequestStop() override { DestroyThread(true, false); }

 protected:
  static constexpr int kNoErrorCode = 0;

  /// What tells one upgrader from another. The texts are literals.
  struct Kind {
    const char* threadName;
    UPGRADETYPE type;
    int errorCode;  ///< recorded on failure, unless kNoErrorCode
    const char* idle;
    const char* check;
    const char* success;
    const char* fail;
  };

  /// `kind` and `table`, made from it with MakeTable, outlive the object.
  OneShotUpgrader(const Kind& kind, const Table& table, std::unique_ptr<IPayload> payload);
  static Table MakeTable(const Kind& kind);

 private:
  void OnStopRequested() override;

  std::string _IdleState();
  std::string _CheckState();
  std::string _SuccessState();
  std::string _FailState();
  void _End();

  const Kind& m_kind;
  const std::unique_ptr<IPayload> m_payload;
  Failure m_result;  ///< of the payload; the upgrader's thread alone
};
