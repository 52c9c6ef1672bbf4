/// The three files of a radio upgrade on the disk.
#include "UpgradeFrame/RtxSubmodules/RtxFiles.h"

#include <algorithm>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr std::string_view kFirmwareSuffix = ".spihex";
/// What the length headers can say.
constexpr size_t kMaxImageBytes = 0xFFFF;

/// Hidden files are what some systems leave beside the real ones.
bool IsFirmwareName(std::string_view name) {
  return name.front() != '.' && name.size() > kFirmwareSuffix.size() &&
         name.substr(name.size() - kFirmwareSuffix.size()) == kFirmwareSuffix;
}

}  // namespace

Failure RtxFiles::FindIn(const std::string& directory) {
  const std::string prefix = directory + "/";
  std::string firmware;  // the first by name
  for (const std::string& name : NamesIn(directory)) {
    if (!IsFirmwareName(name) || !XIsRegularFile(prefix + name)) continue;
    if (firmware.empty() || name < firmware) firmware = name;
  }
  if (firmware.empty()) {
    LOGE("get strPackPath bin file error");
    return Fail(Reason::PartImage, "no firmware in %s", directory.c_str());
  }
  m_strPreLoaderFile = prefix + "rtx-pre-loader.bin";
  m_strFlashLoaderFile = prefix + "rtx-flash-loader.bin";
  m_strFirmwareFile = prefix + firmware;
  LOGI("Parse file path:\nPlFile:%s\nFlFile:%s\nFwFile:%s", m_strPreLoaderFile.c_str(),
       m_strFlashLoaderFile.c_str(), m_strFirmwareFile.c_str());
  return {};
}

Failure RtxFiles::LoadImage(const std::string& path, Rtx::Bytes& image) {
  std::string content;
  if (!ReadFileToString(path, kMaxImageBytes, content) || content.empty()) {
    return Fail(Reason::PartImage, "No usable image in %s (1 to %zu bytes)", path.c_str(), kMaxImageBytes);
  }
  image.assign(content.begin(), content.end());
  return {};
}
