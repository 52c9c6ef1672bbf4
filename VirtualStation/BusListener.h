/// A peer on the bus that hears one kind of signal. Part of Panel and WebServer.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "VirtualStation/BusConnection.h"
#include "VirtualStation/WakeUp.h"

namespace station {

class BusListener {
 public:
  /// `heard` is called with the text of every matching signal, on the listener's thread, from before the
  /// constructor returns until the destructor has returned.
  BusListener(const std::string& address, const std::string& interface, const std::string& member,
              std::function<void(const std::string&)> heard);
  ~BusListener();
  BusListener(const BusListener&) = delete;
  BusListener& operator=(const BusListener&) = delete;

 private:
  void _Listen();

  BusConnection m_connection;
  std::string m_interface, m_member;
  std::function<void(const std::string&)> m_heard;
  WakeUp m_stop;
  std::thread m_thread;
};

}  // namespace station
