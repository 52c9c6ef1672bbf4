/// What the page of each part holds, and how pages become a package.
#include "VirtualStation/PackageBuilder.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <utility>

#include "UpgradePackage/Parts.h"
#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

bool IsZip(const std::string& path) {
  return fs::path(path).extension() == ".zip";
}

void Apply(const PackageBuilder::FileEditor& edit, const std::string& path) {
  if (edit) {
    edit(path);
  }
}

std::string Text(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

/// Makes a page that is `content` as it stands.
auto Raw(const std::string& content) {
  return [content](const std::string& /*directory*/, const std::string& file) { WriteText(file, content); };
}

/// Files of `bytes` in all below `directory`.
void MakeTree(const std::string& directory, const std::string& program, std::uint64_t bytes) {
  WriteRandomFile(directory + "/bin/" + program, bytes / 2);
  fs::permissions(directory + "/bin/" + program, fs::perms(0755));
  WriteRandomFile(directory + "/lib/lib" + program + ".so.1.0", bytes / 4);
  fs::create_symlink("lib" + program + ".so.1.0", directory + "/lib/lib" + program + ".so.1");
  WriteRandomFile(directory + "/share/" + program + ".dat", bytes - bytes / 2 - bytes / 4);
  WriteText(directory + "/etc/" + program + ".conf", "name=" + program + "\n");
  WriteText(directory + "/etc/empty", "");
  fs::permissions(directory + "/etc/" + program + ".conf", fs::perms(0640));
}

}  // namespace

PackageBuilder::PackageBuilder(std::string softVersion, std::string hardVersion)
    : m_softVersion(std::move(softVersion)),
      m_hardVersion(std::move(hardVersion)),
      m_name("QV_K9031_" + m_hardVersion + "_" + m_softVersion + "_RRU_UDISK_Common_1.zip") {}

PackageBuilder& PackageBuilder::App(const std::string& version, std::uint64_t bytes) {
  return _AddPart(UP_APP, version, ".tar", [bytes](const std::string& directory, const std::string& file) {
    MakeTree(directory + "/quorvalen", "intercom", bytes);
    MustRun({"tar", "cf", file, "-C", directory, "quorvalen"});
  });
}

PackageBuilder& PackageBuilder::System(const std::string& version, std::uint64_t bytes, Flash flash) {
  return _AddPart(UP_SYSTEM, version, ".tar", [=](const std::string& directory, const std::string& file) {
    WriteRandomFile(directory + "/Image", bytes);
    WriteText(directory + "/boot/station.dtb", "device tree of " + version + "\n");
    if (flash != Flash::None) {
      constexpr std::uint64_t kBootImage = 192 * 1024;
      WriteRandomFile(directory + "/flash.bin", kBootImage);
    }
    if (flash == Flash::ImageAndMarker) {
      WriteText(directory + "/flash.bin.upgrade", "");
    }
    MustRun({"tar", "cf", file, "-C", directory, "."});
  });
}

PackageBuilder& PackageBuilder::Rootfs(const std::string& version, std::uint64_t bytes) {
  return _AddPart(UP_ROOTFS, version, ".tar.gz",
                  [bytes](const std::string& directory, const std::string& file) {
                    MakeTree(directory + "/usr", "station-base", bytes);
                    fs::create_symlink("usr/bin", directory + "/bin");
                    MustRun({"tar", "czf", file, "-C", directory, "."});
                  });
}

PackageBuilder& PackageBuilder::AllSocParts(const std::string& version) {
  constexpr std::uint64_t kSmall = 256 * 1024;
  return App(version).System(version, kSmall, Flash::ImageAndMarker).Rootfs(version);
}

PackageBuilder& PackageBuilder::Rtx(const std::string& version, const RtxContent& content) {
  RtxContent whole = content;
  const auto files = MakeRtxFiles(version, whole);
  const auto make = [files](const std::string& directory, const std::string& file) {
    std::vector<std::string> tar = {"tar", "cf", file, "-C", directory};
    for (const auto& [name, text] : files) {
      WriteText(fs::path(directory) / name, text);
      tar.push_back(name);
    }
    MustRun(tar);
  };
  return _AddPart(UP_RTX, version, ".tar", make, whole.blocks);
}

