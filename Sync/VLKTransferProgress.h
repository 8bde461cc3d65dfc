// Names of the notifications in which transfers tell how far they are.
#pragma once

#include <string_view>

namespace velkor {

/// Posted on the default notification centre for each chunk that an upload has written: the VLKDataUploader is the sender, the
/// user info holds VLKBytesUploaded and VLKTotalBytes. On the thread that started the upload.
inline constexpr std::string_view VLKDataUploaderDidUploadData = "VLKDataUploaderDidUploadData";
/// The same for each chunk that a VLKDataDownloader has received, with VLKBytesDownloaded and VLKTotalBytes.
inline constexpr std::string_view VLKDataDownloaderDidDownloadData = "VLKDataDownloaderDidDownloadData";
/// Body bytes written so far; a whole number.
inline constexpr std::string_view VLKBytesUploaded = "VLKBytesUploaded";
/// Bytes received so far; a whole number.
inline constexpr std::string_view VLKBytesDownloaded = "VLKBytesDownloaded";
/// Bytes expected in all; negative when the server names no length.
inline constexpr std::string_view VLKTotalBytes = "VLKTotalBytes";

}  // namespace velkor
