#pragma once

#include <array>
#include <vector>

#include "Services/records/Record.h"

// What is waiting to be exchanged with other computers, asked for and answered as a whole (SharedFiles.svc).

namespace kestrine {

struct GetSharedFilesTransferDataQuery {
  Text userId;
  Text computerId;
};
template <>
inline constexpr std::array kFieldsOf<GetSharedFilesTransferDataQuery> = {
    Field{"userId", &GetSharedFilesTransferDataQuery::userId, "UserID"},
    Field{"computerId", &GetSharedFilesTransferDataQuery::computerId, "ComputerID"},
};

/// A file that this computer is to send.
struct FileToTransfer {
  platform::Object kestrinePath;
  platform::Object changeType;
  platform::Object fromCloud;
  platform::Object fromComputerId;
  platform::Object fullPath;
  platform::Object fullPathfromFileTable;
  platform::Object isFile;
  platform::Object isOwnerToSubscriber;
  platform::Object fullPathNew;
  platform::Object ownerFileID;
  platform::Object prevFolderFileId;
  platform::Object sharedFileTransferId;
  platform::Object toCloud;
  platform::Object toComputerId;
  platform::Object userComputerId;
  platform::Object xmlFileId;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<FileToTransfer> = {
    Field{"kestrinePath", &FileToTransfer::kestrinePath, "KestrinePath"},
    Field{"changeType", &FileToTransfer::changeType, "ChangeType"},
    Field{"fromCloud", &FileToTransfer::fromCloud, "FromCloud"},
    Field{"fromComputerId", &FileToTransfer::fromComputerId, "FromComputerID"},
    Field{"fullPath", &FileToTransfer::fullPath, "FullPath"},
    Field{"fullPathfromFileTable", &FileToTransfer::fullPathfromFileTable, "FullPathfromFileTable"},
    Field{"isFile", &FileToTransfer::isFile, "IsFile"},
    Field{"isOwnerToSubscriber", &FileToTransfer::isOwnerToSubscriber, "IsOwnerToSubscriber"},
    Field{"fullPathNew", &FileToTransfer::fullPathNew, "NewFullPath"},
    Field{"ownerFileID", &FileToTransfer::ownerFileID, "OwnerFileID"},
    Field{"prevFolderFileId", &FileToTransfer::prevFolderFileId, "PrevFolderFileID"},
    Field{"sharedFileTransferId", &FileToTransfer::sharedFileTransferId, "SharedFileTransferID"},
    Field{"toCloud", &FileToTransfer::toCloud, "ToCloud"},
    Field{"toComputerId", &FileToTransfer::toComputerId, "ToComputerID"},
    Field{"userComputerId", &FileToTransfer::userComputerId, "UserComputerID"},
    Field{"xmlFileId", &FileToTransfer::xmlFileId, "XMLFileID"},
    Field{"error", &FileToTransfer::error, kNeverFilled},
};

/// A computer of a shared folder's owner.
struct OwnerComputers {
  platform::Object kestrinePath;
  platform::Object cloudPath;
  platform::Object computerId;
  platform::Object isAdmin;
  platform::Object isCloud;
  platform::Object mailId;
  platform::Object nickName;
  platform::Object status;
  platform::Object userComputerMapId;
  platform::Object userId;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<OwnerComputers> = {
    Field{"kestrinePath", &OwnerComputers::kestrinePath, "KestrinePath"},
    Field{"cloudPath", &OwnerComputers::cloudPath, "CloudPath"},
    Field{"computerId", &OwnerComputers::computerId, "ComputerID"},
    Field{"isAdmin", &OwnerComputers::isAdmin, "IsAdmin"},
    Field{"isCloud", &OwnerComputers::isCloud, "IsCloud"},
    Field{"mailId", &OwnerComputers::mailId, "MailID"},
    Field{"nickName", &OwnerComputers::nickName, "NickName"},
    Field{"status", &OwnerComputers::status, "Status"},
    Field{"userComputerMapId", &OwnerComputers::userComputerMapId, "UserComputerMapID"},
    Field{"userId", &OwnerComputers::userId, "UserID"},
    Field{"error", &OwnerComputers::error, kNeverFilled},
};

/// A file that this computer is to receive.
struct RecFileFromTransfer {
  platform::Object changeType;
  platform::Object fromCloud;
  platform::Object fromComputerId;
  platform::Object fullPath;
  platform::Object fullPathFromFileTable;
  platform::Object isFile;
  platform::Object isOwnerToSubscriber;
  platform::Object fullPathNew;
  platform::Object nickName;
  platform::Object ownerFileId;
  platform::Object prevFolderFileId;
  platform::Object savedFileId;
  platform::Object sharedFileTransferId;
  platform::Object sharedFolderFileId;
  platform::Object toCloud;
  platform::Object userComputerId;
  platform::Object xmlFileId;
  platform::Object toComputerId;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<RecFileFromTransfer> = {
    Field{"changeType", &RecFileFromTransfer::changeType, "ChangeType"},
    Field{"fromCloud", &RecFileFromTransfer::fromCloud, "FromCloud"},
    Field{"fromComputerId", &RecFileFromTransfer::fromComputerId, "FromComputerID"},
    Field{"fullPath", &RecFileFromTransfer::fullPath, "FullPath"},
    Field{"fullPathFromFileTable", &RecFileFromTransfer::fullPathFromFileTable, "FullPathFromFileTable"},
    Field{"isFile", &RecFileFromTransfer::isFile, "IsFile"},
    Field{"isOwnerToSubscriber", &RecFileFromTransfer::isOwnerToSubscriber, "IsOwnerToSubscriber"},
    Field{"fullPathNew", &RecFileFromTransfer::fullPathNew, "NewFullPath"},
    Field{"nickName", &RecFileFromTransfer::nickName, "NickName"},
    Field{"ownerFileId", &RecFileFromTransfer::ownerFileId, "OwnerFileID"},
    Field{"prevFolderFileId", &RecFileFromTransfer::prevFolderFileId, "PrevFolderFileID"},
    Field{"savedFileId", &RecFileFromTransfer::savedFileId, "SavedFileID"},
    Field{"sharedFileTransferId", &RecFileFromTransfer::sharedFileTransferId, "SharedFileTransferID"},
    Field{"sharedFolderFileId", &RecFileFromTransfer::sharedFolderFileId, "SharedFolderFileID"},
    Field{"toCloud", &RecFileFromTransfer::toCloud, "ToCloud"},
    Field{"userComputerId", &RecFileFromTransfer::userComputerId, "UserComputerID"},
    Field{"xmlFileId", &RecFileFromTransfer::xmlFileId, "XMLFileID"},
    Field{"toComputerId", &RecFileFromTransfer::toComputerId, "ToComputerID"},
    Field{"error", &RecFileFromTransfer::error, kNeverFilled},
};

/// The sharing status of a folder.
struct SharedfoldersWithStatus {
  platform::Object fileId;
  platform::Object sharedStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<SharedfoldersWithStatus> = {
    Field{"fileId", &SharedfoldersWithStatus::fileId, "FileID"},
    Field{"sharedStatus", &SharedfoldersWithStatus::sharedStatus, "SharedStatus"},
    Field{"error", &SharedfoldersWithStatus::error, kNeverFilled},
};

/// Everything that a computer needs to exchange shared files, in one answer. The arrays are empty when the answer has no such section.
struct GetSharedFilesTransferDataResponseData {
  std::vector<FileToTransfer> fileToTransferArray;
  std::vector<OwnerComputers> OwnerComputersArray;
  std::vector<RecFileFromTransfer> RecFileFromTransferArray;
  std::vector<SharedfoldersWithStatus> SharedfoldersWithStatusArray;
  platform::Object ReturnStatus;
};
template <>
inline constexpr std::array kFieldsOf<GetSharedFilesTransferDataResponseData> = {
    Field{"ReturnStatus", &GetSharedFilesTransferDataResponseData::ReturnStatus, "ReturnStatus"},
};

}  // namespace kestrine
