/// The process's one connection to the D-Bus system bus: it owns the daemon's name, receives method calls and
/// signals for the registered services and sends for everybody. Every message carries exactly one string.
///
/// A bus that goes away, or is not there at start, is tried again for as long as the receive thread runs, at
/// intervals that grow to some seconds. When it is back, name and services are as before; what is sent
/// meanwhile fails.
#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Gets the message's string and gives the reply, which a signal's sender never sees. Runs on the receive
/// thread, one message at a time, without any lock held: it may send and register, and it delays all later
/// messages.
using DBUS_CALLBACK = std::string (*)(const std::string&);

/// One registered service. The strings are not copied: pass literals.
struct DBUS_SERVICES {
  const char* pstrObjectName;
  const char* pstrInterface;
  const char* pstrMethod;
  DBUS_CALLBACK pfnCallback;
};

class CDbusHandler : public CThread, public CSingleton<CDbusHandler> {
 public:
  ~CDbusHandler() override;

  /// Connects to the system bus, requests `busName` and starts the receive thread. A failure to connect or to
  /// own the name is logged and does not stop the thread, which connects later; the result is that of
  /// starting the thread. A bus that takes the connection and does not answer holds the caller, and later the
  /// receive thread, for libdbus's own limit (25 s).
  bool Init(const char* busName);
  /// Stops the receive thread and gives the connection back.
  bool CleanUp();

  /// Adds a service, with `listenSignals` also for signals of that interface and member from any path. A
  /// method call that matches no service on its path, interface and member is never answered. It needs no
  /// bus, and outlives its going. False when an argument is null.
  bool RegisteredServices(const char* path, const char* interface, const char* member, DBUS_CALLBACK callback,
                          bool listenSignals);
  /// Removes the matching services; a callback of theirs that runs already is not waited for. False when
  /// there was none or an argument is null.
  bool UnRegisteredServices(const char* path, const char* interface, const char* member);
  /// Adds the match rule for a signal, as RegisteredServices does. No caller yet.
  void SignalListen(const char* interface, const char* member);

  /// Sends one signal and flushes it. Any thread. False when a name is null, the value no UTF-8, or nothing
  /// connected.
  bool SignalSend(const char* path, const char* interface, const char* member, const char* value);
  /// Sends a method call and waits for nothing; the callee is told that no reply is wanted. Fails like
  /// SignalSend. No caller yet.
  bool MethodSend(const char* destination, const char* path, const char* interface, const char* member,
                  const std::string& value);
  /// Sends a method call and waits at most `timeoutMs` for its reply; other threads send and receive
  /// meanwhile. The reply's first argument goes into `reply` if it is a string. False on a bus error, on a
  /// time-out, and when the calling thread is stopped. No caller yet.
  bool MethodSendGetReply(const char* destination, const char* path, const char* interface,
                          const char* member, const std::string& value, std::string& reply, int timeoutMs);

 protected:
  void ThreadProc() override;

 private:
  friend class CSingleton<CDbusHandler>;
  struct Unref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
    void operator()(DBusConnection* connection) const { dbus_connection_unref(connection); }
  };
  using MessagePtr = std::unique_ptr<DBusMessage, Unref>;
  using ConnectionPtr = std::unique_ptr<DBusConnection, Unref>;
  /// A call that waits. Each connection counts its serials from 1.
  using CallKey = std::pair<DBusConnection*, dbus_uint32_t>;

  enum class FirstArgument { Text, None, OtherType };

  CDbusHandler();

  /// Gets a connection with its name and match rules in place and shows it to the other threads. False when
  /// there is no bus. The receive thread, or Init before there is one.
  bool _Open(bool logFailure);
  /// Gives the connection back, with what it has received. False when there was none.
  bool _Close();
  /// Pauses and tries once to get the connection back. Receive thread.
  void _Reopen();
  /// Gets the bus connection, ready for use by all threads; null when there is no bus.
  ConnectionPtr _Connect(bool logFailure);
  static void _RequestName(DBusConnection* connection, const char* busName);
  /// A reference of the caller's own; null when there is no connection.
  ConnectionPtr _Connection();
  /// Adds a match rule to this connection and to the coming ones.
  void _Listen(const char* interface, const char* member) REQUIRES(m_Mutex);

  /// A copy of the services as they are now.
  std::vector<DBUS_SERVICES> _Services();
  /// Reads, writes and dispatches for at most `timeoutMs`. False once the connection is closed.
  bool QueryMessage(int timeoutMs);
  /// Routes the oldest received message to the services that match it. False when there was none or it had no
  /// string.
  bool HandleMessage(const std::vector<DBUS_SERVICES>& services, size_t count);
  /// One service's part in a message of its interface and member. False ends the walk over the services.
  bool _HandleCall(const DBUS_SERVICES& service, DBusMessage* call);
  static bool _HandleSignal(const DBUS_SERVICES& service, DBusMessage* signal);
  /// Answers a method call with one string.
  void _Reply(DBusMessage* call, const std::string& text);
  /// Takes every message that libdbus dispatches: calls and signals into m_queReceived, replies to who waits.
  static DBusHandlerResult _Receive(DBusConnection* connection, DBusMessage* message, void* self);
  bool _HasReceived();
  /// The oldest received message; null when there is none.
  MessagePtr _TakeReceived();
  /// The message with its serial, for another thread to read and free: what one thread shares with the
  /// dispatching one is ordered by nothing but the library's count of references. Null: out of memory.
  static MessagePtr _OwnCopy(DBusMessage* message);
  static FirstArgument _ReadText(DBusMessage* message, std::string& text);
  /// The reply to the call `serial` of m_mapReply, which is removed; null when none comes in time.
  MessagePtr _AwaitReply(DBusConnection* connection, dbus_uint32_t serial, int timeoutMs);

  /// A method call with its one string; null, logged, on failure.
  static MessagePtr _NewMethodCall(const char* destination, const char* path, const char* interface,
                                   const char* member, const std::string& value);

  ConnectionPtr m_dbusConn GUARDED_BY(m_Mutex);  ///< shared bus connection; null while there is none
  CMutex m_Mutex;                                ///< also serialises all sends
  std::vector<DBUS_SERVICES> m_VcDbusServices GUARDED_BY(m_Mutex);
  std::vector<std::string> m_vecMatchRules GUARDED_BY(m_Mutex);  ///< of every connection, each once
  CMutex m_receiveMutex;                                         ///< may be taken with m_Mutex held
  std::deque<MessagePtr> m_queReceived GUARDED_BY(m_receiveMutex);
  /// The replies to the calls that wait; null until they come.
  std::map<CallKey, MessagePtr> m_mapReply GUARDED_BY(m_receiveMutex);
  CCondition m_replyCond;
  std::atomic<std::thread::id> m_receiveThread{};
  // Init, then the receive thread alone.
  std::string m_strBusName;
  uint32_t m_iOpenedMs = 0;       ///< when the last connection came up
  uint32_t m_iReopenPauseMs = 0;  ///< before the next try
};
