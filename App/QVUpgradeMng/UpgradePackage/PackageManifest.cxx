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

/// A version under `key` that may be kept and shown.
bool GetVersion(const Json::Value& item, const char* key, std::string& version) {
  return JsonUtils::GetString(item, key, version) && !version.empty() && IsVersionText(version);
}

/// A failure that shows what stands under `key`.
Failure Unusable(Reason reason, const Json::Value& item, const char* key) {
  const bool isThere = item.isObject() && item.isMember(key);
  const std::string found = isThere ? JsonUtils::ToCompactText(item[key]) : "nothing";
  return Fail(reason, "\"%s\" cannot be used: %s", key, Printable(found, kMaxFileNameBytes).c_str());
}

Kind KindOf(const std::string& type) {
  if (type == "RRU") return Kind::Station;
  return type == "PP" ? Kind::Portable : Kind::Other;
}

Element ReadElement(const Json::Value& item) {
  Element element;
  element.type = JsonUtils::StringOr(item, "upgradeType", "");
  element.kind = KindOf(element.type);
  if (element.kind == Kind::Other) return element;
  const bool isStation = element.kind == Kind::Station;
  const auto check = [&](bool isUsable, const char* key) {
    if (isUsable || element.unusable) return;
    element.unusable = Unusable(isStation ? Reason::ManifestElement : Reason::PortableElement, item, key);
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

Failure ReadPage(const Json::Value& entry, bool isStation, Page& page) {
  const Reason reason = isStation ? Reason::PagesEntry : Reason::PortableElement;
  if (isStation && !(entry.isObject() && entry.isMember("pageType") && entry.isMember("version") &&
                     entry.isMember("pageName"))) {
    return {};
  }
  page.use = Page::Use::Unknown;
  if (!JsonUtils::GetString(entry, "pageType", page.pageType)) {
    return isStation ? Failure() : Unusable(reason, entry, "pageType");
  }
  const Parts::Part* const part = Parts::Find(page.pageType);
  if (part == nullptr || part->isStation != isStation) return {};
  page.use = Page::Use::Wanted;
  page.part = part;
  if (!GetFileName(entry, "pageName", page.pageName)) return Unusable(reason, entry, "pageName");
  // The path of a base-station part's files may have the version in it.
  const bool isUsable =
      GetVersion(entry, "version", page.version) && (!isStation || IsPlainFileName(page.version));
  return isUsable ? Failure() : Unusable(reason, entry, "version");
}

}  // namespace

Failure ReadElements(const Json::Value& manifest, std::vector<Element>& elements) {
  if (!manifest.isObject() || !manifest["otaList"].isArray()) {
    return Fail(Reason::ManifestUnreadable, "there is no \"otaList\" in it");
  }
  for (const Json::Value& item : manifest["otaList"]) elements.push_back(ReadElement(item));
  return {};
}

Failure ReadPages(const Json::Value& list, Kind kind, std::vector<Page>& pages) {
  const bool isStation = kind == Kind::Station;
  if (!list.isArray()) {
    const std::string found = Printable(JsonUtils::ToCompactText(list));
    return isStation ? Fail(Reason::PagesManifest, "no list: %s", found.c_str())
                     : Fail(Reason::PortableManifest, "jsPpInfo error content!ErrVal:%s", found.c_str());
  }
  std::set<const Parts::Part*> seen;
  for (const Json::Value& entry : list) {
    Page page;
    if (Failure failure = ReadPage(entry, isStation, page)) return failure;
    if (isStation && page.part != nullptr && !seen.insert(page.part).second) {
      return Fail(Reason::PagesEntry, "%s stands there twice", page.pageType.c_str());
    }
    pages.push_back(std::move(page));
  }
  return {};
}

Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed) {
  if (offered != installed.m_softVersion) return {};
  return Fail(Reason::PackageSameVersion, "%s is installed", installed.m_softVersion.c_str());
}

Failure CheckHardVersion(const Element& element, const OTAVersion& installed) {
  const std::string& wanted = element.version.m_hardVersion;
  if (wanted == installed.m_hardVersion) return {};
  return Fail(Reason::PackageHardware, "it is for %s, the unit is %s", wanted.c_str(),
              installed.m_hardVersion.c_str());
}

Failure CheckDigest(const Element& element, const std::string& digest) {
  if (!digest.empty() && digest == element.md5) return {};
  return Fail(element.kind == Kind::Portable ? Reason::PortableMd5 : Reason::PackageMd5,
              "checkFileMd5sum error! File val:%s, calculation val:%s", Printable(element.md5).c_str(),
              digest.c_str());
}

}  // namespace PackageManifest
