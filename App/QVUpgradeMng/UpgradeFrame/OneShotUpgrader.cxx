/// The four states of an upgrade in one go: Idle, Check (where the payload works), Success or Fail, Idle.
#include "UpgradeFrame/OneShotUpgrader.h"

#include <utility>

#include "BSW/ErrorNum/ErrorNum.h"

namespace {

constexpr uint32_t kIdlePauseMs = 2000;
constexpr uint32_t kFailPauseMs = 2000;

}  // namespace

OneShotUpgrader::Table OneShotUpgrader::MakeTable(const Kind& kind) {
  return {
      {kind.idle, &OneShotUpgrader::_IdleState},
      {kind.check, &OneShotUpgrader::_CheckState},
      {kind.success, &OneShotUpgrader::_SuccessState},
      {kind.fail, &OneShotUpgrader::_FailState},
  };
}

OneShotUpgrader::OneShotUpgrader(const Kind& kind, const Table& table, std::unique_ptr<IPayload> payload)
    : UpgraderBase(kind.type, 0),
      StateMachine(kind.threadName, table, kind.idle),
      m_kind(kind),
      m_payload(std::move(payload)) {}

OneShotUpgrader::~OneShotUpgrader() {
  OneShotUpgrader::CleanUp();
}

// The table holds handlers that may change the object.
// NOLINTNEXTLINE(readability-make-member-function-const)
std::string OneShotUpgrader::_IdleState() {
  Pause(kIdlePauseMs);
  return m_kind.idle;
}

std::string OneShotUpgrader::_CheckState() {
  m_result = m_payload->Install(_Info(), [this](size_t done, size_t total) { _ReportSteps(done, total); });
  return m_result ? m_kind.fail : m_kind.success;
}

std::string OneShotUpgrader::_SuccessState() {
  _End();
  return m_kind.idle;
}

std::string OneShotUpgrader::_FailState() {
  _End();
  if (m_kind.errorCode != kNoErrorCode) ErrorNum::instance()->Record(SubMod_MainBoard, m_kind.errorCode);
  Pause(kFailPauseMs);
  return m_kind.idle;
}

void OneShotUpgrader::_End() {
  m_payload->Ended(m_result);
  _ReportEnd(m_result);
}

bool OneShotUpgrader::StartUpgrade() {
  if (_IsFirstStart()) _QueueFromIdle(m_kind.idle, m_kind.check, [] {});
  return true;
}

void OneShotUpgrader::OnStopRequested() {
  StateMachine::OnStopRequested();
  m_payload->Stop();
}
