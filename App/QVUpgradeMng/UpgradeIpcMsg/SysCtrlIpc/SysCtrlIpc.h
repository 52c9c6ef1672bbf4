/// The link to the system controller, which owns the station's hardware state: it reports versions, battery
/// and clock, and is sent requests. Messages are JSON texts of one bus member in both directions. What comes
/// in is acknowledged at once and handled later; what goes out is queued and sent in batches. So neither the
/// bus nor a caller ever waits for the other side.
#pragma once

#include <json/json.h>

#include <atomic>
#include <deque>
#include <string>
#include <vector>

#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlMsgHandler.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// This CThread is the sender. Owned by itself; UpgradeIpcMsg initialises it, sends through it and cleans it
/// up.
class SysCtrlIpc : public CThread, public CSingleton<SysCtrlIpc>, public SysCtrlProtocol {
 public:
  enum SysCtrlIpcCfgType {
    EM_CFG_MAX_MSG_SIZE = 1024,  ///< messages that each queue holds
  };

  /// One message to the controller.
  struct Msg_t {
    Json::Value m_jsMsg;  ///< its "Data"
    CmdCodeType m_emCmd = EM_CODE_MAX;
  };

  ~SysCtrlIpc() override;

  /// Whom the reports go to from now on; not owned, must stay until CleanUp. Main sets it before Init.
  void SetReports(ISysCtrlReports* reports) { m_pReports = reports; }

  /// Serves the bus and starts the sender; the receiver runs since construction, or since Init after a
  /// CleanUp. False when a thread does not start or the bus is served already.
  bool Init();
  /// Leaves the bus and stops both threads, whatever is queued: no report is handled and nothing is sent
  /// afterwards. Any thread but those two.
  bool CleanUp();

  /// Queues one message. False, logged, when the queue is full: the message is dropped. Any thread, at once.
  bool AddMsg(const Msg_t& message);

  /// Takes one message of the controller: acknowledges it with a signal, queues it, and gives the text of the
  /// reply. What is no JSON, or larger than any message of the controller, gets the reply alone. On the bus
  /// thread.
  std::string ProcRecvMsg(const std::string& text);
  static std::string ProcRecvMsgStatic(const std::string& text) { return instance()->ProcRecvMsg(text); }

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;

 private:
  friend class CSingleton<SysCtrlIpc>;

  /// The receiver's thread.
  class Recver final : public CThread {
   public:
    explicit Recver(SysCtrlIpc& owner) : CThread("SysCtrlIpcRecver"), m_owner(owner) {}

   protected:
    void ThreadProc() override { m_owner._ProcRecvMsg(); }
    void OnStopRequested() override;

   private:
    SysCtrlIpc& m_owner;
  };

  SysCtrlIpc();

  static bool _SendAck(const Json::Value& message);
  void _ProcRecvMsg();
  /// Waits for messages and handles what is there, up to the first that is none.
  void _HandleMsg();
  /// Waits for messages to send and gives their texts in order; false when the sender is to stop.
  bool _PackMsg(std::vector<std::string>& texts);
  void _SendMsg(const std::vector<std::string>& texts);

  std::atomic<ISysCtrlReports*> m_pReports{nullptr};
  Recver m_MsgRecver{*this};
  CMutex m_DataLock;
  std::vector<Json::Value> m_vecRecvMsg GUARDED_BY(m_DataLock);
  CCondition m_cvRecvCtrl;  ///< the receiver waits for messages or its stop
  std::deque<Msg_t> m_deqMsg GUARDED_BY(m_DataLock);
  CCondition m_cvSenderCtrl;  ///< the sender likewise
};
