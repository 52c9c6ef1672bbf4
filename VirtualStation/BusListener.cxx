/// A thread that reads one kind of signal off a connection of its own and hands the text on.
#include "VirtualStation/BusListener.h"

#include <poll.h>
#include <unistd.h>

#include <utility>

namespace station {

BusListener::BusListener(const std::string& address, const std::string& interface, const std::string& member,
                         std::function<void(const std::string&)> heard)
    : m_connection(address), m_interface(interface), m_member(member), m_heard(std::move(heard)) {
  m_connection.Match("type='signal',interface='" + interface + "',member='" + member + "'");
  m_thread = std::thread(&BusListener::_Listen, this);
}

BusListener::~BusListener() {
  m_stop.Ring();
  m_thread.join();
}

void BusListener::_Listen() {
  int bus = -1;
  dbus_connection_get_unix_fd(m_connection.Get(), &bus);
  pollfd fds[] = {{bus, POLLIN, 0}, m_stop.Watch()};
  while (fds[1].revents == 0 && dbus_connection_read_write(m_connection.Get(), 0) != 0) {
    while (DBusMessage* message = dbus_connection_pop_message(m_connection.Get())) {
      if (dbus_message_is_signal(message, m_interface.c_str(), m_member.c_str()) != 0) {
        m_heard(BusConnection::Text(message));
      }
      dbus_message_unref(message);
    }
    poll(fds, 2, -1);
  }
}

}  // namespace station
