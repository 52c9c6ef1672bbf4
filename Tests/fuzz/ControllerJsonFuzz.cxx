// Feeds any text to what parses and dispatches the controller's messages, as a report and as a reply. What
// reaches the device must be a version of bounded length.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlMsgHandler.h"

namespace {

class Device : public ISysCtrlReports {
 public:
  void OnBattery(int /*level*/) override {}
  void OnClockStatus(bool /*inSync*/) override {}
  std::string StoredVersion(UPGRADETYPE /*chip*/) override { return "V1.0.0.01"; }
  void StoreVersion(UPGRADETYPE /*chip*/, const std::string& version) override {
    if (version.size() > 255) std::abort();
  }
  void ReportFault(const std::string& faultMsg) override {
    if (faultMsg.rfind("Different ", 0) != 0) std::abort();
  }
  void SendVersionReport() override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Device device;
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value message;
  std::string error;
  if (JsonUtils::Parse(text, message, error)) SysCtrlMsgHandler::Handle(&device, message);
  SysCtrlMsgHandler::_ParseReply(text);
  return 0;
}
