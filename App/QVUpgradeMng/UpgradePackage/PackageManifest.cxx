/// The lists of a package, judged entry by entry.
#include "UpgradePackage/PackageManifest.h"

#include <set>
#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradePackage/PackageName.h"

namespace PackageManifest {

namespace {

bool GetFileName(const Json::Value& item, const char* key, std::string& name) {
  return JsonUtils::GetString(item, key, name) && IsPlainFileName(name);
}

/// What stands under a key, as it may be shown; nothing of what is no object.
std::string Shown(const Json::Value& item, const char* key) {
  if (!item.isObject() || !item.isMember(key)) return "nothing";
  std::string text = JsonUtils::ToCompactText(item[key]);
  text.erase(text.find_last_not_of('\n') + 1);
  return Printable(text, kMaxFileNameBytes);
}

Failure Unusable(Reason reason, const Json::Value& item, const char* key) {
  return Fail(reason, "\"%s\" cannot be used: %s", key, Shown(item, key).c_str());
}

Element ReadElement(const Json::Value& item) {
  Element element;
  element.type = JsonUtils::StringOr(item, "upgradeType", "");
  if (!element.IsForUnit()) return element;
  const bool isStation = element.type == kStation;
  const Reason reason = isStation ? Reason::ManifestElement : Reason::PortableElement;
  const auto check = [&](bool isUsable, const char* key) {
    if (!isUsable && !element.unusable) element.unusable = Unusable(reason, item, key);
  };
  if (isStation) {
    check(GetVersion(item, "softVersion", element.version.m_softVersion), "softVersion");
    check(GetVersion(item, "hardVersion", element.version.m_hardVersion), "hardVersion");
  }
  if (!GetFileName(item, "fileName", element.fileName) || !PackageName::IsZip(element.fileName)) {
    element.fileName.clear();
  }
  check(!element.fileName.empty(), "fileName");
  check(JsonUtils::GetString(item, "fileMd5sum", element.md5), "fileMd5sum");
  return element;
}

Failure ReadPage(const Json::Value& entry, Page& page) {
  const bool isComplete = entry.isObject() && entry.isMember("pageType") && entry.isMember("version") &&
                          entry.isMember("pageName");
  if (!isComplete) return {};
  page.use = Page::Use::Unknown;
  page.part = Parts::getUpgradeTypeName(JsonUtils::StringOr(entry, "pageType", ""));
  if (page.part == nullptr) return {};
  page.use = Page::Use::Wanted;
  if (!GetFileName(entry, "pageName", page.pageName)) return Unusable(Reason::PagesEntry, entry, "pageName");
  // The frame makes a path of the version too.
  if (!GetFileName(entry, "version", page.version) || !IsValidUtf8(page.version)) {
    return Unusable(Reason::PagesEntry, entry, "version");
  }
  return {};
}

Failure ReadPortablePage(const Json::Value& entry, PortablePage& page) {
  if (!JsonUtils::GetString(entry, "pageType", page.pageType)) {
    return Unusable(Reason::PortableElement, entry, "pageType");
  }
  const Parts::Part* const part = Parts::Find(page.pageType);
  if (part == nullptr || part->isStation) return {};
  page.part = part;
  if (!GetVersion(entry, "version", page.version)) {
    return Unusable(Reason::PortableElement, entry, "version");
  }
  if (!GetFileName(entry, "pageName", page.pageName)) {
    return Unusable(Reason::PortableElement, entry, "pageName");
  }
  return {};
}

}  // namespace

bool GetVersion(const Json::Value& item, const char* key, std::string& version) {
  return JsonUtils::GetString(item, key, version) && !version.empty() && IsVersionText(version);
}

Failure ReadElements(const Json::Value& manifest, std::vector<Element>& elements) {
  if (!manifest.isObject() || !manifest["otaList"].isArray()) {
    return Fail(Reason::ManifestUnreadable, "there is no \"otaList\" in it");
  }
  for (const Json::Value& item : manifest["otaList"]) elements.push_back(ReadElement(item));
  return {};
}

Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed) {
  if (offered != installed.m_softVersion) return {};
  return Fail(Reason::PackageSameVersion, "%s is installed", installed.m_softVersion.c_str());
}

Failure CheckHardVersion(const Element& element, const OTAVersion& installed) {
  if (element.version.m_hardVersion == installed.m_hardVersion) return {};
  return Fail(Reason::PackageHardware, "it is for %s, the unit is %s", element.version.m_hardVersion.c_str(),
              installed.m_hardVersion.c_str());
}

Failure CheckDigest(const Element& element, const std::string& digest) {
  if (!digest.empty() && digest == element.md5) return {};
  const std::string expected = Printable(element.md5);
  if (element.type == kPortable) {
    return Fail(Reason::PortableMd5, "checkFileMd5sum error! File val:%s, calculation val:%s",
                expected.c_str(), digest.c_str());
  }
  return Fail(Reason::PackageMd5, "%s has \"%s\", expected was \"%s\"", element.fileName.c_str(),
              digest.c_str(), expected.c_str());
}

Failure ReadPages(const Json::Value& list, std::vector<Page>& pages) {
  if (!list.isArray()) return Fail(Reason::PagesManifest, "it is no list");
  std::set<UPGRADETYPE> seen;
  for (const Json::Value& entry : list) {
    Page page;
    if (Failure failure = ReadPage(entry, page)) return failure;
    if (page.part != nullptr && !seen.insert(page.part->type).second) {
      return Fail(Reason::PagesEntry, "%s stands there twice", std::string(page.part->page).c_str());
    }
    pages.push_back(std::move(page));
  }
  return {};
}

Failure ReadPortablePages(const Json::Value& list, std::vector<PortablePage>& pages) {
  if (!list.isArray()) {
    return Fail(Reason::PortableManifest, "jsPpInfo error content!ErrVal:%s",
                Printable(JsonUtils::ToCompactText(list)).c_str());
  }
  for (const Json::Value& entry : list) {
    PortablePage page;
    if (Failure failure = ReadPortablePage(entry, page)) return failure;
    pages.push_back(std::move(page));
  }
  return {};
}

}  // namespace PackageManifest
