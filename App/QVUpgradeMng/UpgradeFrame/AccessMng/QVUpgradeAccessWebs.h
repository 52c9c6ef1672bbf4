/// The web source: the web server hands over an uploaded package with a D-Bus method call. The daemon answers
/// at once whether it takes the package, and works on it on the source's thread.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

#include "UpgradeFrame/AccessMng/RequestedSource.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"
#include "common/ThreadAnnotations.h"

class QVUpgradeAccessWebs : public RequestedSource {
 public:
  explicit QVUpgradeAccessWebs(const AccessContext& access);
  ~QVUpgradeAccessWebs() override;

 protected:
  bool _Listen() override;
  Answer _Accept(const IpcEnvelope::Request& request) override;
  bool _WaitForPackage() override;
  Failure _UnpackPackage() override;

 private:
  struct Upload {
    std::string archive;       ///< full path
    bool checkVersion = true;  ///< refuse an installed version
  };

  static bool _ParseUpload(const Json::Value& propertyData, Upload& upload);

  std::optional<Upload> m_newUpload GUARDED_BY(m_queueNextMutex);  ///< accepted
  Upload m_upload;                                                 ///< under way; source's thread only
};
