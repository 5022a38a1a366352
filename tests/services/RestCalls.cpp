// Every operation through a real server, on both transports: what arrives there and what comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/foundation/value/ObjectFormat.h"
#include "tests/services/ExpectedCalls.h"
#include "tests/services/ExpectedKeys.h"
#include "tests/services/ProductServer.h"
#include "tests/services/SystemVersionForTest.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using testing::HasSubstr;
using testing::Not;

template <class Query>
Query recordFor(int number) {
  Query query;
  for (const auto& [property, member, key] : sentKeys<Query>()) query.*member = property + " of \xC3\xA9 " + std::to_string(number);
  return query;
}

template <class Query>
Dictionary bodyFor(int number) {
  Dictionary body;
  for (const auto& [property, member, key] : sentKeys<Query>()) body.emplace(*key, property + " of \xC3\xA9 " + std::to_string(number));
  return body;
}

template <class Record>
Dictionary answerFor() {
  Dictionary answer = {{"error", Dictionary{{"Code", Object::numberWithLongLong(7)}}}, {"Unknown", "u"}};
  for (const auto& [property, member, key] : readKeys<Record>()) {
    if (key && *key != "error") answer.insert_or_assign(*key, "answer " + property);
  }
  return answer;
}

template <class Record>
void expectRecord(const Record& record) {
  for (const auto& [property, member, key] : readKeys<Record>()) {
    const Object expected = !key              ? Object()
                            : *key == "error" ? Object(Dictionary{{"Code", Object::numberWithLongLong(7)}})
                                              : Object("answer " + property);
    EXPECT_EQ(record.*member, expected) << property;
  }
}

/// The one request that arrived since `before`: a POST of `body` as JSON of people's form.
void expectPosted(const ProductServer& server, std::size_t before, const std::string& target, const Object& body) {
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), before + 1);
  const ReceivedRequest& request = requests.back();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, kBasePath + target);
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
  EXPECT_EQ(request.header("Expect"), std::nullopt);
  EXPECT_NE(request.header("Accept"), "application/json") << "the ordinary call does not use the data session";
  EXPECT_EQ(platform::readJSON(request.body), body);
  if (body.count() > 0) {
    EXPECT_THAT(request.body, HasSubstr("\n  ")) << "one member a line";
  }
}

std::string logged(const std::string& format, const Object& argument) { return "] " + platform::formatObject(format, {argument}) + "\n"; }