PackageBuilder& PackageBuilder::Mcu(const std::string& version, std::size_t bytes) {
  const Bytes image = RandomBytes(bytes, version + "mcu");
  const auto make = [=](const std::string& directory, const std::string& file) {
    const std::string name = "k9031_McuApp.bin";
    const std::string zip = "K9031_MCU_" + version + ".zip";
    WriteText(fs::path(directory) / name, Text(image));
    MustRun({"7za", "a", "-tzip", zip, name}, directory);
    MustRun({"tar", "cf", file, "-C", directory, zip});
  };
  return _AddPart(UP_MCU, version, ".tar", make, {{0, image}});
}

PackageBuilder& PackageBuilder::Fpga(const std::string& version, std::size_t bytes) {
  const Bytes image = RandomBytes(bytes, version + "fpga");
  return _AddPart(UP_FPGA, version, ".bin", Raw(Text(image)), {{0, image}});
}

PackageBuilder& PackageBuilder::Uac(const std::string& version, std::size_t bytes) {
  constexpr std::size_t kBlock = 1024;
  constexpr std::uint8_t kPadding = 0x1A;
  const Bytes image = RandomBytes(bytes, version + "uac");
  Bytes padded = image;
  padded.resize((bytes + kBlock - 1) / kBlock * kBlock, kPadding);
  return _AddPart(UP_UAC, version, ".bin", Raw(Text(image)), {{0, padded}});
}

PackageBuilder& PackageBuilder::AllParts(const std::string& version) {
  AllSocParts(version).Rtx(version).Mcu(version).Fpga(version).Uac(version);
  for (const Parts::Part& part : Parts::kAll) {
    const bool has =
        std::any_of(m_pages.begin(), m_pages.end(), [&](const Page& page) { return page.type == part.page; });
    if (part.isStation && !has) {
      Halt("no content is built for " + std::string(part.page));
    }
  }
  return *this;
}

PackageBuilder& PackageBuilder::RawPage(const std::string& type, const std::string& version,
                                        const std::string& pageName, const std::string& content) {
  return _Add(m_pages, {type, version, pageName, Raw(content)});
}

PackageBuilder& PackageBuilder::PpPage(const std::string& type, const std::string& version,
                                       const std::string& pageName, const std::string& content) {
  return _Add(m_ppPages, {type, version, pageName, Raw(content)});
}

PackageBuilder& PackageBuilder::PpPage(const PpPackage& package) {
  return PpPage(package.type, package.version, package.fileName, package.content);
}

PackageBuilder& PackageBuilder::Name(const std::string& fileName) {
  m_name = fileName;
  return *this;
}

PackageBuilder& PackageBuilder::EditManifest(ManifestEditor edit) {
  m_editManifest = std::move(edit);
  return *this;
}

PackageBuilder& PackageBuilder::EditRruManifest(ManifestEditor edit) {
  m_editRruManifest = std::move(edit);
  return *this;
}

PackageBuilder& PackageBuilder::EditPage(const std::string& type, FileEditor edit) {
  m_editPage[type] = std::move(edit);
  return *this;
}

PackageBuilder& PackageBuilder::EditRru(FileEditor edit) {
  m_editRru = std::move(edit);
  return *this;
}

PackageBuilder& PackageBuilder::EditPackage(FileEditor edit) {
  m_editPackage = std::move(edit);
  return *this;
}

PackageBuilder& PackageBuilder::_Add(std::vector<Page>& pages, Page page) {
  pages.erase(
      std::remove_if(pages.begin(), pages.end(), [&](const Page& other) { return other.type == page.type; }),
      pages.end());
  pages.push_back(std::move(page));
  return *this;
}

PackageBuilder& PackageBuilder::_AddPart(UPGRADETYPE part, const std::string& version,
                                         const std::string& extension, Maker make,
                                         std::vector<FlashBlock> image) {
  const std::string page(Parts::Find(part)->page);
  const std::string fileName = "QV_K9031_" + page + "_" + version + extension;
  return _Add(m_pages, {page, version, fileName, std::move(make), std::move(image)});
}

