/// One query at a time, and its automatic retries.
#include "Backend/QuorvalenBackendServer.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "Backend/AllowedAddress.h"
#include "Backend/BackOff.h"
#include "Backend/BackendAnswer.h"
#include "Backend/HttpTransfer.h"
#include "Backend/TransferLoop.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace Quorvalen {
namespace {

constexpr const char* kQueryPath = "/ota/v1/query";
constexpr long kHttpOk = 200;

std::string QueryUrl(std::string host) {
  while (!host.empty() && host.back() == '/') host.pop_back();
  return host + kQueryPath;
}

std::string QueryText(const QueryRequest& request) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  const auto write = [&writer](const char* key, const std::string& value) {
    writer.Key(key);
    writer.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
  };
  writer.StartObject();
  write("productCode", request.productCode);
  write("deviceId", request.deviceId);
  write("hardVersion", request.hardVersion);
  write("softVersion", request.softVersion);
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

}  // namespace

class QuorvalenBackendServer::Impl final : public std::enable_shared_from_this<Impl>, public IHttpReceiver {
 public:
  explicit Impl(TransferLoop& loop)
      : m_loop(loop), m_backOff(loop.Settings().firstQueryWait, loop.Settings().longestQueryWait) {}

  bool Query(HttpRequest request, ResultCallback callback);
  void Cancel();

 private:
  bool OnHead(const HttpHead& head) override;
  bool OnBody(const char* data, size_t length) override;
  void OnEnd(const HttpEnd& end) override;

  void _Begin(uint64_t number, const HttpRequest& request, ResultCallback callback);
  void _Ask();
  void _AskAgain();
  void _Forget();
  void _Tell(QueryResult result, bool mayPass);
  bool _TakeWire(bool taken);

  TransferLoop& m_loop;

  CMutex m_mutex;
  bool m_bOnWire GUARDED_BY(m_mutex) = false;  ///< also while it waits for the transfer thread
  uint64_t m_number GUARDED_BY(m_mutex) = 0;   ///< of the query that counts

  // Transfer thread only.
  HttpRequest m_request;
  ResultCallback m_callback;
  std::unique_ptr<HttpTransfer> m_pTransfer;
  HttpHead m_head;
  std::string m_strAnswer;
  BackOff m_backOff;
  int m_iRetries = 0;
  TransferLoop::TimerId m_retryTimer = 0;
};

QuorvalenBackendServer::QuorvalenBackendServer(TransferLoop& loop) : m_pImpl(std::make_shared<Impl>(loop)) {}

QuorvalenBackendServer::~QuorvalenBackendServer() {
  Cancel();
}

bool QuorvalenBackendServer::Query(const std::string& host, const QueryRequest& request,
                                   ResultCallback callback) {
  HttpRequest query;
  query.url = QueryUrl(host);
  query.json = QueryText(request);
  return m_pImpl->Query(std::move(query), std::move(callback));
}

void QuorvalenBackendServer::Cancel() {
  m_pImpl->Cancel();
}

QueryResult QuorvalenBackendServer::ParseAnswer(const std::string& text) {
  return ParseBackendAnswer(text);
}

bool QuorvalenBackendServer::Impl::Query(HttpRequest request, ResultCallback callback) {
  uint64_t number = 0;
  {
    const CLock lock(m_mutex);
    if (m_bOnWire) return false;
    m_bOnWire = true;
    number = ++m_number;
  }
  request.longest = m_loop.Settings().queryTime;
  const bool posted =
      m_loop.Post([self = shared_from_this(), number, request = std::move(request),
                   callback = std::move(callback)] { self->_Begin(number, request, callback); });
  if (!posted) _TakeWire(false);
  return posted;
}

void QuorvalenBackendServer::Impl::_Begin(uint64_t number, const HttpRequest& request,
                                          ResultCallback callback) {
  {
    const CLock lock(m_mutex);
    if (number != m_number) return;
  }
  _Forget();
  m_request = request;
  m_callback = std::move(callback);
  std::string error;
  if (IsAllowedAddress(m_request.url, error)) return _Ask();
  _Tell({error, std::nullopt, false}, false);
}

void QuorvalenBackendServer::Impl::_Ask() {
  m_head = {};
  m_strAnswer.clear();
  m_pTransfer = std::make_unique<HttpTransfer>(m_loop, m_request, *this);
  m_pTransfer->Start();
}

/// Unless a new query is on its way in and replaces this one.
void QuorvalenBackendServer::Impl::_AskAgain() {
  if (_TakeWire(true)) _Ask();
}

bool QuorvalenBackendServer::Impl::OnHead(const HttpHead& head) {
  m_head = head;
  return head.status == kHttpOk;
}

bool QuorvalenBackendServer::Impl::OnBody(const char* data, size_t length) {
  // One byte more is kept, so that the parser sees that it is too much.
  m_strAnswer.append(data, std::min(length, kMaxAnswerBytes + 1 - m_strAnswer.size()));
  return m_strAnswer.size() <= kMaxAnswerBytes;
}

void QuorvalenBackendServer::Impl::OnEnd(const HttpEnd& end) {
  const auto self = shared_from_this();  // the callback may destroy the server
  m_pTransfer.reset();
  const std::string where = "\"" + AddressForLog(m_request.url) + "\": ";
  if (m_head.status != 0 && m_head.status != kHttpOk) {
    return _Tell({where + "HTTP " + std::to_string(m_head.status), std::nullopt, false}, m_head.MayPass());
  }
  const bool cutOff = m_strAnswer.size() > kMaxAnswerBytes;
  if (!end.error.empty() && !cutOff) return _Tell({end.error, std::nullopt, false}, end.mayPass);
  QueryResult result = ParseBackendAnswer(m_strAnswer);
  if (!result.error.empty()) result.error = where + result.error;
  _Tell(std::move(result), false);
}

void QuorvalenBackendServer::Impl::_Tell(QueryResult result, bool mayPass) {
  result.willRetry = mayPass && m_iRetries < m_loop.Settings().queryRetries;
  if (!result.error.empty()) {
    LOGE("query failed%s: %s", result.willRetry ? ", is asked again later" : "", result.error.c_str());
  }
  if (result.willRetry) {
    ++m_iRetries;
    m_retryTimer = m_loop.StartTimer(m_backOff.Next(m_head.retryAfter), [this] { _AskAgain(); });
  }
  _TakeWire(false);
  const ResultCallback callback = m_callback;
  if (callback) callback(result);
}

bool QuorvalenBackendServer::Impl::_TakeWire(bool taken) {
  const CLock lock(m_mutex);
  return std::exchange(m_bOnWire, taken) != taken;
}

void QuorvalenBackendServer::Impl::Cancel() {
  ResultCallback callback;  // what it holds goes after the loop's locks
  m_loop.RunAndWait([this, &callback] {
    callback.swap(m_callback);
    _Forget();
    // Here, not before: a query that is asked meanwhile either begins before this job and ends with it, or
    // begins after it and counts for nothing.
    const CLock lock(m_mutex);
    ++m_number;
    m_bOnWire = false;
  });
}

/// Nothing of the query before is left.
void QuorvalenBackendServer::Impl::_Forget() {
  m_pTransfer.reset();
  m_loop.CancelTimer(m_retryTimer);
  m_callback = nullptr;
  m_iRetries = 0;
  m_backOff.Reset();
}

}  // namespace Quorvalen
