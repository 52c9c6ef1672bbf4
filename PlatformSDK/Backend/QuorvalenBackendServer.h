/// Asks the cloud backend whether there is a newer package for a device. Any program may use it; it knows
/// nothing of upgrades.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Backend/BackendQuery.h"

namespace Quorvalen {

class TransferLoop;

class QuorvalenBackendServer {
 public:
  /// Called on the transfer thread with no lock held, once for each answer or failed try.
  using ResultCallback = std::function<void(const QueryResult&)>;

  /// `loop` outlives this object.
  explicit QuorvalenBackendServer(TransferLoop& loop);
  /// As Cancel.
  ~QuorvalenBackendServer();
  QuorvalenBackendServer(const QuorvalenBackendServer&) = delete;
  QuorvalenBackendServer& operator=(const QuorvalenBackendServer&) = delete;

  /// Asks `host` ("https://…") at once, and after a failure that may pass again by itself: at most once a
  /// minute, with growing, jittered waits, 8 times at most. A query that waits for its next try is replaced;
  /// false while one is on the wire or when the loop has stopped. A host that is not allowed (https, or http
  /// to a loopback host) comes back as an error. Any thread.
  bool Query(const std::string& host, const QueryRequest& request, ResultCallback callback);
  /// Ends a query; no callback comes once this has returned. Any thread, also from the callback; do not hold
  /// a lock that the callback takes.
  void Cancel();

  /// Reads the text of an answer, with limits on size and depth. Stateless; also what the fuzzer calls.
  static QueryResult ParseAnswer(const std::string& text);

 private:
  class Impl;
  std::shared_ptr<Impl> m_pImpl;  ///< shared with what runs on the transfer thread
};

}  // namespace Quorvalen