Package PackageBuilder::Build() const {
  static int number = 0;
  const std::string base = std::string(kStationDir) + "/packages/" + std::to_string(++number);
  const std::string outer = base + "/outer";
  Package package;
  package.name = m_name;
  package.path = base + "/" + m_name;
  package.tree = base + "/tree";
  package.softVersion = m_softVersion;
  package.hardVersion = m_hardVersion;
  Json::Value manifest;
  manifest["otaList"] = Json::arrayValue;

  const auto addElement = [&](const char* type, const std::vector<Page>& pages,
                              const ManifestEditor& editManifest, const FileEditor& edit) {
    const std::string inner = base + "/" + type;
    Json::Value list = Json::arrayValue;
    for (const Page& page : pages) {
      const std::string file = inner + "/" + page.fileName;
      fs::create_directories(fs::path(file).parent_path());
      page.make(package.tree + "/" + page.type, file);
      if (const auto change = m_editPage.find(page.type); change != m_editPage.end()) {
        change->second(file);
      }
      package.versions[page.type] = page.version;
      if (!page.image.empty()) {
        package.images[page.type] = page.image;
      }
      Json::Value item;
      item["pageType"] = page.type;
      item["version"] = page.version;
      item["pageName"] = page.fileName;
      list.append(item);
    }
    if (editManifest) {
      editManifest(list);
    }
    WriteText(inner + "/version.json", list.toStyledString());
    const std::string fileName =
        "QV_K9031_" + m_hardVersion + "_" + m_softVersion + "_" + type + "_Common_1.zip";
    fs::create_directories(outer);
    Zip(inner, outer + "/" + fileName);
    fs::remove_all(inner);
    Apply(edit, outer + "/" + fileName);
    Json::Value element;
    element["upgradeType"] = type;
    element["softVersion"] = m_softVersion;
    element["hardVersion"] = m_hardVersion;
    element["fileName"] = fileName;
    element["fileMd5sum"] = Md5(outer + "/" + fileName);
    manifest["otaList"].append(element);
  };
  if (!m_pages.empty()) {
    addElement("RRU", m_pages, m_editRruManifest, m_editRru);
  }
  if (!m_ppPages.empty()) {
    addElement("PP", m_ppPages, nullptr, nullptr);
  }
  if (m_editManifest) {
    m_editManifest(manifest);
  }
  WriteText(outer + "/version.json", manifest.toStyledString());
  Zip(outer, package.path);
  fs::remove_all(outer);
  Apply(m_editPackage, package.path);
  return package;
}

PackageBuilder::FileEditor PackageBuilder::Truncate(double part) {
  return [part](const std::string& path) {
    fs::resize_file(path, static_cast<std::uintmax_t>(static_cast<double>(fs::file_size(path)) * part));
  };
}

PackageBuilder::FileEditor PackageBuilder::FlipByte(double part) {
  return [part](const std::string& path) {
    std::string data = ReadText(path);
    const auto offset = static_cast<std::size_t>(static_cast<double>(data.size()) * part);
    data.at(offset) = static_cast<char>(~data.at(offset));
    WriteText(path, data);
  };
}

PackageBuilder::FileEditor PackageBuilder::AddEntry(const std::string& name, const std::string& content) {
  return [=](const std::string& path) {
    const std::string directory = std::string(kStationDir) + "/entry";
    WriteText(directory + "/entry", content);
    if (IsZip(path)) {
      MustRun({"7za", "a", "-tzip", path, "entry"}, directory);
      MustRun({"7za", "rn", path, "entry", name}, directory);
    } else {
      MustRun({"tar", "rPf", path, "--transform", "s,^entry$," + name + ",", "entry"}, directory);
    }
  };
}

void Zip(const std::string& directory, const std::string& zip) {
  std::vector<std::string> command = {"7za", "a", "-tzip", "-mx=0", zip, "--"};
  for (const auto& entry : fs::directory_iterator(directory)) {
    command.push_back(entry.path().filename());
  }
  MustRun(command, directory);
}

std::string Md5(const std::string& path) {
  const std::string data = ReadText(path);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_md5(), nullptr);
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < length; ++i) {
    text += kDigits[digest[i] >> 4U];
    text += kDigits[digest[i] & 0xFU];
  }
  return text;
}

void WriteRandomFile(const std::string& path, std::uint64_t bytes) {
  fs::create_directories(fs::path(path).parent_path());
  const std::string name = fs::path(path).filename();
  std::seed_seq seed(name.begin(), name.end());
  std::mt19937_64 random(seed);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  std::array<std::uint64_t, 4096> block{};
  for (std::uint64_t written = 0; written < bytes;) {
    for (std::uint64_t& word : block) {
      word = random();
    }
    const std::uint64_t count = std::min<std::uint64_t>(sizeof block, bytes - written);
    file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(count));
    written += count;
  }
  if (!file.flush()) {
    Halt("cannot write " + path);
  }
}

}  // namespace station
