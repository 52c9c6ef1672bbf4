/// What the web and the cloud source share: they are asked for packages with D-Bus method calls, whose
/// envelope, answer codes and claim they treat alike. The reply comes at once; the work is done on the
/// source's thread.
#pragma once

#include <json/json.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>

#include "BSW/Dbus/CDbusHandler.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"

class RequestedSource : public QVUpgradeAccessBase {
 public:
  /// "ErrorCode" of the reply.
  enum ReplyCode {
    REPLY_ACCEPTED = 0,
    REPLY_MALFORMED = 1,
    REPLY_BUSY = 2,
    REPLY_REFUSED = 3,
  };

  /// Answers one request envelope with a reply envelope. Any thread.
  std::string HandleRequest(const std::string& text);

 protected:
  struct Answer {
    ReplyCode code = REPLY_ACCEPTED;
    std::string message;  ///< why not, when not accepted
  };
  /// Where requests arrive. The strings are literals.
  struct Service {
    const char* interface;
    const char* method;
    DBUS_CALLBACK callback;  ///< ForwardTo<the source's access type>
    const char* logName;     ///< begins the log lines of a request and its reply
  };

  RequestedSource(const char* threadName, UPGRADEACCESSTYPE accessType, const AccessContext& access,
                  const Service& service);

  /// Decides on a well-formed envelope with an unchecked command and payload. The caller's thread.
  virtual Answer _Accept(const IpcEnvelope::Request& request) = 0;

  static constexpr const char* kBatteryTooLow = "battery too low";
  static Answer _Malformed() { return {REPLY_MALFORMED, "malformed request"}; }
  static Answer _Busy() { return {REPLY_BUSY, "an upgrade is under way"}; }

  /// Lets `check` decide on a package with the claim held and the battery checked. Once the package is
  /// accepted the web server hears of its progress, and `handOver` wakes the source's thread; otherwise the
  /// claim is given back.
  Answer _AcceptPackage(const std::function<Answer()>& check, const std::function<void()>& handOver);

  bool _Listen() override;
  void _Unlisten() override;
  void _PackageEnded(const Failure& failure) override;

  /// The D-Bus callback of the source of this access type, which is there once.
  template <UPGRADEACCESSTYPE accessType>
  static std::string ForwardTo(const std::string& text) {
    RequestedSource* const source = m_listening[accessType];
    return source != nullptr ? source->HandleRequest(text) : std::string();
  }

 private:
  /// Whom the D-Bus callbacks, plain functions, call; by access type.
  static std::array<std::atomic<RequestedSource*>, UP_CONNECT> m_listening;

  const Service m_service;
};
