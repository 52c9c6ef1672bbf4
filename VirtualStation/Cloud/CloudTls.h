/// The TLS side of the cloud backend: an authority that the machine trusts, and a server certificate for
/// every host name, sound or wrong in one thing. Owned by Cloud.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <map>
#include <memory>
#include <string>

namespace station {

/// Frees an object of the TLS library.
template <auto Function>
struct FreeWith {
  template <typename T>
  void operator()(T* object) const {
    Function(object);
  }
};

class CloudTls {
 public:
  using Session = std::unique_ptr<SSL, FreeWith<SSL_free>>;
  using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
  using Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;

  /// Makes keys and certificates anew, and puts the authority among those that the machine trusts, in place
  /// of an earlier one. Halts when the library refuses.
  CloudTls();

  /// The server's side of a handshake on a connected socket, with the certificate for the name that the
  /// client asks for; null when the client does not like it. Blocks; any thread.
  Session Accept(int socket) const;

 private:
  static int _ChooseCertificate(SSL* session, int* alert, void* self);

  Key m_key;                                          ///< of all server certificates
  std::map<std::string, Certificate> m_certificates;  ///< by host name
  std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> m_context;
};

}  // namespace station
