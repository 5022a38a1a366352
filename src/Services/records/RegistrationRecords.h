#pragma once

#include <array>

#include "Services/records/Record.h"

// What Registration.svc asks and answers: accounts, computers and their first synchronisation.

namespace kestrine {

struct UserRegistrationQuery {
  Text mailId;
  Text passWord;
  Text firstName;
  Text lastName;
  Text nickName;
};
template <>
inline constexpr std::array kFieldsOf<UserRegistrationQuery> = {
    Field{"mailId", &UserRegistrationQuery::mailId, "MailID"},          Field{"passWord", &UserRegistrationQuery::passWord, "Password"},
    Field{"firstName", &UserRegistrationQuery::firstName, "FirstName"}, Field{"lastName", &UserRegistrationQuery::lastName, "LastName"},
    Field{"nickName", &UserRegistrationQuery::nickName, "NickName"},
};

struct UserRegistrationResponseData {
  platform::Object returnStatus;
  platform::Object returnValue;
  platform::Object userId;
  platform::Object cloudComputerId;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UserRegistrationResponseData> = {
    Field{"returnStatus", &UserRegistrationResponseData::returnStatus, "ReturnStatus"},
    Field{"returnValue", &UserRegistrationResponseData::returnValue, "ReturnVal"},
    Field{"userId", &UserRegistrationResponseData::userId, "UserID"},
    Field{"cloudComputerId", &UserRegistrationResponseData::cloudComputerId, "CloudComputerID"},
    Field{"error", &UserRegistrationResponseData::error, "error"},
};

struct RegisterComputerQuery {
  Text userId;
  Text kestrinePath;
};
template <>
inline constexpr std::array kFieldsOf<RegisterComputerQuery> = {
    Field{"userId", &RegisterComputerQuery::userId, "UserID"},
    Field{"kestrinePath", &RegisterComputerQuery::kestrinePath, "KestrinePath"},
};

struct RegisterComputerResponseData {
  platform::Object computerId;
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<RegisterComputerResponseData> = {
    Field{"computerId", &RegisterComputerResponseData::computerId, "ComputerID"},
    Field{"returnStatus", &RegisterComputerResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &RegisterComputerResponseData::error, "error"},
};

struct SendActivationMailQuery {
  Text mailId;
  Text userId;
};
template <>
inline constexpr std::array kFieldsOf<SendActivationMailQuery> = {
    Field{"mailId", &SendActivationMailQuery::mailId, "MailID"},
    Field{"userId", &SendActivationMailQuery::userId, "UserID"},
};

struct SendActivationMailResponseData {
  platform::Object returnStatus;
  platform::Object returnMsg;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<SendActivationMailResponseData> = {
    Field{"returnStatus", &SendActivationMailResponseData::returnStatus, "ReturnStatus"},
    Field{"returnMsg", &SendActivationMailResponseData::returnMsg, "ReturnMsg"},
    Field{"error", &SendActivationMailResponseData::error, "error"},
};

struct CheckUserMailActivationStatusQuery {
  Text userId;
};
template <>
inline constexpr std::array kFieldsOf<CheckUserMailActivationStatusQuery> = {
    Field{"userId", &CheckUserMailActivationStatusQuery::userId, "UserID"},
};

struct CheckUserMailActivationStatusResponseData {
  platform::Object returnStatus;
  platform::Object returnValue;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<CheckUserMailActivationStatusResponseData> = {
    Field{"returnStatus", &CheckUserMailActivationStatusResponseData::returnStatus, "ReturnStatus"},
    Field{"returnValue", &CheckUserMailActivationStatusResponseData::returnValue, "ReturnVal"},
    Field{"error", &CheckUserMailActivationStatusResponseData::error, "error"},
};

struct SendPasswordToMailIdQuery {
  Text mailId;
};
template <>
inline constexpr std::array kFieldsOf<SendPasswordToMailIdQuery> = {
    Field{"mailId", &SendPasswordToMailIdQuery::mailId, "MailID"},
};

struct SendPasswordToMailIdResponseData {
  platform::Object returnStatus;
  platform::Object returnMsg;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<SendPasswordToMailIdResponseData> = {
    Field{"returnStatus", &SendPasswordToMailIdResponseData::returnStatus, "ReturnStatus"},
    Field{"returnMsg", &SendPasswordToMailIdResponseData::returnMsg, "ReturnMsg"},
    Field{"error", &SendPasswordToMailIdResponseData::error, "error"},
};

struct OneTimeSyncOwnersSharedFoldersQuery {
  Text computerId;
  Text userId;
};
template <>
inline constexpr std::array kFieldsOf<OneTimeSyncOwnersSharedFoldersQuery> = {
    Field{"computerId", &OneTimeSyncOwnersSharedFoldersQuery::computerId, "ComputerID"},
    Field{"userId", &OneTimeSyncOwnersSharedFoldersQuery::userId, "UserID"},
};

struct OneTimeSyncOwnersSharedFoldersResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<OneTimeSyncOwnersSharedFoldersResponseData> = {
    Field{"returnStatus", &OneTimeSyncOwnersSharedFoldersResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &OneTimeSyncOwnersSharedFoldersResponseData::error, "error"},
};

struct OneTimeSyncFilesQuery {
  Text allFiles;
  Text computerId;
  Text kestrinePath;
};
template <>
inline constexpr std::array kFieldsOf<OneTimeSyncFilesQuery> = {
    Field{"allFiles", &OneTimeSyncFilesQuery::allFiles, "AllFiles"},
    Field{"computerId", &OneTimeSyncFilesQuery::computerId, "ComputerID"},
    Field{"kestrinePath", &OneTimeSyncFilesQuery::kestrinePath, "KestrinePath"},
};

struct OneTimeSyncFilesResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<OneTimeSyncFilesResponseData> = {
    Field{"returnStatus", &OneTimeSyncFilesResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &OneTimeSyncFilesResponseData::error, "error"},
};

struct TransferFilesFromCloudToBaseSystemQuery {
  Text computerID;
  Text kestrinePath;
};
template <>
inline constexpr std::array kFieldsOf<TransferFilesFromCloudToBaseSystemQuery> = {
    Field{"computerID", &TransferFilesFromCloudToBaseSystemQuery::computerID, "ComputerID"},
    Field{"kestrinePath", &TransferFilesFromCloudToBaseSystemQuery::kestrinePath, "KestrinePath"},
};

struct TransferFilesFromCloudToBaseSystemResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<TransferFilesFromCloudToBaseSystemResponseData> = {
    Field{"returnStatus", &TransferFilesFromCloudToBaseSystemResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &TransferFilesFromCloudToBaseSystemResponseData::error, "error"},
};

}  // namespace kestrine
