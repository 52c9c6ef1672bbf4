/// One client of the cloud backend: HTTP/1.1 requests in, bytes out, over TCP or TLS. Used by Cloud.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "VirtualStation/Cloud/CloudTls.h"

namespace station {

struct HttpRequest {
  std::string method, path, body;
  std::map<std::string, std::string> headers;  ///< names in lower case
  bool secure = false;                         ///< over TLS

  /// Its value; empty when there is no such header.
  std::string Header(const std::string& name) const;
};

/// One thread; every call blocks until the client has done its part or gone away. Owns neither argument.
class HttpConnection {
 public:
  /// `tls`: null for plain HTTP.
  HttpConnection(int socket, const CloudTls* tls);

  /// The next request; nothing when there is none: the client went away, or talks no HTTP.
  std::optional<HttpRequest> Read();
  /// False when the client went away.
  bool Write(const std::string& data);

 private:
  bool _ReadMore();

  int m_socket;
  bool m_secure;
  CloudTls::Session m_session;  ///< null: plain HTTP, or a failed handshake
  std::string m_buffer;         ///< received and not yet part of a request
};

}  // namespace station
