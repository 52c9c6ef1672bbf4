/// Three threads meet here: the bus thread acknowledges and queues, the receiver handles, the sender sends.
/// Both queues are bounded, and work is always done on what was taken out of them, without the lock. The
/// reply texts and the names on the bus are the controller's; nothing here may be changed alone.
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlIpc.h"

#include <unistd.h>

#include <cstddef>
#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/Log/CLog.h"

namespace {

/// No report comes near it: this bounds what a full queue takes in memory.
constexpr size_t kMaxMsgBytes = 8192;

constexpr const char* kMember = "upgrade_dbus_method_comm_sys";
constexpr const char* kOwnPath = "/org/Upgread/object";
constexpr const char* kOwnInterface = "org.Upgread.interface";
constexpr const char* kControllerPath = "/org/SysctrlMng/object";
constexpr const char* kControllerInterface = "org.SysctrlMng.interface";

bool SendToController(const std::string& text) {
  return CDbusHandler::instance()->SignalSend(kControllerPath, kControllerInterface, kMember, text.c_str());
}

}  // namespace

SysCtrlIpc::SysCtrlIpc() : CThread("SysCtrlIpc") {
  // The destructor still needs them: what is created first is deleted last.
  CLog::instance();
  CDbusHandler::instance();
  if (!m_MsgRecver.CreateThread(0)) LOGE("cannot start the receiver of controller messages");
}

SysCtrlIpc::~SysCtrlIpc() {
  CleanUp();
}

bool SysCtrlIpc::Init() {
  if (IsRunning()) return false;
  if (!m_MsgRecver.IsRunning() && !m_MsgRecver.CreateThread(0)) return false;
  CDbusHandler::instance()->RegisteredServices(kOwnPath, kOwnInterface, kMember, ProcRecvMsgStatic, true);
  return CreateThread(0);
}

bool SysCtrlIpc::CleanUp() {
  CDbusHandler::instance()->UnRegisteredServices(kOwnPath, kOwnInterface, kMember);
  // Both are asked to stop before the first is waited for.
  m_MsgRecver.DestroyThread(true, false);
  const bool senderStopped = DestroyThread(true, true);
  if (!m_MsgRecver.DestroyThread(true, true) || !senderStopped || HasCrashed()) return false;
  const CLock lock(m_DataLock);
  m_vecRecvMsg.clear();
  m_deqMsg.clear();
  return true;
}

// Receiving.

std::string SysCtrlIpc::ProcRecvMsg(const std::string& text) {
  Json::Value message;
  std::string error;
  if (text.size() > kMaxMsgBytes || !JsonUtils::Parse(text, message, error)) {
    LOGE("Error json format while processing msg from upg");
    return "Error json format";
  }
  if (!_SendAck(message)) return "Err ACK json";
  {
    const CLock lock(m_DataLock);
    if (m_vecRecvMsg.size() < EM_CFG_MAX_MSG_SIZE) {
      m_vecRecvMsg.push_back(std::move(message));
      m_cvRecvCtrl.NotifyOne();
      return "ProcUpgMsg ACK";
    }
  }
  LOGE("Out of max cache msg");
  return "Out of max cache msg";
}

bool SysCtrlIpc::_SendAck(const Json::Value& message) {
  Json::Value ack(Json::objectValue);
  ack["Type"] = "ACK";
  ack["Snr"] = message.isObject() ? message["Snr"] : Json::Value();
  return SendToController(JsonUtils::ToCompactText(ack));
}

void SysCtrlIpc::_ProcRecvMsg() {
  LOGI("Enter SysCtrlIpcRecver Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  while (m_MsgRecver.IsRunning()) _HandleMsg();
  LOGI("Quit SysCtrlIpcRecver Thread.");
}

void SysCtrlIpc::_HandleMsg() {
  std::vector<Json::Value> batch;
  {
    const CLock lock(m_DataLock);
    m_cvRecvCtrl.Wait(m_DataLock, [this]() REQUIRES(m_DataLock) {
      return !m_vecRecvMsg.empty() || !m_MsgRecver.IsRunning();
    });
    batch.swap(m_vecRecvMsg);
  }
  for (const Json::Value& message : batch) {
    if (!m_MsgRecver.IsRunning() || !SysCtrlMsgHandler::Handle(m_pReports, message)) return;
  }
}

void SysCtrlIpc::Recver::OnStopRequested() {
  const CLock lock(m_owner.m_DataLock);
  m_owner.m_cvRecvCtrl.NotifyAll();
}

// Sending.

bool SysCtrlIpc::AddMsg(const Msg_t& message) {
  {
    const CLock lock(m_DataLock);
    if (m_deqMsg.size() < EM_CFG_MAX_MSG_SIZE) {
      m_deqMsg.push_back(message);
      m_cvSenderCtrl.NotifyOne();
      return true;
    }
  }
  LOGE("The cache limit has been reached!Size:%ld", static_cast<long>(EM_CFG_MAX_MSG_SIZE));
  return false;
}

void SysCtrlIpc::ThreadProc() {
  LOGI("Enter SysCtrlIpc Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  for (std::vector<std::string> texts; _PackMsg(texts); texts.clear()) _SendMsg(texts);
  LOGI("Quit SysCtrlIpc Thread");
}

bool SysCtrlIpc::_PackMsg(std::vector<std::string>& texts) {
  std::deque<Msg_t> messages;
  {
    const CLock lock(m_DataLock);
    m_cvSenderCtrl.Wait(m_DataLock,
                        [this]() REQUIRES(m_DataLock) { return !m_deqMsg.empty() || !IsRunning(); });
    if (!IsRunning()) return false;
    messages.swap(m_deqMsg);
  }
  for (Msg_t& message : messages) {
    Json::Value packed(Json::objectValue);
    packed["Cmd"] = message.m_emCmd;
    packed["Data"] = std::move(message.m_jsMsg);
    texts.push_back(JsonUtils::ToCompactText(packed));
    LOGD("Packed msg:%s", texts.back().c_str());
  }
  return true;
}

void SysCtrlIpc::_SendMsg(const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    if (!IsRunning()) return;
    SendToController(text);
  }
}

void SysCtrlIpc::OnStopRequested() {
  const CLock lock(m_DataLock);
  m_cvSenderCtrl.NotifyAll();
}
