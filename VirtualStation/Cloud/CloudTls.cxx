/// Makes the authority and the certificates with OpenSSL, anew for each station.
#include "VirtualStation/Cloud/CloudTls.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/Cloud/Cloud.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

using Key = CloudTls::Key;
using Certificate = CloudTls::Certificate;

void Require(bool good) {
  if (!good) {
    Halt("the cloud backend cannot make its certificates");
  }
}

Key MakeKey() {
  Key key(EVP_EC_gen("P-256"));
  Require(key != nullptr);
  return key;
}

/// A certificate for `key`, valid from `fromDay` to `toDay`, counted from now, without a signature yet. It is
/// an authority's when it has no host.
Certificate MakeCertificate(const std::string& name, const std::string& host, EVP_PKEY* key, int fromDay,
                            int toDay) {
  static long serial = 0;
  Certificate made(X509_new());
  X509_set_version(made.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
  X509_time_adj_ex(X509_getm_notBefore(made.get()), fromDay, 0, nullptr);
  X509_time_adj_ex(X509_getm_notAfter(made.get()), toDay, 0, nullptr);
  X509_set_pubkey(made.get(), key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  const std::string value = host.empty() ? "critical,CA:TRUE" : "DNS:" + host;
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(
      nullptr, nullptr, host.empty() ? NID_basic_constraints : NID_subject_alt_name, value.c_str());
  Require(extension != nullptr);
  X509_add_ext(made.get(), extension, -1);
  X509_EXTENSION_free(extension);
  return made;
}

void Sign(const Certificate& certificate, const Certificate& issuer, const Key& issuerKey) {
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
  Require(X509_sign(certificate.get(), issuerKey.get(), EVP_sha256()) > 0);
}

void Trust(const Certificate& authority) {
  const std::string bundle = "/etc/ssl/certs/ca-certificates.crt";
  const std::string original = std::string(kStationDir) + "/ca-certificates.crt";
  if (!std::filesystem::exists(original)) {
    WriteText(original, ReadText(bundle));
  }
  const std::unique_ptr<BIO, FreeWith<BIO_free>> pem(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(pem.get(), authority.get());
  char* data = nullptr;
  const long length = BIO_get_mem_data(pem.get(), &data);
  WriteText(bundle, ReadText(original) + std::string(data, static_cast<std::size_t>(length)));
}

}  // namespace

CloudTls::CloudTls() : m_key(MakeKey()), m_context(SSL_CTX_new(TLS_server_method())) {
  constexpr int kDays = 2;
  const Key authorityKey = MakeKey();
  const Certificate authority = MakeCertificate("Test Authority", "", authorityKey.get(), -kDays, kDays);
  Sign(authority, authority, authorityKey);
  Trust(authority);
  for (const char* host :
       {Cloud::kHost, Cloud::kWrongHost, Cloud::kUnknownAuthorityHost, Cloud::kExpiredHost}) {
    const std::string named = host == Cloud::kWrongHost ? Cloud::kHost : host;
    Certificate certificate =
        MakeCertificate(named, named, m_key.get(), -kDays, host == Cloud::kExpiredHost ? -1 : kDays);
    if (host == Cloud::kUnknownAuthorityHost) {
      Sign(certificate, certificate, m_key);
    } else {
      Sign(certificate, authority, authorityKey);
    }
    m_certificates[host] = std::move(certificate);
  }
  Require(m_context && SSL_CTX_use_certificate(m_context.get(), m_certificates[Cloud::kHost].get()) == 1 &&
          SSL_CTX_use_PrivateKey(m_context.get(), m_key.get()) == 1);
  SSL_CTX_set_tlsext_servername_callback(m_context.get(), &CloudTls::_ChooseCertificate);
  SSL_CTX_set_tlsext_servername_arg(m_context.get(), this);
}

int CloudTls::_ChooseCertificate(SSL* session, int* /*alert*/, void* self) {
  const auto& certificates = static_cast<CloudTls*>(self)->m_certificates;
  const char* name = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
  const auto found = certificates.find(name == nullptr ? "" : name);
  if (found == certificates.end()) {
    return SSL_TLSEXT_ERR_NOACK;  // the context's own is shown
  }
  return SSL_use_certificate(session, found->second.get()) == 1 ? SSL_TLSEXT_ERR_OK
                                                                : SSL_TLSEXT_ERR_ALERT_FATAL;
}

CloudTls::Session CloudTls::Accept(int socket) const {
  Session session(SSL_new(m_context.get()));
  SSL_set_fd(session.get(), socket);
  return SSL_accept(session.get()) == 1 ? std::move(session) : nullptr;
}

}  // namespace station
