/// The web source: the web server hands over an uploaded package with a D-Bus method call. The daemon answers
/// at once whether it takes the package, and works on it on the source's thread.
#pragma once

#include <json/json.h>

#include <atomic>
#include <optional>
#include <string>

#include "UpgradeFrame/AccessMng/QVUpgradeAccessSource.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"

class QVUpgradeAccessWebs : public QVUpgradeAccessSource {
 public:
  QVUpgradeAccessWebs();
  ~QVUpgradeAccessWebs() override;

  /// "ErrorCode" of the reply.
  enum ReplyCode {
    REPLY_ACCEPTED = 0,
    REPLY_MALFORMED = 1,
    REPLY_BUSY = 2,
    REPLY_REFUSED = 3,
  };

  /// Answers one request envelope with a reply envelope. An accepted package is claimed and queued. Any
  /// thread.
  std::string HandleRequest(const std::string& text);

 protected:
  bool _Listen() override;
  void _Unlisten() override;
  bool _WaitForPackage() override;
  bool _UnpackPackage() override;
  void _PackageEnded() override;

 private:
  struct Upload {
    std::string archive;       ///< full path
    bool checkVersion = true;  ///< refuse an installed version
  };
  struct Answer {
    ReplyCode code;
    const char* message;
  };

  Answer _Accept(const std::string& text, IpcEnvelope::Request& request);
  static bool _ParseUpload(const Json::Value& propertyData, Upload& upload);

  static std::atomic<QVUpgradeAccessWebs*>
      m_pListening;                   ///< whom the D-Bus callback, a plain function, calls
  std::optional<Upload> m_newUpload;  ///< accepted; m_queueNextMutex
  Upload m_upload;                    ///< under way; source's thread only
};
