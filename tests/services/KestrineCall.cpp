// The command that tries a server by hand, as a second process against a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/ExpectedCalls.h"
#include "tests/services/ExpectedKeys.h"
#include "tests/services/ProductServer.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using testing::HasSubstr;

/// Runs `kestrine call` with a home of its own.
class Caller {
 public:
  Outcome call(const std::vector<std::string>& words, const std::string& standardInput = {}) const {
    std::vector<std::string> command = {KESTRINE_COMMAND, "call"};
    command.insert(command.end(), words.begin(), words.end());
    return runToEnd(command, {.environment = {{"HOME", home_.path()}, {"XDG_CONFIG_HOME", home_ / "config"}},
                              .directory = home_.path(),
                              .standardInput = standardInput});
  }
  [[nodiscard]] std::string file(const std::string& name) const { return home_ / name; }

 private:
  TemporaryDirectory home_;
};

std::string nameIn(const std::string& target) {
  const std::string last = target.substr(target.rfind('/') + 1);
  return last.substr(0, last.find('%'));
}

/// The ways in which an operation can be called, in turn.
template <class Call>
std::string wordFor(const Call& expected) {
  switch (expected.number % 3) {
    case 0:
      return std::to_string(expected.number);
    case 1:
      return expected.selector;
    default:
      return nameIn(expected.target);
  }
}

template <class Record>
Dictionary answerOf(Dictionary& result) {
  Dictionary answer;
  for (const auto& [property, member, key] : readKeys<Record>()) {
    if (!key || answer.size() == 2) continue;  // the rest stays unset
    answer.emplace(*key, answer.empty() ? Object::null() : Object("a " + property));
    result.emplace(property, answer.at(*key));
  }
  return answer;
}

Object success(const std::string& target, Object result) {
  return Dictionary{{"operation", nameIn(target)},
                    {"status", Object::numberWithLongLong(0)},
                    {"statusName", "RestStatusSuccess"},
                    {"result", std::move(result)}};
}

TEST(KestrineCall, CallsEveryOperationThatAnswersWithARecord) {
  inRestNetwork([] {
    ProductServer server;
    const Caller caller;
    std::set<int> called;
    const auto callOne = [&]<class Query>(const auto& expected, SentKeys<Query> keys, const Object& result) {
      SCOPED_TRACE(expected.selector);
      std::vector<std::string> words = {wordFor(expected), "--json", "--os", expected.number % 2 == 0 ? "10.9.5" : "14.0"};
      Dictionary body;
      for (const auto& [property, member, key] : keys) {
        words.push_back(property + "=v=" + property + " \xC3\xA9");
        body.emplace(*key, "v=" + property + " \xC3\xA9");
      }
      const std::size_t before = server.requests().size();
      const Outcome outcome = caller.call(words);
      ASSERT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
      EXPECT_EQ(platform::readJSON(outcome.output), success(expected.target, result));
      ASSERT_EQ(server.requests().size(), before + 1);
      EXPECT_EQ(server.requests().back().method, "POST");
      EXPECT_EQ(server.requests().back().target, kBasePath + expected.target);
      EXPECT_EQ(platform::readJSON(server.requests().back().body), Object(body));
      called.insert(expected.number);
    };
    forEachRecordCall([&]<class Query, class Record>(const ExpectedCall<Query, Record>& expected) {
      Dictionary result;
      server.setAnswer(expected.target, platform::jsonText(answerOf<Record>(result)));
      callOne(expected, sentKeys<Query>(), result);
    });
    server.setAnswer(kTransferDataCall.target, R"({"ReturnStatus":1,"OwnerComputers":[{"IsAdmin":"1"},{}]})");
    callOne(kTransferDataCall, sentKeys<GetSharedFilesTransferDataQuery>(),
            platform::readJSON(R"({"ReturnStatus":1,"OwnerComputersArray":[{"isAdmin":"1"},{}],"fileToTransferArray":[],
                                   "RecFileFromTransferArray":[],"SharedfoldersWithStatusArray":[]})"));
    EXPECT_EQ(called.size(), 34U);
  });
}

TEST(KestrineCall, SaysWhenAnOperationEndsWithoutAnAnswer) {
  inRestNetwork([] {
    ProductServer server;
    const Caller caller;
    forEachStatusCall([&](const auto& expected) {
      server.setAnswer(expected.target, "{}");
      const Outcome nothing = caller.call({nameIn(expected.target)});
      EXPECT_EQ(nothing.status, 0) << nothing.errorOutput;
      EXPECT_EQ(nothing.output, "status 0 RestStatusSuccess\nresult = unset\n");
      server.setAnswer(expected.target, R"({"ReturnStatus":"1"})");
      const Outcome thrown = caller.call({nameIn(expected.target)});
      EXPECT_EQ(thrown.status, 1);
      EXPECT_THAT(thrown.errorOutput, HasSubstr("kestrine: the operation ended without an answer"));
    });
    for (const char* name : {"GetTopFileUploadWithStream", "UpdateFileRequestWithStream"}) {
      const Outcome outcome = caller.call({name, "--os", "10.9"});
      EXPECT_EQ(outcome.status, 1);
      EXPECT_THAT(outcome.errorOutput, HasSubstr("kestrine: the operation ended without an answer"));
    }
  });
}

