/// libdbus behind one private connection: send, call, receive, each with an end.
#include "VirtualStation/BusConnection.h"

#include "VirtualStation/Process.h"

namespace station {

BusConnection::BusConnection(const std::string& address) {
  dbus_threads_init_default();
  DBusError error = DBUS_ERROR_INIT;
  m_connection = dbus_connection_open_private(address.c_str(), &error);
  if (m_connection == nullptr || dbus_bus_register(m_connection, &error) == 0) {
    Halt(std::string("the bus refuses a peer: ") + error.message);
  }
  dbus_connection_set_exit_on_disconnect(m_connection, 0);
}

BusConnection::~BusConnection() {
  dbus_connection_close(m_connection);
  dbus_connection_unref(m_connection);
}

void BusConnection::Match(const std::string& rule) const {
  DBusError error = DBUS_ERROR_INIT;
  dbus_bus_add_match(m_connection, rule.c_str(), &error);
  if (dbus_error_is_set(&error) != 0) {
    Halt("the bus refuses " + rule + ": " + error.message);
  }
}

void BusConnection::SendSignal(const std::string& path, const std::string& interface,
                               const std::string& member, const std::string& text) const {
  DBusMessage* signal = dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str());
  const char* argument = text.c_str();
  dbus_message_append_args(signal, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
  dbus_connection_send(m_connection, signal, nullptr);
  dbus_connection_flush(m_connection);
  dbus_message_unref(signal);
}

std::string BusConnection::Text(DBusMessage* message) {
  const char* text = "";
  dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  return text;
}

}  // namespace station
