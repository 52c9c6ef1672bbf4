/// What the tests of package access share. They run on the machine that builds: nothing here may reach a step
/// that runs a command of the device.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <string>

#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeFrame/AccessMng/AccessContext.h"
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

/// What a source works with, in a test's hands. Without a frame: no test comes as far.
struct TestAccess {
  DeviceVersions versions;
  PackageClaim claim;
  BatteryLevel battery;
  std::atomic<int> imports{0};
  const AccessContext context{nullptr, versions, claim, battery, [this] { ++imports; }};

  /// True when no source holds the claim; leaves it free.
  bool IsFree() {
    const bool isFree = claim.TryClaim();
    if (isFree) claim.ReleaseClaim();
    return isFree;
  }
};