TEST(KestrineCall, TakesABatchFromAFileAndFromItsInput) {
  inRestNetwork([] {
    ProductServer server;
    server.setAnswer(kBatchCall.target, R"([{"FileID":"7"},{"ReturnStatus":null}])");
    const Caller caller;
    const std::string batch = R"([{"changeType":"1","fileID":null},{"fullPath":"/2"}])";
    writeFile(caller.file("batch.json"), batch);
    for (const Outcome& outcome : {caller.call({"SyncFilesInTableAndCloud", "@batch.json"}), caller.call({"11", "-"}, batch)}) {
      EXPECT_EQ(outcome.status, 0) << outcome.errorOutput;
      EXPECT_EQ(outcome.output,
                "status 0 RestStatusSuccess\n"
                "[0].fileId = \"7\"\n[0].returnStatus = unset\n[0].baseSystemFileID = unset\n[0].error = unset\n"
                "[1].fileId = unset\n[1].returnStatus = null\n[1].baseSystemFileID = unset\n[1].error = unset\n");
    }
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    for (const auto& request : requests) {
      EXPECT_EQ(platform::readJSON(request.body), platform::readJSON(R"([{"ChangeType":"1"},{"FullPath":"/2"}])"));
    }
    const auto refused = [&](const std::string& input, const std::string& text) {
      const Outcome outcome = caller.call({"SyncFilesInTableAndCloud", "-"}, input);
      EXPECT_NE(outcome.status, 0);
      EXPECT_THAT(outcome.errorOutput, HasSubstr(text));
    };
    refused("[", "is no JSON, at byte 1");
    refused("{}", "holds no JSON array");
    refused("[1]", "element 0 is no JSON object");
    refused(R"([{},{"fileID":7}])", "'fileID' of element 1 is no text");
    refused(R"([{"fileId":"7"}])", "has no property 'fileId'; did you mean 'fileID'");
    EXPECT_EQ(server.requests().size(), 2U) << "nothing else was sent";
  });
}

TEST(KestrineCall, CallsTheStreamOperations) {
  inRestNetwork([] {
    ProductServer server;
    const Caller caller;
    server.setAnswer(kStreamTarget, Answer{.body = "raw\n", .headers = {{"Content-Type", "text/plain"}}});
    const Outcome download = caller.call({kStreamSelector, "toComputerId=7", "--output", "data"});
    EXPECT_EQ(download.status, 0) << download.errorOutput;
    EXPECT_EQ(download.output, "status 0 RestStatusSuccess\nstatusCode = 200\nMIMEType = \"text/plain\"\nlength = 4\n");
    EXPECT_EQ(readFile(caller.file("data")), "raw\n");

    const TemporaryDirectory folder;
    writeFile(folder / "up", "content");
    server.setAnswer(kUploadCall.target, R"({"ReturnStatus":"1"})");
    const Outcome upload = caller.call({"16", "filePath=" + folder.path().substr(1) + "/up", "fileRequestId=1", "transitDownloadPath=2"});
    EXPECT_EQ(upload.status, 0) << upload.errorOutput;
    EXPECT_EQ(upload.output, "status 0 RestStatusSuccess\nReturnStatus = \"1\"\nerror = unset\n");
    EXPECT_THAT(upload.errorOutput, HasSubstr("through a copy of the same name in the home folder"));
    EXPECT_EQ(server.requests().back().body, "content");
  });
}

