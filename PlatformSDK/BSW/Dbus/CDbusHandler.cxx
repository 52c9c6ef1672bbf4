/// The daemon's connection to the system bus. Main opens it, the IPC parts register their services and send.
///
/// Whatever libdbus dispatches, a filter takes it: method calls and signals go into a queue of our own, from
/// which the receive thread alone serves one per pass of its loop; replies go to the calls that wait for
/// them. So none is lost whichever thread reads it in, the order is kept, and libdbus never answers in our
/// place. Its own pending calls are not used for waiting: with several threads they crash when the bus goes
/// away.
///
/// A bus that closes the connection, or is not there at start, is tried again by the receive thread. A
/// connection is ready before others see it, so that its set-up meets no other thread.
#include "BSW/Dbus/CDbusHandler.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr int kQueryMs = 20;
constexpr std::chrono::milliseconds kQueryTime(kQueryMs);
/// Before a closed connection is opened again; doubled from try to try, up to the second.
constexpr uint32_t kFirstReopenPauseMs = 10;
constexpr uint32_t kLongestReopenPauseMs = 5000;
/// How long a message may take to reach a bus that does not read; later it is written by the receive thread.
constexpr uint32_t kFlushMs = 1000;
constexpr size_t kMatchRuleBytes = 256;
constexpr uint32_t kMask31Bits = 0x7FFFFFFFU;

/// libdbus's error record.
class BusError {
 public:
  BusError() { dbus_error_init(&m_error); }
  ~BusError() { dbus_error_free(&m_error); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  DBusError* Get() { return &m_error; }
  bool IsSet() const { return dbus_error_is_set(&m_error) != 0; }
  const char* Name() const { return m_error.name; }
  const char* Text() const { return m_error.message; }

 private:
  DBusError m_error{};
};

uint32_t MilliSecSince(uint32_t start) {
  return (GetCurTimeMilliSec() - start) & kMask31Bits;
}

bool IsOpen(DBusConnection* connection) {
  return connection != nullptr && dbus_connection_get_is_connected(connection) != 0;
}

/// dbus_connection_flush with an end: a bus that hangs must not hang us.
void Flush(DBusConnection* connection) {
  const uint32_t start = GetCurTimeMilliSec();
  while (dbus_connection_has_messages_to_send(connection) != 0 && MilliSecSince(start) < kFlushMs) {
    if (dbus_connection_read_write(connection, kQueryMs) == 0) return;
  }
}

bool AppendText(DBusMessage* message, const char* text) {
  return dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) != 0;
}

bool SameText(const char* a, const char* b) {
  return std::strcmp(a, b) == 0;
}

const void* Address(const char* text) {
  return text;
}

/// What every send checks first; `operation` is named in the log lines.
bool CanSend(const char* operation, DBusConnection* connection, std::string_view value) {
  if (!IsValidUtf8(value)) {
    LOGE("%s: Invalid utf-8 string!", operation);
    return false;
  }
  if (IsOpen(connection)) return true;
  LOGE("m_dbusConn not vaild!");
  return false;
}

/// A closed connection needs no rule: it gets all of them when it is opened again.
void AddMatch(DBusConnection* connection, const std::string& rule) {
  if (!IsOpen(connection)) return;
  BusError error;
  dbus_bus_add_match(connection, rule.c_str(), error.Get());
  if (error.IsSet()) LOGE("dbus_bus_add_math Error: %s", error.Text());
}

bool HasMethodNames(const char* operation, const char* destination, const char* path, const char* interface,
                    const char* member, const std::string& value) {
  if (destination != nullptr && path != nullptr && interface != nullptr && member != nullptr) return true;
  LOGE("%s param wrong pstrObjectName:%p pstrInterface:%p pstrSignal:%p strValue:%p", operation,
       Address(path), Address(interface), Address(member), Address(value.c_str()));
  return false;
}

}  // namespace

CDbusHandler::CDbusHandler() : CThread("CDbusHandler") {}

CDbusHandler::~CDbusHandler() {
  CleanUp();
}

