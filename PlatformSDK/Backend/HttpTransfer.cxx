/// curl's easy interface: settings, answers, and errors in words that tell the cause. What may never change
/// here is that certificate and host are checked and that only the loop's certificates count.
#include "Backend/HttpTransfer.h"

#include <curl/curl.h>

#include <algorithm>
#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "Backend/AllowedAddress.h"

namespace Quorvalen {
namespace {

static_assert(CURL_ERROR_SIZE == 256, "the size of m_errorText");

constexpr long kMaxRedirects = 5;
/// What curl reads, and we write, at once.
constexpr long kBufferBytes = 256L * 1024L;
constexpr long kOn = 1;
constexpr long kCheckHostName = 2;
/// OpenSSL's verify result when the chain was never found wrong (X509_V_ERR_UNSPECIFIED): curl leaves it
/// there when it is the host name that does not match.
constexpr long kChainNotBlamed = 1;

/// Of a Retry-After header, before the settings cut it: what milliseconds can hold.
constexpr curl_off_t kMostRetryAfterSeconds = 365LL * 24 * 60 * 60;

constexpr long kRequestTimeout = 408;
constexpr long kTooEarly = 425;
constexpr long kTooManyRequests = 429;
constexpr long kFirstError = 400;
constexpr long kFirstServerError = 500;

std::string Header(CURL* easy, const char* name) {
  constexpr int kLastAnswer = -1;
  curl_header* header = nullptr;
  const bool found = curl_easy_header(easy, name, 0, CURLH_HEADER, kLastAnswer, &header) == CURLHE_OK;
  return found ? header->value : "";
}

bool MayPass(int code) {
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
    case CURLE_TOO_MANY_REDIRECTS:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_WRITE_ERROR:
      return false;
    default:
      return true;
  }
}

}  // namespace

bool HttpHead::MayPass() const {
  return status == kRequestTimeout || status == kTooEarly || status == kTooManyRequests ||
         status >= kFirstServerError;
}

HttpTransfer::HttpTransfer(TransferLoop& loop, HttpRequest request, IHttpReceiver& receiver)
    : m_loop(loop), m_request(std::move(request)), m_receiver(receiver), m_pEasy(curl_easy_init()) {}

HttpTransfer::~HttpTransfer() {
  _Leave();
}

void HttpTransfer::Start() {
  if (!m_pEasy || !_Configure() || !m_loop.Add(*this)) {
    m_timer = m_loop.StartTimer(std::chrono::milliseconds(0), [this] { Finish(CURLE_FAILED_INIT); });
    return;
  }
  m_lastByte = Clock::now();
  _WatchSilence(m_loop.Settings().silence);
}

bool HttpTransfer::_Configure() {
  CURL* const easy = m_pEasy.get();
  bool good = true;
  const auto set = [&](CURLoption option, auto value) {
    good = good && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  const auto addHeader = [&](const std::string& line) {
    curl_slist* const longer = curl_slist_append(m_pHeaders.get(), line.c_str());
    good = good && longer != nullptr;
    if (longer == nullptr) return;
    static_cast<void>(m_pHeaders.release());
    m_pHeaders.reset(longer);
  };

  set(CURLOPT_URL, m_request.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(CURLOPT_FOLLOWLOCATION, kOn);
  set(CURLOPT_MAXREDIRS, kMaxRedirects);
  set(CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  set(CURLOPT_SSL_VERIFYPEER, kOn);
  set(CURLOPT_SSL_VERIFYHOST, kCheckHostName);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!m_loop.Settings().caFile.empty()) {
    set(CURLOPT_CAINFO, m_loop.Settings().caFile.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // else the system's count as well
  }
  set(CURLOPT_PROXY, "");  // none, whatever the environment says
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_USERAGENT, "Quorvalen");
  set(CURLOPT_FORBID_REUSE, kOn);
  set(CURLOPT_NOSIGNAL, kOn);
  // A stop does not wait for a name server: the look-up's thread is left to end by itself, within the
  // resolver's own time-outs.
  set(CURLOPT_QUICK_EXIT, kOn);
  set(CURLOPT_BUFFERSIZE, kBufferBytes);
  set(CURLOPT_ERRORBUFFER, m_errorText.data());
  set(CURLOPT_WRITEFUNCTION, &HttpTransfer::_OnData);
  set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  set(CURLOPT_PRIVATE, static_cast<void*>(static_cast<ITransfer*>(this)));
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(m_request.longest.count()));
  if (m_request.json) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_request.json->size()));
    set(CURLOPT_POSTFIELDS, m_request.json->c_str());
    addHeader("Content-Type: application/json");
    addHeader("Accept: application/json");
  }
  if (m_request.offset > 0) {
    set(CURLOPT_RANGE, (std::to_string(m_request.offset) + "-").c_str());
    if (!m_request.ifRange.empty()) addHeader("If-Range: " + m_request.ifRange);
  }
  set(CURLOPT_HTTPHEADER, m_pHeaders.get());
  return good;
}

