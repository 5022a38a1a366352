#pragma once

#include <array>

#include "Services/records/Record.h"

// What Uploads.svc asks and answers: files on their way from the server to this computer.

namespace kestrine {

struct GetTopFileUploadQuery {
  Text toComputerId;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileUploadQuery> = {
    Field{"toComputerId", &GetTopFileUploadQuery::toComputerId, "ToComputerID"},
};

struct GetTopFileUploadResponseData {
  platform::Object attachment;
  platform::Object fileName;
  platform::Object fileUploadId;
  platform::Object isFile;
  platform::Object returnStatus;
  platform::Object serverPath;
  platform::Object toComputerId;
  platform::Object transitUploadPath;
  platform::Object uploadProcessed;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<GetTopFileUploadResponseData> = {
    Field{"attachment", &GetTopFileUploadResponseData::attachment, "Attachment"},
    Field{"fileName", &GetTopFileUploadResponseData::fileName, "FileName"},
    Field{"fileUploadId", &GetTopFileUploadResponseData::fileUploadId, "FileUploadID"},
    Field{"isFile", &GetTopFileUploadResponseData::isFile, "IsFile"},
    Field{"returnStatus", &GetTopFileUploadResponseData::returnStatus, "ReturnStatus"},
    Field{"serverPath", &GetTopFileUploadResponseData::serverPath, "ServerPath"},
    Field{"toComputerId", &GetTopFileUploadResponseData::toComputerId, "ToComputerID"},
    Field{"transitUploadPath", &GetTopFileUploadResponseData::transitUploadPath, "TransitUploadPath"},
    Field{"uploadProcessed", &GetTopFileUploadResponseData::uploadProcessed, "UploadProcessed"},
    Field{"error", &GetTopFileUploadResponseData::error, "error"},
};

struct UpdateFileUploadQuery {
  Text fileUploadId;
  Text fileName;
  Text serverPath;
  Text transitUploadPath;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileUploadQuery> = {
    Field{"fileUploadId", &UpdateFileUploadQuery::fileUploadId, "FileUploadID"},
    Field{"fileName", &UpdateFileUploadQuery::fileName, "FileName"},
    Field{"serverPath", &UpdateFileUploadQuery::serverPath, "ServerPath"},
    Field{"transitUploadPath", &UpdateFileUploadQuery::transitUploadPath, "TransitUploadPath"},
};

struct UpdateFileUploadResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateFileUploadResponseData> = {
    Field{"returnStatus", &UpdateFileUploadResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateFileUploadResponseData::error, "error"},
};

struct UpdateBSUploadStreamStartedQuery {
  Text fileUploadId;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSUploadStreamStartedQuery> = {
    Field{"fileUploadId", &UpdateBSUploadStreamStartedQuery::fileUploadId, "FileUploadID"},
};

struct UpdateBSUploadStreamStartedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSUploadStreamStartedResponseData> = {
    Field{"returnStatus", &UpdateBSUploadStreamStartedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSUploadStreamStartedResponseData::error, "error"},
};

struct UpdateBSUploadStreamFailedQuery {
  Text fileUploadId;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSUploadStreamFailedQuery> = {
    Field{"fileUploadId", &UpdateBSUploadStreamFailedQuery::fileUploadId, "FileUploadID"},
};

struct UpdateBSUploadStreamFailedResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateBSUploadStreamFailedResponseData> = {
    Field{"returnStatus", &UpdateBSUploadStreamFailedResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &UpdateBSUploadStreamFailedResponseData::error, "error"},
};

}  // namespace kestrine
