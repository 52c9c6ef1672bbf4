/// What the steps of a package share: the command runner that ends with its thread, the unpacker, and the
/// fields of a manifest, in which any type and any text can stand. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>

namespace PackageSteps {

/// Runs a command unless the calling thread was asked to stop. Its exit code, or -1.
int Run(const std::string& command);

/// The unpacker's command line.
std::string UnpackCommand(const std::string& archive, const std::string& directory);
/// Runs it and syncs. A manifest that an earlier package left in `directory` is removed first, so that it
/// cannot speak for this one.
bool Unpack(const std::string& archive, const std::string& directory);

/// Removes what earlier packages left where web packages are unpacked, all but `archive` and unfinished
/// downloads.
void ClearDownloads(const std::string& archive);
/// Before the download of `archive` needs the space: removes these and the unfinished downloads of other
/// packages, and whatever stands in the way of its own.
void ClearOtherDownloads(const std::string& archive);
/// True when a download lies there, unfinished or complete.
bool HasDownload();
/// Creates the directory of web packages and downloads; a failure is logged.
void CreateDownloadDirectory();

/// True for a regular file, not for a symbolic link to one.
bool IsRegularFileItself(const std::string& path);

/// A version under `key`: IsVersionText, and not empty.
bool GetVersion(const Json::Value& item, const char* key, std::string& version);
/// A name under `key` that stays in its directory.
bool GetFileName(const Json::Value& item, const char* key, std::string& name);
/// Such a name of a zip.
bool GetArchiveName(const Json::Value& item, const char* key, std::string& name);

}  // namespace PackageSteps