size_t HttpTransfer::_OnData(char* data, size_t /*one*/, size_t length, void* self) {
  auto* const transfer = static_cast<HttpTransfer*>(self);
  transfer->m_lastByte = Clock::now();
  const bool wanted =
      (transfer->m_bHeadTaken || transfer->_TakeHead()) && transfer->m_receiver.OnBody(data, length);
  return wanted ? length : CURL_WRITEFUNC_ERROR;
}

bool HttpTransfer::_TakeHead() {
  m_bHeadTaken = true;
  CURL* const easy = m_pEasy.get();
  HttpHead head;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &head.status);
  head.etag = Header(easy, "ETag");
  head.lastModified = Header(easy, "Last-Modified");
  head.contentRange = Header(easy, "Content-Range");
  curl_off_t length = -1;
  if (curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK && length >= 0) {
    head.contentLength = static_cast<uint64_t>(length);
  }
  curl_off_t seconds = 0;
  curl_easy_getinfo(easy, CURLINFO_RETRY_AFTER, &seconds);
  const auto asked = std::chrono::seconds(std::clamp<curl_off_t>(seconds, 0, kMostRetryAfterSeconds));
  head.retryAfter = std::min<std::chrono::milliseconds>(asked, m_loop.Settings().longestRetryAfter);
  return m_receiver.OnHead(head);
}

void HttpTransfer::Finish(int curlCode) {
  const bool complete = curlCode == CURLE_OK;
  long status = 0;
  curl_easy_getinfo(m_pEasy.get(), CURLINFO_RESPONSE_CODE, &status);
  // An answer without a body, or a refusal that broke off before it: what the server asks for counts.
  if (!m_bHeadTaken && (complete || status >= kFirstError)) _TakeHead();
  HttpEnd end;
  if (!complete) end = {_Explain(curlCode), MayPass(curlCode)};
  _Leave();
  m_receiver.OnEnd(end);
}

std::string HttpTransfer::_Explain(int curlCode) const {
  const auto code = static_cast<CURLcode>(curlCode);
  std::string detail = m_errorText[0] != '\0' ? m_errorText.data() : curl_easy_strerror(code);
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    long verified = 0;
    curl_easy_getinfo(m_pEasy.get(), CURLINFO_SSL_VERIFYRESULT, &verified);
    const bool otherHost = verified == kChainNotBlamed;
    detail = (otherHost ? "the certificate belongs to another host: " : "the certificate is not trusted: ") +
             detail;
  }
  if (code == CURLE_UNSUPPORTED_PROTOCOL) detail = "redirected to an address that is not allowed: " + detail;
  return "\"" + AddressForLog(m_request.url) + "\": " + detail;
}

void HttpTransfer::_WatchSilence(std::chrono::milliseconds delay) {
  m_timer = m_loop.StartTimer(delay, [this] { _OnSilenceTimer(); });
}

void HttpTransfer::_OnSilenceTimer() {
  const auto quiet = std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - m_lastByte);
  const auto limit = m_loop.Settings().silence;
  if (quiet < limit) return _WatchSilence(limit - quiet);
  const std::string text = FormatText("no byte for %g s", std::chrono::duration<double>(limit).count());
  m_errorText.fill('\0');
  text.copy(m_errorText.data(), m_errorText.size() - 1);
  Finish(CURLE_OPERATION_TIMEDOUT);
}

void HttpTransfer::_Leave() {
  m_loop.CancelTimer(m_timer);
  m_loop.Remove(*this);
}

void HttpTransfer::EasyFree::operator()(void* easy) const {
  curl_easy_cleanup(easy);
}

void HttpTransfer::HeadersFree::operator()(curl_slist* headers) const {
  curl_slist_free_all(headers);
}

}  // namespace Quorvalen
