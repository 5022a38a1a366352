#include "Services/QueryParser.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"
#include "util/ServicesUtilities.h"

namespace kestrine {

namespace {

/// The table of `Query` in the order of the keys, as a body is kept.
template <class Query>
constexpr auto kFieldsByKey = [] {
  auto fields = kFieldsOf<Query>;
  std::ranges::sort(fields, {}, [](const auto& field) { return field.key; });
  return fields;
}();

/// Says which property, the first in the order of the table.
template <class Query>
[[noreturn]] void refuseUnset(const Query& query) {
  const auto unset = std::ranges::find_if(kFieldsOf<Query>, [&query](const auto& field) { return !(query.*field.member); });
  throw platform::Exception(platform::NSInvalidArgumentException, fmt::format("nothing to store under \"{}\"", unset->key));
}

/// Stores what the table of `Query` lists.
template <class Query>
platform::Object bodyOf(const Query& query) {
  constexpr const auto& kFields = kFieldsByKey<Query>;
  constexpr auto kKeyOf = [](const auto& field) { return field.key; };
  static_assert(std::ranges::adjacent_find(kFields, {}, kKeyOf) == kFields.end(), "a key twice");
  std::array<platform::ConstantKeyText, kFields.size()> texts;
  std::size_t count = 0;
  for (const auto& [property, member, key] : kFields) {
    if (const Text& text = query.*member) texts[count++] = {key, *text};
  }
  if (count < kFields.size() && ServicesUtilities::is10_7()) refuseUnset(query);
  return platform::Object::dictionaryOfTexts(std::span(texts).first(count));
}

}  // namespace

platform::Object QueryParser::parseUserRegistrationQuery(const UserRegistrationQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseRegisterComputerQuery(const RegisterComputerQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseSendActivationMailQuery(const SendActivationMailQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery(const OneTimeSyncOwnersSharedFoldersQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseGetTopFileUploadQuery(const GetTopFileUploadQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseCheckUserMailActivationStatusQuery(const CheckUserMailActivationStatusQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateFileUploadQuery(const UpdateFileUploadQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parsegetTopFileRequestQuery(const GetTopFileRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileRequestQuery(const UpdateFileRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseSyncFilesInTableAndCloudQuery(const std::vector<SyncFilesInTableAndCloudQuery>& queries) {
  platform::Array changes;
  changes.reserve(queries.size());
  for (const SyncFilesInTableAndCloudQuery& query : queries) changes.push_back(bodyOf(query));
  return platform::Dictionary{{"syncData", std::move(changes)}};
}
platform::Object QueryParser::parseUpdateComputerStatusQuery(const UpdateComputerStatusQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseOneTimeSyncFilesQuery(const OneTimeSyncFilesQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseTransferFilesFromColudToBaseSystemQuery(const TransferFilesFromCloudToBaseSystemQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseSendPasswordToMailIdQuery(const SendPasswordToMailIdQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseLogErrorQuery(const LogErrorQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseGetSharedFilesTransferDataQuery(const GetSharedFilesTransferDataQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileExistDataQuery(const UpdateFileExistQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileSendReceivedQuery(const UpdateFileSendReceivedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUploadWithStreamQuery(const UploadFileWithStreamQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateSendFileToTransferQuery(const UpdateSendFileToTransferQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseIsFileExistsInCloudQuery(const IsFileExistsInCloudQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileReceivedQuery(const UpdateFileReceivedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseDeleteReceivedFileFromTransferQuery(const DeleteReceivedFileFromTransferQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseInsertFileQuery(const InsertFileQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseInsertSharedFilesTransferQuery(const InsertSharedFilesTransferQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSUploadStreamStartedQuery(const UpdateBSUploadStreamStartedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSUploadStreamFailedQuery(const UpdateBSUploadStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSDownloadStreamStartedQuery(const UpdateBSDownloadStreamStartedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateBSDownloadStreamFailedQuery(const UpdateBSDownloadStreamFailedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseCheckFileExistsInDownloadsQuery(const CheckFileExistsInDownloadsQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseCheckFileExistsInTransfersQuery(const CheckFileExistsInTransfersQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSSendStreamStartedQuery(const UpdateBSSendStreamStartedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSSendStreamFailedQuery(const UpdateBSSendStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSReceiveStreamStartedQuery(const UpdateBSReceiveStreamStartedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateBSReceiveStreamFailedQuery(const UpdateBSReceiveStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseGetTopFileDeleteRequestQuery(const GetTopFileDeleteRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSFileDeletedQuery(const UpdateBSFileDeletedQuery& query) { return bodyOf(query); }

}  // namespace kestrine
