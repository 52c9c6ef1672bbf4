/// Reads requests and writes bytes, in the clear or through OpenSSL.
#include "VirtualStation/Cloud/HttpConnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace station {

std::string HttpRequest::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? "" : found->second;
}

HttpConnection::HttpConnection(int socket, const CloudTls* tls)
    : m_socket(socket), m_secure(tls != nullptr), m_session(m_secure ? tls->Accept(socket) : nullptr) {}

std::optional<HttpRequest> HttpConnection::Read() {
  const std::string headEnd = "\r\n\r\n";
  std::size_t end = 0;
  while ((end = m_buffer.find(headEnd)) == std::string::npos) {
    if (!_ReadMore()) return std::nullopt;
  }
  HttpRequest request;
  request.secure = m_secure;
  std::istringstream head(m_buffer.substr(0, end));
  m_buffer.erase(0, end + headEnd.size());
  head >> request.method >> request.path;
  std::string line;
  std::getline(head, line);  // the version
  while (std::getline(head, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) return std::nullopt;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t first = line.find_first_not_of(' ', colon + 1);
    const std::size_t last = line.find_last_not_of(" \r");
    request.headers[name] = first <= last ? line.substr(first, last + 1 - first) : "";
  }
  const std::size_t length = std::strtoul(request.Header("content-length").c_str(), nullptr, 10);
  while (m_buffer.size() < length) {
    if (!_ReadMore()) return std::nullopt;
  }
  request.body = m_buffer.substr(0, length);
  m_buffer.erase(0, length);
  return request;
}

bool HttpConnection::_ReadMore() {
  std::array<char, 16 * 1024> block{};
  std::size_t count = 0;
  if (m_session) {
    SSL_read_ex(m_session.get(), block.data(), block.size(), &count);
  } else if (!m_secure) {
    const ssize_t got = recv(m_socket, block.data(), block.size(), 0);
    count = got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  m_buffer.append(block.data(), count);
  return count > 0;
}

bool HttpConnection::Write(const std::string& data) {
  if (m_session) {
    std::size_t written = 0;  // all: the session does not write in part
    return SSL_write_ex(m_session.get(), data.data(), data.size(), &written) == 1;
  }
  for (std::size_t at = 0; at < data.size();) {
    const ssize_t sent = m_secure ? -1 : send(m_socket, data.data() + at, data.size() - at, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    at += static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace station
