#pragma once

#include <array>

#include "Services/records/Record.h"

// What SyncFileChanges.svc asks and answers: changes of files, told one by one or in a batch.

namespace kestrine {

/// One change of a batch; the batch is an array of these.
struct SyncFilesInTableAndCloudQuery {
  Text changeType;
  Text oldFullPath;
  Text fullPath;
  Text fileSize;
  Text kestrinePath;
  Text isFile;
  Text computerId;
  Text fileModifiedDate;
  Text baseSystemFileID;
  Text fileID;
};
template <>
inline constexpr std::array kFieldsOf<SyncFilesInTableAndCloudQuery> = {
    Field{"changeType", &SyncFilesInTableAndCloudQuery::changeType, "ChangeType"},
    Field{"oldFullPath", &SyncFilesInTableAndCloudQuery::oldFullPath, "OldFullPath"},
    Field{"fullPath", &SyncFilesInTableAndCloudQuery::fullPath, "FullPath"},
    Field{"fileSize", &SyncFilesInTableAndCloudQuery::fileSize, "FileSize"},
    Field{"kestrinePath", &SyncFilesInTableAndCloudQuery::kestrinePath, "KestrinePath"},
    Field{"isFile", &SyncFilesInTableAndCloudQuery::isFile, "IsFile"},
    Field{"computerId", &SyncFilesInTableAndCloudQuery::computerId, "ComputerID"},
    Field{"fileModifiedDate", &SyncFilesInTableAndCloudQuery::fileModifiedDate, "FileModifiedDate"},
    Field{"baseSystemFileID", &SyncFilesInTableAndCloudQuery::baseSystemFileID, "BaseSystemFileID"},
    Field{"fileID", &SyncFilesInTableAndCloudQuery::fileID, "FileID"},
};

/// The answer to one change of a batch; the answer as a whole is an array of these, in the order of the batch.
struct SyncFilesInTableAndCloudResponseData {
  platform::Object fileId;
  platform::Object returnStatus;
  platform::Object baseSystemFileID;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<SyncFilesInTableAndCloudResponseData> = {
    Field{"fileId", &SyncFilesInTableAndCloudResponseData::fileId, "FileID"},
    Field{"returnStatus", &SyncFilesInTableAndCloudResponseData::returnStatus, "ReturnStatus"},
    Field{"baseSystemFileID", &SyncFilesInTableAndCloudResponseData::baseSystemFileID, "BaseSystemFileID"},
    Field{"error", &SyncFilesInTableAndCloudResponseData::error, kNeverFilled},
};

struct InsertFileQuery {
  Text fullPath;
  Text computerID;
};
template <>
inline constexpr std::array kFieldsOf<InsertFileQuery> = {
    Field{"fullPath", &InsertFileQuery::fullPath, "FullPath"},
    Field{"computerID", &InsertFileQuery::computerID, "ComputerID"},
};

struct InsertFileResponseData {
  platform::Object fileID;
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<InsertFileResponseData> = {
    Field{"fileID", &InsertFileResponseData::fileID, "FileID"},
    Field{"returnStatus", &InsertFileResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &InsertFileResponseData::error, "error"},
};

struct InsertSharedFilesTransferQuery {
  Text fileID;
  Text computerID;
  Text userComputerID;
  Text oldFullPath;
  Text fullPath;
  Text isFile;
  Text baseSystemFileID;
  Text prevFolderFileID;
  Text changeType;
  Text StrXMLFileID;
};
template <>
inline constexpr std::array kFieldsOf<InsertSharedFilesTransferQuery> = {
    Field{"fileID", &InsertSharedFilesTransferQuery::fileID, "FileID"},
    Field{"computerID", &InsertSharedFilesTransferQuery::computerID, "ComputerID"},
    Field{"userComputerID", &InsertSharedFilesTransferQuery::userComputerID, "UserComputerID"},
    Field{"oldFullPath", &InsertSharedFilesTransferQuery::oldFullPath, "OldFullPath"},
    Field{"fullPath", &InsertSharedFilesTransferQuery::fullPath, "FullPath"},
    Field{"isFile", &InsertSharedFilesTransferQuery::isFile, "IsFile"},
    Field{"baseSystemFileID", &InsertSharedFilesTransferQuery::baseSystemFileID, "BaseSystemFileID"},
    Field{"prevFolderFileID", &InsertSharedFilesTransferQuery::prevFolderFileID, "PrevFolderFileID"},
    Field{"changeType", &InsertSharedFilesTransferQuery::changeType, "ChangeType"},
    Field{"StrXMLFileID", &InsertSharedFilesTransferQuery::StrXMLFileID, "StrXMLFileID"},
};

struct InsertSharedFilesTransferResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<InsertSharedFilesTransferResponseData> = {
    Field{"returnStatus", &InsertSharedFilesTransferResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &InsertSharedFilesTransferResponseData::error, "error"},
};

}  // namespace kestrine
