/// What the tests of package access share. They run on the machine that builds: nothing here may reach a step
/// that runs a command of the device.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"
#include "UpgradeFrame/AccessMng/RequestedSource.h"

/// The text of a request.
inline std::string RequestText(int cmd, const std::string& propertyData = "null") {
  return R"({"InterfaceName":"UpgradeRequest","InterfaceType":"request","Snr":41,"Data":{"Cmd":)" +
         std::to_string(cmd) + R"(,"PropertyData":)" + propertyData + "}}";
}

/// What `source` answers to it.
inline Json::Value Ask(RequestedSource& source, const std::string& text) {
  Json::Value reply;
  std::string error;
  EXPECT_TRUE(JsonUtils::Parse(source.HandleRequest(text), reply, error)) << error;
  EXPECT_EQ(reply["InterfaceType"], "response");
  EXPECT_EQ(reply["InterfaceName"], "UpgradeRequest");
  return reply;
}

/// A fresh state of the process's one access frame, before and after each test.
class AccessState {
 public:
  AccessState() { Reset(); }
  ~AccessState() { Reset(); }
  AccessState(const AccessState&) = delete;
  AccessState& operator=(const AccessState&) = delete;

  QVUpgradeAccessFrame* operator->() const { return QVUpgradeAccessFrame::getAccessFrame(); }

  /// True when no source holds the claim; leaves it free.
  static bool IsFree() {
    QVUpgradeAccessFrame* access = QVUpgradeAccessFrame::getAccessFrame();
    const bool isFree = access->TryClaim();
    if (isFree) access->ReleaseClaim();
    return isFree;
  }

 private:
  static void Reset() {
    QVUpgradeAccessFrame* access = QVUpgradeAccessFrame::getAccessFrame();
    access->ReleaseClaim();
    access->setmStartUpgrade(false);
    access->SetBattery(QVUpgradeAccessFrame::kBatteryUnknown);
    access->SwitchBatteryLimited(true);
  }
};
