#include "Services/RestInterface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include "Services/Endpoints.h"
#include "tests/services/ExpectedCalls.h"
#include "tests/services/SystemVersionForTest.h"

namespace kestrine::test {
namespace {

TEST(RestInterface, TakesTheOlderTransportFrom10_7To10_9) {
  struct Case {
    double number;
    bool older;
  };
  for (const Case& row : {Case{0, false},
                          {1038, false},
                          {1137.99, false},
                          {1138, true},
                          {1138.47, true},
                          {1187, true},
                          {1265.21, true},
                          {1342.99, true},
                          {1343, false},
                          {1343.16, false},
                          {1404, false},
                          {2487, false}}) {
    EXPECT_EQ(RestInterface::isLessThan10_10(row.number), row.older) << row.number;
  }
  for (const char* version : {"10.7", "10.7.5", "10.8.5", "10.9.5"}) {
    const SystemVersionForTest system(version);
    EXPECT_TRUE(RestInterface::isLessThan10_10()) << version;
  }
  for (const char* version : {"10.5.8", "10.6.8", "10.10", "10.15.7", "11.0", "14.0"}) {
    const SystemVersionForTest system(version);
    EXPECT_FALSE(RestInterface::isLessThan10_10()) << version;
  }
}

/// The rows of the library's table by number: selector and path, escapes as on the wire.
std::map<int, std::pair<std::string, std::string>> rows() {
  std::map<int, std::pair<std::string, std::string>> rows;
  std::apply([&](const auto&... row) { (rows.emplace(row.number, std::pair(std::string(row.selector), std::string(row.path))), ...); },
             kEndpoints);
  return rows;
}

TEST(RestInterface, HasARowForEachOperationWithItsSelectorAndPath) {
  const auto table = rows();
  EXPECT_EQ(table.size(), 39U);
  int checked = 0;
  const auto check = [&](const auto& expected) {
    std::string path = expected.target;
    if (expected.number == 37) path.replace(path.find("%EF%BF%BC"), 9, "\xEF\xBF\xBC");
    ASSERT_TRUE(table.contains(expected.number));
    EXPECT_EQ(table.at(expected.number).first, expected.selector);
    EXPECT_EQ(table.at(expected.number).second, path);
    ++checked;
  };
  forEachRecordCall(check);
  forEachStatusCall(check);
  check(kBatchCall);
  check(kUploadCall);
  check(kTransferDataCall);
  EXPECT_EQ(checked, 38);
  EXPECT_EQ(table.at(kStreamNumber), std::pair(std::string(kStreamSelector), std::string(kStreamTarget)));
  EXPECT_EQ(std::string(kUpdateBSDownloadStreamFailed.path).size(), 42U + 3U) << "42 characters and one that cannot be seen";
}

TEST(RestInterface, DoesNothingForTheStreamCallsOnTheOlderSystems) {
  for (const char* version : {"10.7.5", "10.8", "10.9.5"}) {
    const SystemVersionForTest system(version);
    const auto life = std::make_shared<int>();
    RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler({.toComputerId = "1"},
                                                                         [life](const auto&, const auto&, auto) { ADD_FAILURE(); });
    EXPECT_EQ(life.use_count(), 1) << "nobody is left who could call the handler";
    RestInterface::asyncUpdateFileRequestWithStream_withCompletionHandler(
        {.filePath = "p", .fileRequestId = "r", .transitDownloadPath = "t", .attachment = "a"},
        [life](const auto&, auto) { ADD_FAILURE(); });
    EXPECT_EQ(life.use_count(), 1);
  }
}

}  // namespace
}  // namespace kestrine::test
