// A socket that listens on loopback, on a port that the system picks. The scripted server of the unit tests
// and the file server of the benchmark accept from it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "BSW/BasicFun/UniqueFd.h"

class LoopbackListener {
 public:
  LoopbackListener() : m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (bind(m_socket.Get(), plain, length) != 0 || listen(m_socket.Get(), 8) != 0 ||
        getsockname(m_socket.Get(), plain, &length) != 0) {
      std::abort();
    }
    m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }

  int Fd() const { return m_socket.Get(); }
  UniqueFd Accept() const { return UniqueFd(accept(m_socket.Get(), nullptr, nullptr)); }
  std::string Url(const std::string& path) const { return m_url + path; }

 private:
  const UniqueFd m_socket;
  std::string m_url;
};
