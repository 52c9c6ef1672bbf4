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

#include "Backend/DownloadTask.h"
#include "Backend/QuorvalenBackendServer.h"
#include "Backend/QuorvalenDownloadManager.h"
#include "Backend/TransferLoop.h"
#include "UpgradeFrame/AccessMng/RequestedSource.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"

class QVUpgradeFrameBase;

class QVUpgradeAccessOTA : public RequestedSource {
 public:
  /// `frame` is not owned. `hostFile` holds the backend's base URL and is read before every query.
  explicit QVUpgradeAccessOTA(QVUpgradeFrameBase* frame, std::string hostFile = UpgradePaths::kOtaHostFile);
  ~QVUpgradeAccessOTA() override;

 protected:
  bool _Listen() override;
  void _Unlisten() override;
  /// Ends with the transfer thread: an unfinished download stays on the disk for the next request.
  void ThreadProc() override;
  Answer _Accept(const IpcEnvelope::Request& request) override;
  bool _WaitForPackage() override;
  bool _FetchPackage() override;
  bool _UnpackPackage() override;
  bool _StartFrame() override;

 private:
  Answer _AcceptQuery();
  Answer _AcceptStart();
  /// Starts a query, whose answer replaces the last one. While another one is on the wire the request is
  /// busy, or, with `orJoin`, takes that one's answer.
  Answer _AskBackend(bool orJoin);
  /// Transfer thread. `query` is the number of the query that is answered.
  void _OnAnswer(uint64_t query, const Quorvalen::QueryResult& answer);
  void _OnDownload(const Quorvalen::DownloadTask::Status& status);

  /// Waits until `isReached` holds under m_queueNextMutex, and tells the panel of every answer that comes
  /// meanwhile. False: the thread was asked to stop.
  template <class Condition>
  bool _WaitAndTell(Condition isReached);
  /// The steps of a download on the source's thread. On failure `error` says why, unless the thread was asked
  /// to stop.
  std::optional<Quorvalen::PackageInfo> _AwaitOffer(std::string& error);
  bool _Download(const Quorvalen::PackageInfo& package, std::string& error);
  bool _AwaitDownload(std::string& error);
  static void _ReportProgress(int percent);

  QVUpgradeFrameBase* const m_pFrame;
  const std::string m_hostFile;

  Quorvalen::TransferLoop m_loop;
  Quorvalen::QuorvalenBackendServer m_backend{m_loop};
  Quorvalen::QuorvalenDownloadManager m_downloads{m_loop};

  // m_queueNextMutex guards these; it is held while a query is started, so that its answer comes after, and
  // never while something is sent.
  uint64_t m_query = 0;                            ///< number of the last query; older ones count no more
  std::optional<Quorvalen::QueryResult> m_answer;  ///< of the last query; none while one is on its way
  std::queue<Json::Value> m_reports;               ///< on answers, which the panel has yet to be told
  bool m_bStartWanted = false;                     ///< a package was claimed by a request
  Quorvalen::DownloadTask::Status m_download;

  std::string m_archive;  ///< the downloaded package; source's thread only
};