bool CDbusHandler::Init(const char* busName) {
  if (IsRunning()) return false;
  m_strBusName = busName;
  m_iReopenPauseMs = kFirstReopenPauseMs;
  _Open(true);
  return CreateThread(0);
}

bool CDbusHandler::CleanUp() {
  if (!DestroyThread(true, true) || HasCrashed()) return false;
  _Close();
  return true;
}

bool CDbusHandler::_Open(bool logFailure) {
  ConnectionPtr connection = _Connect(logFailure);
  if (!connection) return false;
  // The name first: what the policy says of signals to its owner then holds for the first that comes.
  _RequestName(connection.get(), m_strBusName.c_str());
  for (size_t added = 0;;) {
    std::string rule;
    {
      const CLock lock(m_Mutex);
      if (added == m_vecMatchRules.size()) {
        m_iOpenedMs = GetCurTimeMilliSec();
        m_dbusConn = std::move(connection);
        return true;
      }
      rule = m_vecMatchRules[added++];
    }
    AddMatch(connection.get(), rule);
  }
}

bool CDbusHandler::_Close() {
  const CLock lock(m_Mutex);
  const ConnectionPtr connection = std::move(m_dbusConn);
  if (connection) dbus_connection_remove_filter(connection.get(), &CDbusHandler::_Receive, this);
  const CLock receiveLock(m_receiveMutex);
  m_queReceived.clear();
  return connection != nullptr;
}

void CDbusHandler::_Reopen() {
  if (_Close()) {
    LOGE("the bus has closed the connection, it is opened again");
    // One that the bus closes at once each time is no fresh start.
    if (MilliSecSince(m_iOpenedMs) > kLongestReopenPauseMs) m_iReopenPauseMs = kFirstReopenPauseMs;
  }
  if (!Pause(m_iReopenPauseMs)) return;
  m_iReopenPauseMs = std::min(2 * m_iReopenPauseMs, kLongestReopenPauseMs);
  if (_Open(false)) LOGI("the bus connection is open");
}

CDbusHandler::ConnectionPtr CDbusHandler::_Connect(bool logFailure) {
  dbus_threads_init_default();
  BusError error;
  ConnectionPtr connection(dbus_bus_get(DBUS_BUS_SYSTEM, error.Get()));
  if (error.IsSet() && logFailure) LOGE("dbus_bus_get: %s\n", error.Text());
  if (!connection) return nullptr;
  dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  dbus_connection_set_route_peer_messages(connection.get(), TRUE);
  if (dbus_connection_add_filter(connection.get(), &CDbusHandler::_Receive, this, nullptr) == 0) {
    LOGE("dbus_connection_add_filter: Out of Memory!");
    return nullptr;
  }
  return connection;
}

void CDbusHandler::_RequestName(DBusConnection* connection, const char* busName) {
  BusError error;
  const int reply = dbus_bus_request_name(connection, busName, DBUS_NAME_FLAG_REPLACE_EXISTING, error.Get());
  if (error.IsSet()) LOGE("dbus_bus_request_name: %s\n", error.Text());
  if (reply != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) LOGE("Err: DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER\n");
}

bool CDbusHandler::RegisteredServices(const char* path, const char* interface, const char* member,
                                      DBUS_CALLBACK callback, bool listenSignals) {
  if (path == nullptr || interface == nullptr || member == nullptr || callback == nullptr) {
    LOGE("%s param wrong pstrObjectName:%p pstrtInterface:%p pstrMethod:%p pfnRegistrationCallback:%p",
         __func__, Address(path), Address(interface), Address(member),
         reinterpret_cast<const void*>(callback));
    return false;
  }
  const CLock lock(m_Mutex);
  if (listenSignals) _Listen(interface, member);
  m_VcDbusServices.push_back({path, interface, member, callback});
  return true;
}