TEST(KestrineCall, PrintsWhatTheTransportSays) {
  inRestNetwork([] {
    const Caller caller;
    const Outcome refused = caller.call({"LogError", "errorClass=c"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.output, HasSubstr("status 2 RestStatusNetworkError\nerror Error Domain=NSURLErrorDomain Code=-1004 "));
    ProductServer server;
    server.setAnswer("MAC/ErrorLog.svc/LogError", "no JSON");
    const Outcome unread = caller.call({"LogError", "errorClass=c", "--json", "--os", "10.8"});
    EXPECT_EQ(unread.status, 1);
    const Object printed = platform::readJSON(unread.output);
    EXPECT_EQ(printed.objectForKey("status"), Object::numberWithLongLong(5));
    EXPECT_EQ(printed.objectForKey("statusName"), Object("RestStatusResponseParseError"));
    EXPECT_FALSE(printed.objectForKey("error").objectForKey("description").stringValue().empty());
    const Outcome incomplete = caller.call({"LogError", "errorClass=c", "--os", "10.7.5"});
    EXPECT_EQ(incomplete.status, 1);
    EXPECT_THAT(incomplete.errorOutput, HasSubstr("nothing to store under \"ErrorMethod\""));
  });
}

TEST(KestrineCall, SaysThatThereIsNoNetwork) {
  inNetworkNamespace([] {
    const Outcome outcome = Caller().call({"LogError", "errorClass=c"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "status 1 RestStatusNotReachable\n");
  });
}

TEST(KestrineCall, ReadsAValueFromAFile) {
  inRestNetwork([] {
    ProductServer server;
    const Caller caller;
    writeFile(caller.file("password"), "s3cret=@x\n");
    EXPECT_EQ(caller.call({"VerifyAndRegisterUserFromTool", "passWord=@password", "mailId=@@me", "nickName="}).status, 0);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(platform::readJSON(server.requests()[0].body),
              Object(Dictionary{{"Password", "s3cret=@x"}, {"MailID", "@me"}, {"NickName", ""}}));
    const Outcome missing = caller.call({"VerifyAndRegisterUserFromTool", "passWord=@nowhere"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.errorOutput, HasSubstr("'nowhere' cannot be read: No such file"));
  });
}

TEST(KestrineCall, NamesTheNearestForWhatItDoesNotKnow) {
  struct Refused {
    std::vector<std::string> words;
    std::string text;
  };
  const Caller caller;
  for (const Refused& refused : {Refused{{}, "call: which operation? 'kestrine call --list' names them"},
                                 {{"LogErorr"}, "unknown operation 'LogErorr'; did you mean 'LogError'?"},
                                 {{"updatefileexist"}, "is not PROPERTY=VALUE"},
                                 {{"zzzzzzzz"}, "unknown operation 'zzzzzzzz'; 'kestrine call --list' names them"},
                                 {{"40"}, "unknown operation '40'"},
                                 {{"LogError", "errorclass=1"}, "LogError has no property 'errorclass'; did you mean 'errorClass'"},
                                 {{"LogError", "userid=1"}, "did you mean 'userId'"},
                                 {{"LogError", "x=1"}, "it takes errorClass, errorMethod, errorMessage, computerId, userId"},
                                 {{"LogError", "userId=1", "userId=2"}, "'userId' is given twice"},
                                 {{"LogError", "userId"}, "'userId' is not PROPERTY=VALUE"},
                                 {{"SyncFilesInTableAndCloud", "fileID=1"}, "takes a JSON array of objects"},
                                 {{"LogError", "--os", "lion"}, "'--os lion' is no version"}}) {
    std::vector<std::string> words = refused.words;
    if (!words.empty() && words[0] == "updatefileexist") words.emplace_back("no property");
    const Outcome outcome = caller.call(words);
    EXPECT_EQ(outcome.status, 2) << refused.text;
    EXPECT_THAT(outcome.errorOutput, HasSubstr(refused.text));
    EXPECT_EQ(outcome.output, "");
  }
}

TEST(KestrineCall, ListsEveryOperationWithItsProperties) {
  const Caller caller;
  const Object list = platform::readJSON(caller.call({"--list", "--json"}).output);
  ASSERT_EQ(list.count(), 39U);
  const std::string text = caller.call({"--list"}).output;
  EXPECT_EQ(std::ranges::count(text, '\n'), 39);
  const auto check = [&]<class Query>(const auto& expected, const SentKeys<Query>& keys) {
    const Object row = list.objectAtIndex(static_cast<std::size_t>(expected.number - 1));
    EXPECT_EQ(row.objectForKey("number"), Object::numberWithLongLong(expected.number));
    EXPECT_EQ(row.objectForKey("selector"), Object(expected.selector));
    EXPECT_EQ(row.objectForKey("name"), Object(nameIn(expected.target)));
    Array properties;
    std::string words;
    for (const auto& key : keys) {
      properties.emplace_back(key.property);
      words += " " + key.property;
    }
    EXPECT_EQ(row.objectForKey("properties"), Object(properties));
    EXPECT_THAT(text, HasSubstr("  " + nameIn(expected.target) + " "));
    EXPECT_THAT(text, HasSubstr(words)) << expected.selector;
  };
  forEachRecordCall([&]<class Query, class Record>(const ExpectedCall<Query, Record>& expected) { check(expected, sentKeys<Query>()); });
  forEachStatusCall([&]<class Query, class Result>(const ExpectedCall<Query, Result>& expected) { check(expected, sentKeys<Query>()); });
  check(kBatchCall, sentKeys<SyncFilesInTableAndCloudQuery>());
  check(kUploadCall, sentKeys<UpdateFileRequestQuery>());
  check(kTransferDataCall, sentKeys<GetSharedFilesTransferDataQuery>());
}

}  // namespace
}  // namespace kestrine::test
