#pragma once

#include <array>

#include "Services/records/Record.h"

// What SharedFiles.svc asks and answers: files shared with other computers.

namespace kestrine {

struct UpdateFileExistQuery {
  Text SharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileExistQuery> = {
    Field{"SharedFileTransferID", &UpdateFileExistQuery::SharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateFileExistResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileExistResponseData> = {
    Field{"returnStatus", &UpdateFileExistResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateFileExistResponseData::error, "error"},
};

struct UpdateFileSendReceivedQuery {
  Text SharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileSendReceivedQuery> = {
    Field{"SharedFileTransferID", &UpdateFileSendReceivedQuery::SharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateFileSendReceivedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileSendReceivedResponseData> = {
    Field{"returnStatus", &UpdateFileSendReceivedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateFileSendReceivedResponseData::error, "error"},
};

struct UploadFileWithStreamQuery {
  Text computerID;
  Text fullPathFromFileTable;
  Text kestrinePath;
};
template <>
inline constexpr std::array kFieldsOf<UploadFileWithStreamQuery> = {
    Field{"computerID", &UploadFileWithStreamQuery::computerID, "ComputerID"},
    Field{"kestrinePath", &UploadFileWithStreamQuery::kestrinePath, "KestrinePath"},
    Field{"fullPathFromFileTable", &UploadFileWithStreamQuery::fullPathFromFileTable, "FullPathFromFileTable"},
};

/// Never made by a parser: the operation's answer is its "ReturnStatus" value.
struct UploadFileWithStreamResponseData {
  platform::Object returnStatus;
  platform::Object error;
};

struct UpdateSendFileToTransferQuery {
  Text ChangeType;
  Text SharedFileTransferID;
  Text FullPathFromFileTable;
  Text ToCloud;
  Text IsFile;
  Text ToComputerID;
  Text NewFullPath;
  Text OwnerFileID;
  Text FromComputerID;
  Text KestrinePath;
  Text FileNameToSend;
  Text Length;
};
template <>
inline constexpr std::array kFieldsOf<UpdateSendFileToTransferQuery> = {
    Field{"ChangeType", &UpdateSendFileToTransferQuery::ChangeType, "ChangeType"},
    Field{"SharedFileTransferID", &UpdateSendFileToTransferQuery::SharedFileTransferID, "SharedFileTransferID"},
    Field{"FullPathFromFileTable", &UpdateSendFileToTransferQuery::FullPathFromFileTable, "FullPathFromFileTable"},
    Field{"ToCloud", &UpdateSendFileToTransferQuery::ToCloud, "ToCloud"},
    Field{"IsFile", &UpdateSendFileToTransferQuery::IsFile, "IsFile"},
    Field{"ToComputerID", &UpdateSendFileToTransferQuery::ToComputerID, "ToComputerID"},
    Field{"NewFullPath", &UpdateSendFileToTransferQuery::NewFullPath, "NewFullPath"},
    Field{"OwnerFileID", &UpdateSendFileToTransferQuery::OwnerFileID, "OwnerFileID"},
    Field{"FromComputerID", &UpdateSendFileToTransferQuery::FromComputerID, "FromComputerID"},
    Field{"KestrinePath", &UpdateSendFileToTransferQuery::KestrinePath, "KestrinePath"},
    Field{"FileNameToSend", &UpdateSendFileToTransferQuery::FileNameToSend, "FileNameToSend"},
    Field{"Length", &UpdateSendFileToTransferQuery::Length, "Length"},
};

/// Never made by a parser: the operation's answer is its "ReturnStatus" value.
struct UpdateSendFileToTransferResponseData {
  platform::Object returnStatus;
  platform::Object error;
};

struct IsFileExistsInCloudQuery {
  Text strFullPath;
};
template <>
inline constexpr std::array kFieldsOf<IsFileExistsInCloudQuery> = {
    Field{"strFullPath", &IsFileExistsInCloudQuery::strFullPath, "StrFullPath"},
};

struct IsFileExistsInCloudResponseData {
  platform::Object isExists;
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<IsFileExistsInCloudResponseData> = {
    Field{"isExists", &IsFileExistsInCloudResponseData::isExists, "IsExists"},
    Field{"returnStatus", &IsFileExistsInCloudResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &IsFileExistsInCloudResponseData::error, "error"},
};

struct UpdateFileReceivedQuery {
  Text sharedFileTransferID;
  Text isFileExists;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileReceivedQuery> = {
    Field{"sharedFileTransferID", &UpdateFileReceivedQuery::sharedFileTransferID, "SharedFileTransferID"},
    Field{"isFileExists", &UpdateFileReceivedQuery::isFileExists, "IsExists"},
};

struct UpdateFileReceivedResponseData {
  platform::Object ReturnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileReceivedResponseData> = {
    Field{"ReturnStatus", &UpdateFileReceivedResponseData::ReturnStatus, "ReturnStatus"},
    Field{"error", &UpdateFileReceivedResponseData::error, "error"},
};

struct DeleteReceivedFileFromTransferQuery {
  Text sharedFileTransferID;
  Text isFileExists;
  Text savedFileID;
};
template <>
inline constexpr std::array kFieldsOf<DeleteReceivedFileFromTransferQuery> = {
    Field{"isFileExists", &DeleteReceivedFileFromTransferQuery::isFileExists, "IsExists"},
    Field{"savedFileID", &DeleteReceivedFileFromTransferQuery::savedFileID, "SavedFileID"},
    Field{"sharedFileTransferID", &DeleteReceivedFileFromTransferQuery::sharedFileTransferID, "SharedFileTransferID"},
};

struct DeleteReceivedFileFromTransferResponseData {
  platform::Object ReturnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<DeleteReceivedFileFromTransferResponseData> = {
    Field{"ReturnStatus", &DeleteReceivedFileFromTransferResponseData::ReturnStatus, "ReturnStatus"},
    Field{"error", &DeleteReceivedFileFromTransferResponseData::error, "error"},
};

/// Its key has a lower-case "from", unlike that of the other records with the path from the file table; the server tells them apart.
struct CheckFileExistsInTransfersQuery {
  Text sharedFileTransferID;
  Text fullPathfromFileTable;
};
template <>
inline constexpr std::array kFieldsOf<CheckFileExistsInTransfersQuery> = {
    Field{"sharedFileTransferID", &CheckFileExistsInTransfersQuery::sharedFileTransferID, "SharedFileTransferID"},
    Field{"fullPathfromFileTable", &CheckFileExistsInTransfersQuery::fullPathfromFileTable, "FullPathfromFileTable"},
};

struct CheckFileExistsInTransfersResponseData {
  platform::Object returnStatus;
  platform::Object byteStartPos;
};
template <>
inline constexpr std::array kFieldsOf<CheckFileExistsInTransfersResponseData> = {
    Field{"byteStartPos", &CheckFileExistsInTransfersResponseData::byteStartPos, "ByteStartPos"},
    Field{"returnStatus", &CheckFileExistsInTransfersResponseData::returnStatus, "ReturnStatus"},
};

struct UpdateBSSendStreamStartedQuery {
  Text sharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSSendStreamStartedQuery> = {
    Field{"sharedFileTransferID", &UpdateBSSendStreamStartedQuery::sharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateBSSendStreamStartedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSSendStreamStartedResponseData> = {
    Field{"returnStatus", &UpdateBSSendStreamStartedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSSendStreamStartedResponseData::error, kNeverFilled},
};

struct UpdateBSSendStreamFailedQuery {
  Text sharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSSendStreamFailedQuery> = {
    Field{"sharedFileTransferID", &UpdateBSSendStreamFailedQuery::sharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateBSSendStreamFailedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSSendStreamFailedResponseData> = {
    Field{"returnStatus", &UpdateBSSendStreamFailedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSSendStreamFailedResponseData::error, kNeverFilled},
};

struct UpdateBSReceiveStreamStartedQuery {
  Text sharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSReceiveStreamStartedQuery> = {
    Field{"sharedFileTransferID", &UpdateBSReceiveStreamStartedQuery::sharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateBSReceiveStreamStartedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSReceiveStreamStartedResponseData> = {
    Field{"returnStatus", &UpdateBSReceiveStreamStartedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSReceiveStreamStartedResponseData::error, kNeverFilled},
};

struct UpdateBSReceiveStreamFailedQuery {
  Text sharedFileTransferID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSReceiveStreamFailedQuery> = {
    Field{"sharedFileTransferID", &UpdateBSReceiveStreamFailedQuery::sharedFileTransferID, "SharedFileTransferID"},
};

struct UpdateBSReceiveStreamFailedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSReceiveStreamFailedResponseData> = {
    Field{"returnStatus", &UpdateBSReceiveStreamFailedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSReceiveStreamFailedResponseData::error, kNeverFilled},
};

}  // namespace kestrine