bool CDbusHandler::UnRegisteredServices(const char* path, const char* interface, const char* member) {
  if (path == nullptr || interface == nullptr || member == nullptr) {
    LOGE("%s param wrong pstrObjectName:%p pstrtInterface:%p pstrMethod:%p ", __func__, Address(path),
         Address(interface), Address(member));
    return false;
  }
  const CLock lock(m_Mutex);
  const auto end =
      std::remove_if(m_VcDbusServices.begin(), m_VcDbusServices.end(), [&](const DBUS_SERVICES& service) {
        return SameText(service.pstrObjectName, path) && SameText(service.pstrInterface, interface) &&
               SameText(service.pstrMethod, member);
      });
  const bool found = end != m_VcDbusServices.end();
  m_VcDbusServices.erase(end, m_VcDbusServices.end());
  return found;
}

void CDbusHandler::SignalListen(const char* interface, const char* member) {
  const CLock lock(m_Mutex);
  _Listen(interface, member);
}

void CDbusHandler::_Listen(const char* interface, const char* member) {
  std::array<char, kMatchRuleBytes> rule{};
  std::snprintf(rule.data(), rule.size(), "type='signal',interface='%s',member='%s'", interface, member);
  if (std::find(m_vecMatchRules.begin(), m_vecMatchRules.end(), rule.data()) == m_vecMatchRules.end())
    m_vecMatchRules.emplace_back(rule.data());
  AddMatch(m_dbusConn.get(), rule.data());
}

bool CDbusHandler::SignalSend(const char* path, const char* interface, const char* member,
                              const char* value) {
  if (value == nullptr) {
    LOGE("%s: Null pstrValue", __func__);
    return false;
  }
  const ConnectionPtr connection = _Connection();
  if (!CanSend(__func__, connection.get(), value)) return false;
  if (path == nullptr || interface == nullptr || member == nullptr) {
    LOGE("%s param wrong pstrObjectName:%p pstrInterface:%p pstrMethod:%p pstrValue:%p", __func__,
         Address(path), Address(interface), Address(member), Address(value));
    return false;
  }
  {
    const CLock lock(m_Mutex);
    const MessagePtr message(dbus_message_new_signal(path, interface, member));
    if (!message) {
      LOGE("dbus_message_new_signal Error!");
      return false;
    }
    if (!AppendText(message.get(), value)) {
      LOGE("dbus_message_append_args Error: Out Of Memory!");
      return false;
    }
    if (dbus_connection_send(connection.get(), message.get(), nullptr) == 0) {
      LOGE("dbus_connection_send Error!");
      return false;
    }
  }
  Flush(connection.get());
  return true;
}

bool CDbusHandler::MethodSend(const char* destination, const char* path, const char* interface,
                              const char* member, const std::string& value) {
  const ConnectionPtr connection = _Connection();
  if (!CanSend(__func__, connection.get(), value)) return false;
  if (!HasMethodNames(__func__, destination, path, interface, member, value)) return false;
  const CLock lock(m_Mutex);
  const MessagePtr message = _NewMethodCall(destination, path, interface, member, value);
  if (!message) return false;
  dbus_message_set_no_reply(message.get(), TRUE);
  if (dbus_connection_send(connection.get(), message.get(), nullptr) != 0) return true;
  LOGE("dbus_connection_send: Out of Memory!");
  return false;
}

bool CDbusHandler::MethodSendGetReply(const char* destination, const char* path, const char* interface,
                                      const char* member, const std::string& value, std::string& reply,
                                      int timeoutMs) {
  const ConnectionPtr connection = _Connection();
  if (!CanSend(__func__, connection.get(), value)) return false;
  if (!HasMethodNames(__func__, destination, path, interface, member, value)) return false;
  dbus_uint32_t serial = 0;
  {
    const CLock lock(m_Mutex);
    const MessagePtr message = _NewMethodCall(destination, path, interface, member, value);
    if (!message) return false;
    // Held over the send: the answer may come in before anybody looks for it.
    const CLock receiveLock(m_receiveMutex);
    if (dbus_connection_send(connection.get(), message.get(), &serial) == 0) {
      LOGE("dbus_connection_send: Out of Memory!");
      return false;
    }
    m_mapReply.emplace(CallKey(connection.get(), serial), nullptr);
  }
  const MessagePtr answer = _AwaitReply(connection.get(), serial, timeoutMs);
  BusError error;
  if (!answer) {
    dbus_set_error_const(error.Get(), DBUS_ERROR_NO_REPLY, "none came");
  } else {
    dbus_set_error_from_message(error.Get(), answer.get());
  }
  if (error.IsSet()) {
    LOGE("Error %s: %s! SendMsg: %s ", error.Name(), error.Text(), value.c_str());
    return false;
  }
  const FirstArgument argument = _ReadText(answer.get(), reply);
  if (argument == FirstArgument::None) LOGE("Message has no arguments!");
  if (argument == FirstArgument::OtherType) LOGE("Argument is not string!");
  return true;
}

