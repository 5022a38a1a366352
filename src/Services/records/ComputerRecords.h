#pragma once

#include <array>

#include "Services/records/Record.h"

// What this computer tells of itself: its status (UpdateSystemTime.svc) and its errors (ErrorLog.svc).

namespace kestrine {

struct UpdateComputerStatusQuery {
  Text computerId;
  Text dateTime;
  Text versionNumber;
};
template <>
inline constexpr std::array kFieldsOf<UpdateComputerStatusQuery> = {
    Field{"computerId", &UpdateComputerStatusQuery::computerId, "ComputerID"},
    Field{"dateTime", &UpdateComputerStatusQuery::dateTime, "DateTime"},
    Field{"versionNumber", &UpdateComputerStatusQuery::versionNumber, "VersionNumber"},
};

struct UpdateComputerStatusResponseData {
  platform::Object returnStatus;
  platform::Object VersionNumber;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<UpdateComputerStatusResponseData> = {
    Field{"returnStatus", &UpdateComputerStatusResponseData::returnStatus, "ReturnStatus"},
    Field{"VersionNumber", &UpdateComputerStatusResponseData::VersionNumber, "VersionNumber"},
    Field{"error", &UpdateComputerStatusResponseData::error, "error"},
};

struct LogErrorQuery {
  Text errorClass;
  Text errorMethod;
  Text errorMessage;
  Text computerId;
  Text userId;
};
template <>
inline constexpr std::array kFieldsOf<LogErrorQuery> = {
    Field{"errorClass", &LogErrorQuery::errorClass, "ErrorClass"},
    Field{"errorMethod", &LogErrorQuery::errorMethod, "ErrorMethod"},
    Field{"errorMessage", &LogErrorQuery::errorMessage, "ErrorMessage"},
    Field{"computerId", &LogErrorQuery::computerId, "ComputerID"},
    Field{"userId", &LogErrorQuery::userId, "UserID"},
};

struct LogErrorResponseData {
  platform::Object returnStatus;
  platform::Object error;
};
template <>
inline constexpr std::array kFieldsOf<LogErrorResponseData> = {
    Field{"returnStatus", &LogErrorResponseData::returnStatus, "ReturnStatus"},
    Field{"error", &LogErrorResponseData::error, "error"},
};

}  // namespace kestrine
