/// One HTTP request and its answer, on the transfer thread: the one place that knows curl's settings. It
/// follows a few redirects, to https only, checks certificate and host always, and knows no proxy, cookie or
/// password file.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Backend/TransferLoop.h"

struct curl_slist;

namespace Quorvalen {

struct HttpRequest {
  std::string url;                       ///< IsAllowedAddress
  std::optional<std::string> json;       ///< POST with this body; none: GET
  uint64_t offset = 0;                   ///< above 0: only the bytes from here on are asked for
  std::string ifRange;                   ///< the whole when the file is no longer this one; "": no condition
  std::chrono::milliseconds longest{0};  ///< for the whole request; 0: no limit
};

/// What an answer says of its body. Texts are "" when the header is missing.
struct HttpHead {
  long status = 0;
  std::string etag;
  std::string lastModified;
  std::string contentRange;
  std::optional<uint64_t> contentLength;
  std::chrono::milliseconds retryAfter{0};  ///< at most TransferSettings::longestRetryAfter

  /// 408, 425, 429 and the server's own errors: the same request may succeed later.
  bool MayPass() const;
};

struct HttpEnd {
  std::string error;     ///< "": the answer is complete, whatever its status; else what went wrong
  bool mayPass = false;  ///< after an error: the same request may succeed later
};

/// Who takes an answer. OnHead and OnBody run inside curl: they neither end the transfer nor call foreign
/// code.
class IHttpReceiver {
 public:
  /// Once, after redirects and before the first byte; false ends the transfer.
  virtual bool OnHead(const HttpHead& head) = 0;
  /// False ends the transfer.
  virtual bool OnBody(const char* data, size_t length) = 0;
  /// Once and last; the transfer may be destroyed here.
  virtual void OnEnd(const HttpEnd& end) = 0;

 protected:
  ~IHttpReceiver() = default;
};

/// Transfer thread only, except that it may also be destroyed once the loop has stopped.
class HttpTransfer final : private ITransfer {
 public:
  /// `receiver` outlives this object.
  HttpTransfer(TransferLoop& loop, HttpRequest request, IHttpReceiver& receiver);
  /// Ends the transfer without another call of the receiver.
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// Starts. A request that curl refuses ends like any other, later; during the loop's stop nothing happens.
  void Start();

 private:
  using Clock = std::chrono::steady_clock;

  void* Handle() const override { return m_pEasy.get(); }
  void Finish(int curlCode) override;

  static size_t _OnData(char* data, size_t one, size_t length, void* self);
  bool _Configure();
  bool _TakeHead();
  void _WatchSilence(std::chrono::milliseconds delay);
  void _OnSilenceTimer();
  void _Leave();
  std::string _Explain(int curlCode) const;

  struct EasyFree {
    void operator()(void* easy) const;
  };
  struct HeadersFree {
    void operator()(curl_slist* headers) const;
  };

  TransferLoop& m_loop;
  const HttpRequest m_request;
  IHttpReceiver& m_receiver;
  std::array<char, 256> m_errorText{};  ///< curl's own words; CURL_ERROR_SIZE
  std::unique_ptr<curl_slist, HeadersFree> m_pHeaders;
  std::unique_ptr<void, EasyFree> m_pEasy;  ///< CURL; goes before what it points to
  bool m_bHeadTaken = false;
  Clock::time_point m_lastByte;
  TransferLoop::TimerId m_timer = 0;  ///< looks for silence
};

}  // namespace Quorvalen
