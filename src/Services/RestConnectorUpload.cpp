// The upload of a file: RestConnector's longest operation.

#include <fmt/format.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "Services/Reachability/Reachability.h"
#include "Services/RestBaseURL.h"
#include "Services/RestConnector.h"
#include "Services/RestJSON.h"
#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "util/ServicesUtilities.h"

namespace kestrine {

namespace {

using platform::Bytes;
using platform::Error;
using platform::Object;
using platform::URL;

/// The parameter, and the place in the local file system that it means. One that is missing prints as such, as in every text made of it.
std::string localPathOf(const Object& filePath) {
  return ServicesUtilities::convertPathToMac(filePath.isNil() ? filePath.description() : filePath.stringValue());
}

std::string stagingPathOf(const std::string& fileName) {
  return platform::stringByAppendingPathComponent(platform::NSHomeDirectory(), fileName);
}

/// Copies the file that `localPath` means to `stagingPath`; nothing when there is no such file. The path is read as the text of a URL: one
/// with a blank means no file, and percent escapes are resolved.
void stage(const std::string& localPath, const std::string& stagingPath) {
  const auto source = URL::URLWithString(localPath);
  if (!source) return;
  // A copy of its own before the staging path is touched, since the source may be that very file.
  const auto content = Bytes::snapshotOfFile(source->path());
  // What could not be written shows when the task reads it.
  if (content) static_cast<void>(content->writeToFile(stagingPath));
}

platform::URLRequest uploadRequest(const std::optional<URL>& url, const Object& params) {
  platform::URLRequest request(url, platform::URLRequestCachePolicy::UseProtocolCachePolicy, kRestRequestSeconds);
  request.setHTTPMethod("POST");
  request.setValue_forHTTPHeaderField("application/octet-stream", "Content-Type");
  for (const std::string_view name : {"FilePath", "TransitDownloadPath", "FileRequestID"}) {
    const Object value = params.objectForKey(name);
    if (value) request.setValue_forHTTPHeaderField(value.stringValue(), name);
  }
  return request;
}

void uploadCompleted(const std::string& fileName, const std::optional<Bytes>& data, const std::optional<Error>& error,
                     const RestFinishedHandler& finished) {
  if (error) return finished(*error, RestStatusNetworkError);
  const auto parsed = restParse(data.value_or(Bytes()));
  // A file and nothing else: a task that sent a folder would have failed.
  unlink(stagingPathOf(fileName).c_str());
  finished(parsed ? *parsed : Object(), RestStatusSuccess);
}

}  // namespace

void RestConnector::startAsyncUploadWithStreamRequest_params_progress_finished(const std::string& path, const Object& params,
                                                                               RestProgressHandler progress, RestFinishedHandler finished) {
  if (!Reachability::isReachable()) return finished(Object(), RestStatusNotReachable);
  setProgressHandler(std::move(progress));
  configSessionForUpload();
  const auto url = getAbsoluteURL(path);
  const Object filePath = params.objectForKey("FilePath");
  const std::string localPath = localPathOf(filePath);
  platform::NSLog(fmt::format("{} {} {}", localPath, params.objectForKey("TransitDownloadPath").description(),
                              params.objectForKey("FileRequestID").description()));
  const std::string fileName = platform::lastPathComponent(localPath);
  const std::string stagingPath = stagingPathOf(fileName);
  stage(localPath, stagingPath);

  const platform::URLRequest request = uploadRequest(url, params);
  // Made and dropped, unstarted: part of how the session is used, without an effect on the wire.
  static_cast<void>(session()->uploadTaskWithStreamedRequest(request));
  const auto task = session()->uploadTaskWithRequest_fromFile(
      request, URL::fileURLWithPath(stagingPath),
      [fileName, finished = std::move(finished)](const std::optional<Bytes>& data, const std::shared_ptr<const platform::URLResponse>&,
                                                 const std::optional<Error>& error) { uploadCompleted(fileName, data, error, finished); });
  task->setTaskDescription(fileName);
  // Not the connector's current task: resume, pause and close do not reach an upload.
  task->resume();
}

}  // namespace kestrine
