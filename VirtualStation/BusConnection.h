/// One private connection to the station's bus. Used by Bus and the peers.
#pragma once

#include <dbus/dbus.h>

#include <string>

namespace station {

/// One thread at a time.
class BusConnection {
 public:
  /// Halts when the bus does not take it.
  explicit BusConnection(const std::string& address);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  DBusConnection* Get() const { return m_connection; }
  /// Adds a match rule; it holds when this returns.
  void Match(const std::string& rule) const;
  /// Sends a signal with one string and returns when it is written.
  void SendSignal(const std::string& path, const std::string& interface, const std::string& member,
                  const std::string& text) const;
  /// The first argument as text; empty when it is none.
  static std::string Text(DBusMessage* message);

 private:
  DBusConnection* m_connection;
};

}  // namespace station
