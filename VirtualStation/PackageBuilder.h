/// Builds upgrade packages, sound and hostile ones. Contents are pseudo-random but the same at each run. Used
/// by tests and scenarios, inside the box.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "VirtualStation/Chips/ChipImages.h"
#include "VirtualStation/Pps/PpPackage.h"

namespace station {

/// A finished package.
struct Package {
  std::string path;  ///< of the zip
  std::string name;  ///< its file name
  std::string tree;  ///< what went in, unpacked, by page type: "<tree>/app/quorvalen/..."
  std::string softVersion, hardVersion;
  std::map<std::string, std::string> versions;  ///< by page type
  /// What the chips' memories must hold, by page type: one block at 0, for "rtx" those of its HEX file.
  std::map<std::string, std::vector<FlashBlock>> images;
};

class PackageBuilder {
 public:
  using ManifestEditor = std::function<void(Json::Value&)>;
  using FileEditor = std::function<void(const std::string& path)>;
  enum class Flash { None, Image, ImageAndMarker };  ///< boot loader in the system page

  explicit PackageBuilder(std::string softVersion = "S4.1.0.1", std::string hardVersion = "H200");

  /// Adds a page with files of `bytes` in all, among them an executable, a symbolic link and an empty file. A
  /// page takes the place of an earlier one of its type.
  PackageBuilder& App(const std::string& version, std::uint64_t bytes = 256 * 1024);
  PackageBuilder& System(const std::string& version, std::uint64_t bytes = 256 * 1024,
                         Flash flash = Flash::None);
  PackageBuilder& Rootfs(const std::string& version, std::uint64_t bytes = 1024 * 1024);
  /// All three, each with `version`, and a boot loader.
  PackageBuilder& AllSocParts(const std::string& version);
  /// Adds the page of a chip, with generated images. An MCU version has four numbers ("V1.0.7.01").
  PackageBuilder& Rtx(const std::string& version, const RtxContent& content = {});
  PackageBuilder& Mcu(const std::string& version, std::size_t bytes = 10001);
  PackageBuilder& Fpga(const std::string& version, std::size_t bytes = 65537);
  PackageBuilder& Uac(const std::string& version, std::size_t bytes = 10001);
  /// Every part of the base station, each with `version`, and a boot loader.
  PackageBuilder& AllParts(const std::string& version);
  /// Adds a page that is `content` as it stands.
  PackageBuilder& RawPage(const std::string& type, const std::string& version, const std::string& pageName,
                          const std::string& content);
  /// Adds a page of portable parts ("7204", "7204_EVT", "7308"): the package gets a PP element beside the RRU
  /// one.
  PackageBuilder& PpPage(const std::string& type, const std::string& version, const std::string& pageName,
                         const std::string& content);
  PackageBuilder& PpPage(const PpPackage& package);

  /// Another file name than "QV_K9031_<hard>_<soft>_RRU_UDISK_Common_1.zip".
  PackageBuilder& Name(const std::string& fileName);
  /// Puts anything in place of the outer manifest {"otaList": [...]}, or of the inner one [{"pageType"...},
  /// ...].
  PackageBuilder& EditManifest(ManifestEditor edit);
  PackageBuilder& EditRruManifest(ManifestEditor edit);
  /// Changes a finished page, the finished RRU zip (both before any sum is taken) or the finished package.
  PackageBuilder& EditPage(const std::string& type, FileEditor edit);
  PackageBuilder& EditRru(FileEditor edit);
  PackageBuilder& EditPackage(FileEditor edit);

  /// Builds it below the station's directory; each call makes a package of its own.
  Package Build() const;

  /// File editors: cut to a part of its size (0: empty), turn over one byte at a part of its size, add an
  /// entry with any name ("../../evil") to a zip or tar.
  static FileEditor Truncate(double part);
  static FileEditor FlipByte(double part);
  static FileEditor AddEntry(const std::string& name, const std::string& content);

 private:
  /// Makes the page `file`; what goes into an archive is laid out in `directory` first.
  using Maker = std::function<void(const std::string& directory, const std::string& file)>;
  struct Page {
    std::string type, version, fileName;
    Maker make;
    std::vector<FlashBlock> image = {};  ///< of a chip
  };
  PackageBuilder& _Add(std::vector<Page>& pages, Page page);
  PackageBuilder& _AddPart(UPGRADETYPE part, const std::string& version, const std::string& extension,
                           Maker make, std::vector<FlashBlock> image = {});

  std::string m_softVersion, m_hardVersion, m_name;
  std::vector<Page> m_pages, m_ppPages;
  ManifestEditor m_editManifest, m_editRruManifest;
  std::map<std::string, FileEditor> m_editPage;
  FileEditor m_editRru, m_editPackage;
};

/// Packs everything in `directory`, at the top level of the zip.
void Zip(const std::string& directory, const std::string& zip);

/// The md5 sum of a file, as lower-case hex digits.
std::string Md5(const std::string& path);

/// Writes deterministic content of `bytes` to `path`, different for each path's last component.
void WriteRandomFile(const std::string& path, std::uint64_t bytes);

}  // namespace station
