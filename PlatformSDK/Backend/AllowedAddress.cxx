/// The rule for addresses. curl's own parser takes them apart, so that what is checked here is what is
/// connected to later; never compare the text of an address.
#include "Backend/AllowedAddress.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Quorvalen {
namespace {

constexpr size_t kMaxAddressBytes = 4096;
constexpr uint32_t kLoopbackNet = 127;  // the first of the address's four bytes

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using UrlPtr = std::unique_ptr<CURLU, UrlFree>;

/// A part of the address, "" when it has none.
std::string Part(CURLU* url, CURLUPart what) {
  char* text = nullptr;
  if (curl_url_get(url, what, &text, 0) != CURLUE_OK) return {};
  std::string part = text;
  curl_free(text);
  return part;
}

/// curl itself resolves "localhost" to the loopback addresses, whatever the resolver says.
bool IsLoopback(const std::string& host) {
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24U == kLoopbackNet;
  return host == "[::1]" || strcasecmp(host.c_str(), "localhost") == 0;
}

/// What is wrong with the address; "" when it is allowed.
std::string Objection(const std::string& url) {
  if (url.size() > kMaxAddressBytes || url.find('\0') != std::string::npos) return "no address";
  const UrlPtr parsed(curl_url());
  if (!parsed) return "out of memory";
  const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
  if (code != CURLUE_OK) return curl_url_strerror(code);
  if (!Part(parsed.get(), CURLUPART_USER).empty() || !Part(parsed.get(), CURLUPART_PASSWORD).empty()) {
    return "it names a user";
  }
  const std::string scheme = Part(parsed.get(), CURLUPART_SCHEME);
  if (scheme == "https") return {};
  if (scheme != "http") return "only https is";
  return IsLoopback(Part(parsed.get(), CURLUPART_HOST)) ? "" : "http is for loopback hosts only";
}

}  // namespace

bool IsAllowedAddress(const std::string& url, std::string& error) {
  const std::string objection = Objection(url);
  if (objection.empty()) return true;
  error =
      "the address \"" + AddressForLog(url.substr(0, kMaxAddressBytes)) + "\" is not allowed: " + objection;
  return false;
}

std::string AddressForLog(const std::string& url) {
  std::string shown = url.substr(0, url.find_first_of("?#"));
  const size_t host = shown.find_first_not_of('/', shown.find(':') + 1);  // also without a scheme
  if (host == std::string::npos) return shown;
  const size_t user = shown.substr(0, shown.find('/', host)).rfind('@');
  if (user != std::string::npos && user >= host) shown.erase(host, user + 1 - host);
  return shown;
}

}  // namespace Quorvalen