CDbusHandler::MessagePtr CDbusHandler::_AwaitReply(DBusConnection* connection, dbus_uint32_t serial,
                                                   int timeoutMs) {
  const bool onReceiveThread = std::this_thread::get_id() == m_receiveThread.load();
  const auto deadline = CCondition::Clock::now() + std::chrono::milliseconds(timeoutMs);
  const CLock lock(m_receiveMutex);
  const CallKey call(connection, serial);
  const MessagePtr& reply = m_mapReply.at(call);
  while (!reply && !StopRequested() && CCondition::Clock::now() < deadline && IsOpen(connection)) {
    if (!onReceiveThread) m_replyCond.WaitFor(m_receiveMutex, kQueryTime, [&] { return reply != nullptr; });
    if (reply) break;
    // Nobody reads now: we are the receive thread in a callback, or it is busy with one.
    m_receiveMutex.Unlock();
    dbus_connection_read_write_dispatch(connection, onReceiveThread ? kQueryMs : 0);
    while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    m_receiveMutex.Lock();
  }
  return std::move(m_mapReply.extract(call).mapped());
}

CDbusHandler::MessagePtr CDbusHandler::_NewMethodCall(const char* destination, const char* path,
                                                      const char* interface, const char* member,
                                                      const std::string& value) {
  MessagePtr message(dbus_message_new_method_call(destination, path, interface, member));
  if (!message) {
    LOGE("dbus_message_new_method_call Error!");
    return nullptr;
  }
  if (!AppendText(message.get(), value.c_str())) {
    LOGE("dbus_message_iter_append_basic: Out of Memory!");
    return nullptr;
  }
  return message;
}

CDbusHandler::ConnectionPtr CDbusHandler::_Connection() {
  const CLock lock(m_Mutex);
  return ConnectionPtr(m_dbusConn ? dbus_connection_ref(m_dbusConn.get()) : nullptr);
}

