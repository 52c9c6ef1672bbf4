/// The cloud source. The panel or the web server asks it with D-Bus method calls:
///
///   500  ask the backend for a newer package     the answer goes out as message 500
///   501  download it and upgrade                 asks first unless the last answer named a package
///   502  send the version report
///
/// Nothing starts by itself. Requests come on the D-Bus thread, which replies and leaves a note; answers and
/// progress on the transfer thread, which only leaves notes. The source's own thread tells the panel of
/// answers, downloads and upgrades, in order.
#pragma once

#include <cstdint>
#include <optional>
#include <queue>
#include <string>
#include <utility>

#include "Backend/DownloadTask.h"
#include "Backend/QuorvalenBackendServer.h"
#include "Backend/QuorvalenDownloadManager.h"
#include "Backend/TransferLoop.h"
#include "UpgradeFrame/AccessMng/RequestedSource.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"
#include "common/ThreadAnnotations.h"

class QVUpgradeAccessOTA : public RequestedSource {
 public:
  /// `hostFile` holds the backend's base URL and is read before every query.
  explicit QVUpgradeAccessOTA(const AccessContext& access, std::string hostFile = UpgradePaths::kOtaHostFile);
  ~QVUpgradeAccessOTA() override;

 protected:
  bool _Listen() override;
  void _Unlisten() override;
  /// Ends with the transfer thread: an unfinished download stays on the disk for the next request.
  void ThreadProc() override;
  Answer _Accept(const IpcEnvelope::Request& request) override;
  bool _WaitForPackage() override;
  Failure _FetchPackage() override;
  Failure _UnpackPackage() override;
  bool _StartFrame() override;
  void _PackageEnded(const Failure& failure) override;

 private:
  Answer _AcceptStart();
  /// Starts a query, whose answer replaces the last one. While another one is on the wire the request is
  /// busy, or, with `orJoin`, takes that one's answer.
  Answer _AskBackend(bool orJoin);
  /// Transfer thread. `query` is the number of the query that is answered.
  void _OnAnswer(uint64_t query, const Quorvalen::QueryResult& answer);

  /// Waits until `take` has got what it is for, and tells the panel of every answer that comes meanwhile.
  /// False: the thread was asked to stop.
  bool _WaitAndTell(bool (QVUpgradeAccessOTA::*take)());
  bool _TakeStart() REQUIRES(m_queueNextMutex) { return std::exchange(m_bStartWanted, false); }
  bool _TakeAnswer() REQUIRES(m_queueNextMutex);

  /// The steps of a download on the source's thread.
  Failure _AwaitOffer();
  Failure _Download(const Quorvalen::PackageInfo& package);
  /// `reported` is the percentage that the panel knows; `isFree` tells whether the interrupts are free for
  /// all cores.
  Failure _AwaitDownload(int reported, bool& isFree);

  const std::string m_hostFile;

  Quorvalen::TransferLoop m_loop;
  Quorvalen::QuorvalenBackendServer m_backend{m_loop};
  Quorvalen::QuorvalenDownloadManager m_downloads{m_loop};

  // The lock is held while a query is started, so that its answer comes after, and never while something is
  // sent.
  uint64_t m_query GUARDED_BY(m_queueNextMutex) = 0;  ///< number of the last query; older ones count no more
  /// Of the last query; none while one is on its way.
  std::optional<Quorvalen::QueryResult> m_answer GUARDED_BY(m_queueNextMutex);
  /// On answers, which the panel has yet to be told.
  std::queue<Json::Value> m_reports GUARDED_BY(m_queueNextMutex);
  bool m_bStartWanted GUARDED_BY(m_queueNextMutex) = false;  ///< a package was claimed by a request
  Quorvalen::DownloadTask::Status m_download GUARDED_BY(m_queueNextMutex);

  // The source's thread only.
  Quorvalen::QueryResult m_offer;  ///< the answer that the request under way took
  std::string m_archive;           ///< the downloaded package
};
