/// Makes the firmware files and puts them where the base station keeps them.
#include "VirtualStation/Pps/PpPackage.h"

#include <json/json.h>

#include <algorithm>
#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/PackageBuilder.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

/// Small, and with a version in front.
RtxContent RadioContent(const std::string& version) {
  constexpr std::size_t kFirmwareBytes = 5001;
  RtxContent content;
  content.preLoaderBytes = 256;
  content.flashLoaderBytes = 2048;
  Bytes firmware = RandomBytes(kFirmwareBytes, version);
  std::copy_n(version.c_str(), version.size() + 1, firmware.begin());
  content.blocks = {{0, firmware}};
  return content;
}

}  // namespace

PpPackage Make7308Package(const std::string& version, const std::string& radioVersion, std::size_t bytes) {
  PpPackage package = {"7308", version, "QVD_K7308_H100_" + version + "_OTA_Common_1.zip"};
  package.application = RandomBytes(bytes, version);
  RtxContent radio = RadioContent(radioVersion);
  const std::string base = std::string(kStationDir) + "/pp7308";
  fs::remove_all(base);
  WriteText(base + "/in/K7308_PP_APP.bin", {package.application.begin(), package.application.end()});
  const RtxFiles files = MakeRtxFiles(radioVersion, radio);
  for (const auto& [name, content] : files) {
    WriteText(fs::path(base) / "in/RTX" / name, content);
  }
  Zip(base + "/in", base + "/" + package.fileName);
  package.content = ReadText(base + "/" + package.fileName);
  package.radio = ErasedAround(radio.blocks);
  const auto bytesOf = [&](const char* name) { return Bytes(files.at(name).begin(), files.at(name).end()); };
  package.preLoader = bytesOf("rtx-pre-loader.bin");
  package.flashLoader = bytesOf("rtx-flash-loader.bin");
  return package;
}

PpPackage Make7204Package(const std::string& version, const std::string& hardware) {
  constexpr std::size_t kBytes = 100001;
  PpPackage package = {hardware == "H000" ? "7204_EVT" : "7204", version,
                       "QVD_K7204_" + hardware + "_" + version + "_OTA.ota"};
  const Bytes bytes = RandomBytes(kBytes, package.fileName);
  package.content.assign(bytes.begin(), bytes.end());
  return package;
}

void Install(const PpPackage& package) {
  const bool is7308 = package.type == "7308";
  const std::string directory = is7308 ? "/firmware/pp/7308" : "/firmware/pp/7204";
  const std::string family = package.fileName.substr(0, std::string("QVD_K7204_H000").size());
  fs::create_directories(directory);
  for (const auto& entry : std::vector<fs::directory_entry>(fs::directory_iterator(directory), {})) {
    if (is7308 || entry.path().filename().string().rfind(family, 0) == 0) {
      fs::remove_all(entry);
    }
  }
  WriteText(directory + "/" + package.fileName, package.content);
}

void WritePpVersions(const std::vector<PpVersionEntry>& entries) {
  Json::Value root;
  for (const PpVersionEntry& entry : entries) {
    Json::Value item;
    item["PpType"] = entry.type;
    item["SwVersion"] = entry.software;
    item["HwVersion"] = entry.hardware;
    item["RtxVersion"] = entry.radio;
    root["PpVer"].append(item);
  }
  WriteText("/config/pp_ver.json", root.toStyledString());
}

}  // namespace station
