#pragma once

#include <array>

#include "Services/records/Record.h"

// What Downloads.svc asks and answers: files that the server asks this computer for, and asks it to delete.

namespace kestrine {

struct GetTopFileRequestQuery {
  Text fromComputerID;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileRequestQuery> = {
    Field{"fromComputerID", &GetTopFileRequestQuery::fromComputerID, "FromComputerID"},
};

struct GetTopFileRequestResponseData {
  platform::Object filePath;
  platform::Object fileRequestID;
  platform::Object returnStatus;
  platform::Object TransitDownloadPath;
  platform::Object sharedFlag;
  platform::Object ownerFileID;
  platform::Object byteStartPos;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileRequestResponseData> = {
    Field{"filePath", &GetTopFileRequestResponseData::filePath, "FilePath"},
    Field{"fileRequestID", &GetTopFileRequestResponseData::fileRequestID, "FileRequestID"},
    Field{"returnStatus", &GetTopFileRequestResponseData::returnStatus, "ReturnStatus"},
    Field{"TransitDownloadPath", &GetTopFileRequestResponseData::TransitDownloadPath, "TransitDownloadPath"},
    Field{"sharedFlag", &GetTopFileRequestResponseData::sharedFlag, "FromShared"},
    Field{"ownerFileID", &GetTopFileRequestResponseData::ownerFileID, "FileID"},
    Field{"byteStartPos", &GetTopFileRequestResponseData::byteStartPos, "ByteStartPos"},
    Field{"error", &GetTopFileRequestResponseData::error, "error"},
};

struct UpdateFileRequestQuery {
  Text filePath;
  Text fileRequestId;
  Text transitDownloadPath;
  Text attachment;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileRequestQuery> = {
    Field{"filePath", &UpdateFileRequestQuery::filePath, "FilePath"},
    Field{"fileRequestId", &UpdateFileRequestQuery::fileRequestId, "FileRequestID"},
    Field{"transitDownloadPath", &UpdateFileRequestQuery::transitDownloadPath, "TransitDownloadPath"},
    Field{"attachment", &UpdateFileRequestQuery::attachment, "Attachment"},
};

struct UpdateFileRequestResponseData {
  platform::Object ReturnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileRequestResponseData> = {
    Field{"ReturnStatus", &UpdateFileRequestResponseData::ReturnStatus, "ReturnStatus"},
    Field{"error", &UpdateFileRequestResponseData::error, "error"},
};

struct CheckFileExistsInDownloadsQuery {
  Text filePath;
};
template <>
inline constexpr std::array kFieldsOf<CheckFileExistsInDownloadsQuery> = {
    Field{"filePath", &CheckFileExistsInDownloadsQuery::filePath, "FilePath"},
};

struct CheckFileExistsInDownloadsResponseData {
  platform::Object returnStatus;
  platform::Object byteStartPos;
};
template <>
inline constexpr std::array kFieldsOf<CheckFileExistsInDownloadsResponseData> = {
    Field{"byteStartPos", &CheckFileExistsInDownloadsResponseData::byteStartPos, "ByteStartPos"},
    Field{"returnStatus", &CheckFileExistsInDownloadsResponseData::returnStatus, "ReturnStatus"},
};

struct UpdateBSDownloadStreamStartedQuery {
  Text fileRequestId;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSDownloadStreamStartedQuery> = {
    Field{"fileRequestId", &UpdateBSDownloadStreamStartedQuery::fileRequestId, "FileRequestID"},
};

struct UpdateBSDownloadStreamStartedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSDownloadStreamStartedResponseData> = {
    Field{"returnStatus", &UpdateBSDownloadStreamStartedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSDownloadStreamStartedResponseData::error, "error"},
};

struct UpdateBSDownloadStreamFailedQuery {
  Text fileRequestId;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSDownloadStreamFailedQuery> = {
    Field{"fileRequestId", &UpdateBSDownloadStreamFailedQuery::fileRequestId, "FileRequestID"},
};

struct UpdateBSDownloadStreamFailedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSDownloadStreamFailedResponseData> = {
    Field{"returnStatus", &UpdateBSDownloadStreamFailedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSDownloadStreamFailedResponseData::error, "error"},
};

struct GetTopFileDeleteRequestQuery {
  Text fromComputerID;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileDeleteRequestQuery> = {
    Field{"fromComputerID", &GetTopFileDeleteRequestQuery::fromComputerID, "FromComputerID"},
};

struct GetTopFileDeleteResponseData {
  platform::Object deleteRequestID;
  platform::Object filePath;
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileDeleteResponseData> = {
    Field{"deleteRequestID", &GetTopFileDeleteResponseData::deleteRequestID, "DeleteRequestID"},
    Field{"filePath", &GetTopFileDeleteResponseData::filePath, "FilePath"},
    Field{"returnStatus", &GetTopFileDeleteResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &GetTopFileDeleteResponseData::error, kNeverFilled},
};

struct UpdateBSFileDeletedQuery {
  Text deleteRequestID;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSFileDeletedQuery> = {
    Field{"deleteRequestID", &UpdateBSFileDeletedQuery::deleteRequestID, "DeleteRequestID"},
};

struct UpdateBSFileDeleteResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSFileDeleteResponseData> = {
    Field{"returnStatus", &UpdateBSFileDeleteResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSFileDeleteResponseData::error, kNeverFilled},
};

}  // namespace kestrine
