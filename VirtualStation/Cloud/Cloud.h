/// The cloud backend, as the daemon sees it: a server on the machine's own network that answers queries and
/// serves the newest package, over HTTP and HTTPS, and that can be told to behave badly. Owned by Station; it
/// outlives the station's reboots.
///
///   POST /ota/v1/query   {"softVersion", ...} -> {"code", "message", "data": null | {...}}
///   GET  anything else   the package, with ranges and an entity tag
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "VirtualStation/Cloud/CloudTls.h"
#include "VirtualStation/Cloud/HttpConnection.h"
#include "VirtualStation/PackageBuilder.h"
#include "VirtualStation/WakeUp.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread. A fault holds until Behave, unless it says how often.
class Cloud {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Host names that lead here: with a sound certificate, and with one of another host, of an authority that
  /// nobody knows, and of the day before yesterday.
  static constexpr const char* kHost = "ota.station.example";
  static constexpr const char* kWrongHost = "wrong-host.station.example";
  static constexpr const char* kUnknownAuthorityHost = "unknown-authority.station.example";
  static constexpr const char* kExpiredHost = "expired.station.example";
  /// A name about which the machine's name server never says a word.
  static constexpr const char* kSilentHost = "nowhere.example";

  /// Starts to listen; has the machine trust its authority and know its names.
  Cloud();
  ~Cloud();
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  /// Writes the station's setting of the backend: "https://" and a host name of above, or any other text.
  static void SetBackend(const std::string& url);

  /// The newest package from now on: every station with another overall version is offered it.
  void Offer(const Package& package);
  /// Changes what the next answers say of it ("softVersion", "fileName", "url", "size", "md5",
  /// "releaseNote").
  void EditOffer(const std::function<void(Json::Value& data)>& edit);
  /// Another file lies under the same address from now on.
  void ReplaceFile(const std::string& path);

  /// The requests so far, in the order in which they came.
  std::vector<HttpRequest> Queries() const;
  std::vector<HttpRequest> Downloads() const;
  /// Where each download began: the first byte that its range names, 0 without one.
  std::vector<std::uint64_t> Starts() const;
  /// Waits for the nth of them. False when time is up.
  bool WaitForQuery(Milliseconds timeout, std::size_t nth = 1) const;
  bool WaitForDownload(Milliseconds timeout, std::size_t nth = 1) const;
  /// Waits until the silent name server has been asked for an address.
  bool WaitForLookUp(Milliseconds timeout) const;

  /// The line breaks after so many bytes of each of the next `times` downloads.
  void BreakAfter(std::uint64_t bytes, std::size_t times);
  /// Every download pauses after so many bytes until Release; waits until one does.
  void HoldAfter(std::uint64_t bytes);
  bool WaitForHeld(Milliseconds timeout) const;
  /// Requests are read and not answered until Release.
  void HoldAnswers();
  void Release();
  /// Downloads are sent at this speed at most.
  void Limit(std::uint64_t bytesPerSecond);
  /// The next `times` downloads are answered with this status, and header lines that each end in "\r\n".
  void RefuseDownload(int status, const std::string& headers = "", std::size_t times = 1);
  /// Ranges are not understood: every download begins at 0.
  void IgnoreRanges();
  /// Any text in place of the answer to a query, with any status.
  void AnswerQueries(const std::string& text, int status = 200);
  /// Ends all faults.
  void Behave();

  /// The backend is gone (connections are refused, running ones end), and is there again.
  void Leave();
  void Return();

 private:
  struct Faults {
    std::uint64_t breakAfter = 0;
    std::size_t breaks = 0;
    std::optional<std::uint64_t> holdAfter;
    bool silent = false;
    std::uint64_t bytesPerSecond = 0;  ///< 0: no limit
    int refusal = 0;
    std::string refusalHeaders;
    std::size_t refusals = 0;
    bool noRanges = false;
    std::optional<std::string> answer;
    int answerStatus = 200;
  };
  struct Client {
    int socket = -1;
    std::thread thread;
  };
  /// How one download is answered.
  struct Delivery {
    std::string head;
    std::string file;  ///< empty: the head is all
    std::uint64_t from = 0, bytes = 0;
    std::optional<std::uint64_t> breakAfter, holdAfter;
    std::uint64_t bytesPerSecond = 0;
  };

  void _Accept();
  void _Serve(int socket, bool secure);
  bool _Answer(HttpConnection& connection, const HttpRequest& request);
  std::string _QueryAnswer(const HttpRequest& request) const REQUIRES(m_mutex);
  Delivery _Plan(const HttpRequest& request) REQUIRES(m_mutex);
  bool _Deliver(HttpConnection& connection, const Delivery& delivery);
  bool _WaitForRelease() REQUIRES(m_mutex);
  bool _WaitFor(std::vector<HttpRequest> Cloud::*requests, Milliseconds timeout, std::size_t nth) const;

  const CloudTls m_tls;
  int m_nameServer;  ///< hears every question and answers none
  WakeUp m_leave;
  int m_plain = -1, m_secure = -1;  ///< listening sockets
  std::thread m_accept;             ///< runs while the backend is there

  mutable CMutex m_mutex;
  mutable CCondition m_changed;
  std::list<Client> m_clients GUARDED_BY(m_mutex);
  bool m_leaving GUARDED_BY(m_mutex) = false;
  std::vector<HttpRequest> m_queries GUARDED_BY(m_mutex);
  std::vector<HttpRequest> m_downloads GUARDED_BY(m_mutex);
  Json::Value m_offer GUARDED_BY(m_mutex);  ///< null: there is no package
  std::string m_file GUARDED_BY(m_mutex);
  int m_edition GUARDED_BY(m_mutex) = 0;  ///< of the file: its entity tag
  std::size_t m_held GUARDED_BY(m_mutex) = 0;
  std::size_t m_releases GUARDED_BY(m_mutex) = 0;
  Faults m_faults GUARDED_BY(m_mutex);
};

}  // namespace station
