/// Where web uploads and downloads arrive and are unpacked: created, and cleared for the next package. Used
/// by the web and the cloud source and by the unpack of their packages. Stateless; any thread.
#pragma once

#include <string>

namespace DownloadDirectory {

/// A failure is logged.
void Create();
/// True when a download lies there, unfinished or complete.
bool HasDownload();
/// Removes what earlier packages left, all but `archive` and unfinished downloads.
void Clear(const std::string& archive);
/// Before the download of `archive` needs the space: removes these and the unfinished downloads of other
/// packages, and whatever stands in the way of its own.
void ClearForDownload(const std::string& archive);

}  // namespace DownloadDirectory