/// Every operation that posts a record and reads one, then the batch and the four arrays.
void callEach(bool older) {
  ProductServer server;
  const auto expectThread = [&](std::thread::id thread) { EXPECT_EQ(thread != std::this_thread::get_id(), older) << "the wrong thread"; };
  int calls = 0;
  forEachRecordCall([&]<class Query, class Record>(const ExpectedCall<Query, Record>& expected) {
    SCOPED_TRACE(expected.selector);
    server.setAnswer(expected.target, platform::jsonText(answerFor<Record>()));
    const std::size_t before = server.requests().size();
    LogOfCall log;
    const auto received = callToTheEnd(expected.method, recordFor<Query>(expected.number));
    const std::string text = log.end();
    expectPosted(server, before, expected.target, bodyFor<Query>(expected.number));
    ASSERT_EQ(received->calls, 1);
    EXPECT_EQ(received->status, RestStatusSuccess);
    EXPECT_FALSE(received->answer.error);
    ASSERT_TRUE(received->answer.result);
    expectRecord(*received->answer.result);
    expectThread(received->thread);
    const std::string body = logged(expected.log.body.empty() ? "%@" : expected.log.body, bodyFor<Query>(expected.number));
    EXPECT_EQ(text.find(body) != std::string::npos, !expected.log.body.empty()) << text;
    EXPECT_THAT(text, HasSubstr("] Json String {"));
    if (!expected.log.result.empty()) {
      EXPECT_THAT(text, HasSubstr(logged(expected.log.result, answerFor<Record>())));
    }
    if (!expected.log.afterSuccess.empty()) {
      EXPECT_THAT(text, HasSubstr(logged(expected.log.afterSuccess, {})));
    }
    if (!expected.log.afterError.empty()) {
      EXPECT_THAT(text, Not(HasSubstr(expected.log.afterError)));
    }
    ++calls;
  });
  EXPECT_EQ(calls, 33);

  const Dictionary change = bodyFor<SyncFilesInTableAndCloudQuery>(11);
  server.setAnswer(kBatchCall.target, platform::jsonText(Array{answerFor<SyncFilesInTableAndCloudResponseData>(), Dictionary{}}));
  std::size_t before = server.requests().size();
  const auto batch =
      callToTheEnd(kBatchCall.method, std::vector{recordFor<SyncFilesInTableAndCloudQuery>(11), SyncFilesInTableAndCloudQuery()});
  expectPosted(server, before, kBatchCall.target, Array{change, Dictionary{}});
  ASSERT_TRUE(batch->answer.result);
  ASSERT_EQ(batch->answer.result->size(), 2U);
  expectRecord(batch->answer.result->at(0));
  before = server.requests().size();
  callToTheEnd(kBatchCall.method, std::vector<SyncFilesInTableAndCloudQuery>());
  expectPosted(server, before, kBatchCall.target, Array{});

  server.setAnswer(kTransferDataCall.target, platform::jsonText(Dictionary{{"FileToTransfer", Array{answerFor<FileToTransfer>()}},
                                                                           {"OwnerComputers", Array{}},
                                                                           {"RecFileFromTransfer", Array{answerFor<RecFileFromTransfer>()}},
                                                                           {"ReturnStatus", "1"}}));
  before = server.requests().size();
  const auto transfer = callToTheEnd(kTransferDataCall.method, recordFor<GetSharedFilesTransferDataQuery>(18));
  expectPosted(server, before, kTransferDataCall.target, bodyFor<GetSharedFilesTransferDataQuery>(18));
  ASSERT_TRUE(transfer->answer.result);
  expectRecord(transfer->answer.result->fileToTransferArray.at(0));
  expectRecord(transfer->answer.result->RecFileFromTransferArray.at(0));
  EXPECT_TRUE(transfer->answer.result->OwnerComputersArray.empty());
  EXPECT_EQ(transfer->answer.result->ReturnStatus, Object("1"));
}

TEST(RestCalls, EachPostsItsRecordAndReadsItsAnswer) {
  inRestNetwork([] { callEach(false); });
}

TEST(RestCalls, EachPostsItsRecordAndReadsItsAnswerOverTheOlderTransport) {
  inRestNetwork([] {
    const SystemVersionForTest version("10.9.5");
    callEach(true);
  });
}

TEST(RestCalls, TheStatusCallsHandOverNothingOrAreNeverHeardOf) {
  inRestNetwork([] {
    ProductServer server;
    for (const char* system : {"14.0", "10.9.5"}) {
      const SystemVersionForTest version(system);
      forEachStatusCall([&]<class Query, class Result>(const ExpectedCall<Query, Result>& expected) {
        SCOPED_TRACE(expected.selector);
        server.setAnswer(expected.target, R"({"ReturnStatus":"1"})");
        LogOfCall log;
        EXPECT_EQ(callToTheEnd(expected.method, recordFor<Query>(expected.number))->calls, 0) << "its parser throws";
        EXPECT_THAT(log.end(), HasSubstr(logged(expected.log.body, bodyFor<Query>(expected.number))));
        server.setAnswer(expected.target, "{}");
        const std::size_t before = server.requests().size();
        const auto received = callToTheEnd(expected.method, recordFor<Query>(expected.number));
        expectPosted(server, before, expected.target, bodyFor<Query>(expected.number));
        ASSERT_EQ(received->calls, 1) << "the next request works";
        EXPECT_EQ(received->status, RestStatusSuccess);
        ASSERT_TRUE(received->answer.result);
        EXPECT_TRUE(received->answer.result->isNil());
      });
    }
  });
}

TEST(RestCalls, ThoseWithAnAnswerOfAnotherShapeAreNeverHeardOf) {
  inRestNetwork([] {
    ProductServer server;
    server.setAnswer("MAC/ErrorLog.svc/LogError", "[]");
    EXPECT_EQ(callToTheEnd(RestInterface::asyncLogError_withCompiletionHandler, recordFor<LogErrorQuery>(17))->calls, 0);
    server.setAnswer("MAC/ErrorLog.svc/LogError", "{}");
    EXPECT_EQ(callToTheEnd(RestInterface::asyncLogError_withCompiletionHandler, recordFor<LogErrorQuery>(17))->calls, 1);
  });
}

}  // namespace
}  // namespace kestrine::test
