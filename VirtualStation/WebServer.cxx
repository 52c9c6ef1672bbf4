/// Where the web server stores an upload, and its side of the bus: listener and requests.
#include "VirtualStation/WebServer.h"

#include <filesystem>

#include "VirtualStation/Process.h"

namespace station {

WebServer::WebServer(const Bus& bus)
    : Requests(bus, "org.UpgradeWebRequest_Method.interface", "upgrade_web_dbus_method_notify"),
      m_listener(bus.Address(), "org.WebSRV_Signal.interface", "websrv_dbus_signal_report",
                 [this](const std::string& text) { Add(text); }) {}

void WebServer::Store(const std::string& file) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::create_directories(kUploads, error);
  fs::copy_file(file, kUploads + fs::path(file).filename().string(), fs::copy_options::overwrite_existing,
                error);
  if (error) {
    Halt("cannot store the upload " + file + ": " + error.message());
  }
}

std::optional<Envelope> WebServer::RequestUpgrade(const std::string& fileName,
                                                  std::optional<bool> checkVersion) {
  constexpr int kUpgrade = 100;
  Json::Value property;
  property["fileName"] = fileName;
  if (checkVersion) {
    property["checkVersion"] = *checkVersion;
  }
  return Request(kUpgrade, property);
}

}  // namespace station