void CDbusHandler::ThreadProc() {
  LOGD("Enter CDbusHandler Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  m_receiveThread = std::this_thread::get_id();
  while (IsRunning()) {
    const std::vector<DBUS_SERVICES> before = _Services();
    // With messages to handle, only look whether there are more.
    const bool isOpen = QueryMessage(!before.empty() && _HasReceived() ? 0 : kQueryMs);
    const std::vector<DBUS_SERVICES> services = _Services();
    // What came before the end is still served.
    if (!isOpen && (services.empty() || !_HasReceived())) {
      _Reopen();
    } else if (!services.empty()) {
      HandleMessage(services, services.size());
    }
  }
}

std::vector<DBUS_SERVICES> CDbusHandler::_Services() {
  const CLock lock(m_Mutex);
  return m_VcDbusServices;
}

bool CDbusHandler::QueryMessage(int timeoutMs) {
  const ConnectionPtr connection = _Connection();
  return connection && dbus_connection_read_write_dispatch(connection.get(), timeoutMs) != 0;
}

CDbusHandler::MessagePtr CDbusHandler::_OwnCopy(DBusMessage* message) {
  MessagePtr copy(dbus_message_copy(message));
  if (copy) dbus_message_set_serial(copy.get(), dbus_message_get_serial(message));
  return copy;
}

DBusHandlerResult CDbusHandler::_Receive(DBusConnection* connection, DBusMessage* message, void* self) {
  auto* const handler = static_cast<CDbusHandler*>(self);
  const int type = dbus_message_get_type(message);
  const CLock lock(handler->m_receiveMutex);
  if (type == DBUS_MESSAGE_TYPE_METHOD_CALL || type == DBUS_MESSAGE_TYPE_SIGNAL) {
    MessagePtr own = _OwnCopy(message);
    if (!own) return DBUS_HANDLER_RESULT_NEED_MEMORY;
    handler->m_queReceived.push_back(std::move(own));
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  const auto waiting = handler->m_mapReply.find(CallKey(connection, dbus_message_get_reply_serial(message)));
  if (waiting == handler->m_mapReply.end()) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  waiting->second = _OwnCopy(message);
  if (!waiting->second) return DBUS_HANDLER_RESULT_NEED_MEMORY;
  handler->m_replyCond.NotifyAll();
  return DBUS_HANDLER_RESULT_HANDLED;
}

CDbusHandler::FirstArgument CDbusHandler::_ReadText(DBusMessage* message, std::string& text) {
  DBusMessageIter at{};
  if (dbus_message_iter_init(message, &at) == 0) return FirstArgument::None;
  if (dbus_message_iter_get_arg_type(&at) != DBUS_TYPE_STRING) return FirstArgument::OtherType;
  const char* value = nullptr;
  dbus_message_iter_get_basic(&at, &value);
  text = value;
  return FirstArgument::Text;
}

bool CDbusHandler::_HasReceived() {
  const CLock lock(m_receiveMutex);
  return !m_queReceived.empty();
}

CDbusHandler::MessagePtr CDbusHandler::_TakeReceived() {
  const CLock lock(m_receiveMutex);
  if (m_queReceived.empty()) return nullptr;
  MessagePtr message = std::move(m_queReceived.front());
  m_queReceived.pop_front();
  return message;
}

bool CDbusHandler::HandleMessage(const std::vector<DBUS_SERVICES>& services, size_t count) {
  if (!_Connection()) {
    std::printf("m_dbusConn not vaild!");
    return false;
  }
  const MessagePtr message = _TakeReceived();
  if (!message) return false;
  for (size_t i = 0; i < count; ++i) {
    const DBUS_SERVICES& service = services[i];
    if (dbus_message_is_method_call(message.get(), service.pstrInterface, service.pstrMethod) != 0) {
      if (!_HandleCall(service, message.get())) return false;
    } else if (dbus_message_is_signal(message.get(), service.pstrInterface, service.pstrMethod) != 0) {
      if (!_HandleSignal(service, message.get())) return false;
    }
  }
  return true;
}

bool CDbusHandler::_HandleCall(const DBUS_SERVICES& service, DBusMessage* call) {
  if (dbus_message_has_path(call, service.pstrObjectName) == 0) return true;
  std::string text;
  const FirstArgument argument = _ReadText(call, text);
  if (argument == FirstArgument::None) std::fputs("Message has no arguments!\n", stderr);
  if (argument == FirstArgument::OtherType) std::fputs("Argument is not string!\n", stderr);
  _Reply(call, service.pfnCallback(text));
  return true;
}

bool CDbusHandler::_HandleSignal(const DBUS_SERVICES& service, DBusMessage* signal) {
  BusError error;
  const char* text = nullptr;
  if (dbus_message_get_args(signal, error.Get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == 0) {
    LOGE("dbus_message_get_args Error: %s\n", error.Text());
    return false;
  }
  service.pfnCallback(text);
  return true;
}

void CDbusHandler::_Reply(DBusMessage* call, const std::string& text) {
  if (dbus_message_get_no_reply(call) != 0) return;
  const ConnectionPtr connection = _Connection();
  if (!CanSend("HandleMessage", connection.get(), text)) return;
  {
    const CLock lock(m_Mutex);
    const MessagePtr reply(dbus_message_new_method_return(call));
    if (!reply || !AppendText(reply.get(), text.c_str()) ||
        dbus_connection_send(connection.get(), reply.get(), nullptr) == 0) {
      LOGE("Out Of Memory!");
      return;
    }
  }
  Flush(connection.get());
}
