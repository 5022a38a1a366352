#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>

#include "app/commands/StatusText.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using testing::HasSubstr;
using testing::Not;

TEST(StatusCommand, SaysWhenTheServiceIsNotRunningAndDoesNotStartIt) {
  const Sandbox sandbox;
  for (int i = 0; i < 3; ++i) {
    const Outcome text = sandbox.run({"status"});
    EXPECT_EQ(text.status, 3);
    EXPECT_THAT(text.output, HasSubstr("not running; 'kestrine start' starts it"));
    EXPECT_THAT(text.output, HasSubstr("not raised"));
    const Outcome json = sandbox.run({"status", "--json"});
    EXPECT_EQ(json.status, 3);
    rapidjson::Document document;
    ASSERT_FALSE(document.Parse(json.output.c_str()).HasParseError()) << json.output;
    EXPECT_FALSE(document["running"].GetBool());
    EXPECT_FALSE(document["flagRaised"].GetBool());
    EXPECT_TRUE(document["flag"].IsNull());
    EXPECT_TRUE(document["base"].IsNull());
    EXPECT_FALSE(document.HasMember("pid"));
  }
}

TEST(StatusCommand, TellsWhatTheServiceWatches) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  sandbox.setFlag("1");
  const Outcome text = sandbox.run({"status"});
  EXPECT_EQ(text.status, 0);
  for (const std::string& part : {std::string("running, process "), "standing, '" + sandbox.watched() + "'", std::string("  source "),
                                  std::string("  folders marked "), std::string("  events "), std::string("  losses          none"),
                                  std::string("flag              raised"), "base              '" + sandbox.base() + "'"}) {
    EXPECT_THAT(text.output, HasSubstr(part));
  }

  const Outcome json = sandbox.run({"status", "--json"});
  EXPECT_EQ(json.status, 0);
  rapidjson::Document document;
  ASSERT_FALSE(document.Parse(json.output.c_str()).HasParseError()) << json.output;
  EXPECT_TRUE(document["running"].GetBool());
  EXPECT_TRUE(document["answers"].GetBool());
  signalProcess(document["pid"].GetInt(), 0);
  EXPECT_THAT(document["startedAt"].GetString(), testing::MatchesRegex("[0-9-]+T[0-9:]+\\.[0-9]+Z"));
  EXPECT_STREQ(document["flag"].GetString(), "1");
  EXPECT_TRUE(document["flagRaised"].GetBool());
  EXPECT_EQ(document["base"].GetString(), sandbox.base());
  ASSERT_EQ(document["watches"].Size(), 1U);
  EXPECT_EQ(document["watches"][0]["folder"].GetString(), sandbox.watched());
  EXPECT_STREQ(document["watches"][0]["state"].GetString(), "standing");
  ASSERT_EQ(document["streams"].Size(), 1U);
  EXPECT_GE(document["streams"][0]["foldersMarked"].GetInt(), 1);
}

TEST(StatusCommand, TellsAServiceThatDoesNotAnswerFromOneThatDoesNotRun) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  const pid_t service = sandbox.service();
  stopProcess(service);
  const Outcome outcome = sandbox.run({"status"});
  signalProcess(service, SIGCONT);
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.output, HasSubstr("running, process " + std::to_string(service) + ", but it does not answer"));
}

TEST(StatusCommand, SaysWhenTheServiceRunsWithoutAWatch) {
  const Sandbox sandbox;
  Process service({KESTRINE_SERVICE}, sandbox.options());
  ASSERT_TRUE(eventually([&] { return sandbox.service() == service.pid(); }, kLongEnough)) << service.errorOutput();
  const Outcome outcome = sandbox.run({"status"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.output, HasSubstr("none; 'kestrine start' asks for one"));
}

/// A status that no service of ours would send.
ServiceStatus statusWith(const Array& streams) {
  ServiceStatus status;
  status.process = 7;
  status.report.emplace();
  status.report->process = 7;
  status.report->watches = {{1, "/a", "standing", ""}, {2, "/a", "standing", ""}, {3, "/b", "failed", "too many watches"}};
  status.report->streams = streams;
  status.report->all = Dictionary{{"streams", streams}};
  return status;
}

Object loss(const std::string& reason, const std::string& path, std::int64_t count, bool lasting) {
  return Dictionary{{"reason", reason},
                    {"remedy", lasting ? "do something" : ""},
                    {"path", path},
                    {"count", Object::numberWithLongLong(count)},
                    {"lasting", Object::numberWithBool(lasting)}};
}

Object stream(const std::string& path, const std::string& source) {
  return Dictionary{{"paths", Array{path}},
                    {"source", source},
                    {"losses", Array{loss("kernel queue overflow", path, 3, false)}},
                    {"polled", Array{"/", "/above"}}};
}

TEST(StatusText, GivesEachWatchItsOwnStreamAndTellsEachLoss) {
  const std::string text = statusText(statusWith({stream("/a", "fanotify"), stream("/a", "inotify")}));
  EXPECT_LT(text.find("fanotify"), text.find("watch 2"));
  EXPECT_GT(text.find("inotify"), text.find("watch 2"));
  EXPECT_THAT(text, HasSubstr("losses          3 times: kernel queue overflow ('/a')"));
  EXPECT_THAT(text, HasSubstr("polled above    /, /above"));
  EXPECT_THAT(text, Not(HasSubstr("lost now")));
  EXPECT_THAT(text, HasSubstr("failed, '/b': too many watches"));
}

TEST(StatusText, NamesWhatIsLostNowByReasonWithTheRemedy) {
  Array losses = {loss("it does not answer", "/a/far", 1, true), loss("overflow", "/a", 2, false)};
  for (char name = '0'; name <= '9'; ++name) losses.push_back(loss("no permission", std::string("/a/") + name, 1, true));
  Dictionary entries = stream("/a", "fanotify").dictionaryValue();
  entries["losses"] = losses;
  entries["lossesNotShown"] = Object::numberWithLongLong(12);
  const std::string text = statusText(statusWith({entries}));
  EXPECT_THAT(text, HasSubstr("lost now        '/a/far': it does not answer; do something\n"));
  EXPECT_THAT(
      text,
      HasSubstr(
          "lost now        '/a/0', '/a/1', '/a/2', '/a/3', '/a/4', '/a/5', '/a/6', '/a/7' and 2 more: no permission; do something\n"));
  EXPECT_THAT(text, HasSubstr("lost now        12 more places\n"));
  EXPECT_THAT(text, HasSubstr("losses          2 times: overflow ('/a')\n"));
}

TEST(StatusText, ShowsWhatIsPolledAndWhatServesEachPath) {
  Dictionary entries = stream("/a", "fanotify+inotify").dictionaryValue();
  entries["regions"] = Array{Dictionary{{"path", "/a/b"},
                                        {"folders", Object::numberWithLongLong(900)},
                                        {"interval", Object::numberWithDouble(2.25)},
                                        {"reason", "the limit of fanotify marks is reached"}}};
  entries["trees"] = Array{Dictionary{{"path", "/a"}, {"source", "fanotify"}}};
  std::string text = statusText(statusWith({entries}));
  EXPECT_THAT(text, HasSubstr("polled          '/a/b': 900 folders every 2.2 s: the limit of fanotify marks is reached\n"));
  EXPECT_THAT(text, Not(HasSubstr("  served")));  // it has one tree only
  entries["trees"] = Array{Dictionary{{"path", "/a"}, {"source", "fanotify"}}, Dictionary{{"path", "/a/mnt"}, {"source", "inotify"}}};
  text = statusText(statusWith({entries}));
  EXPECT_THAT(text, HasSubstr("served          '/a' by fanotify\n"));
  EXPECT_THAT(text, HasSubstr("served          '/a/mnt' by inotify\n"));
}

TEST(StatusText, SurvivesValuesOfTheWrongKind) {
  const Object number = Object::numberWithLongLong(1);
  const Array streams = {Dictionary{{"paths", number}, {"losses", number}, {"source", Dictionary{}}},
                         Dictionary{{"paths", Array{number}}, {"losses", Array{number, Dictionary{}}}},
                         Dictionary{{"paths", Array{"/a"}},
                                    {"losses", Array{number, Dictionary{{"lasting", "yes"}, {"count", Array{}}, {"remedy", number}}}},
                                    {"lossesNotShown", Array{}},
                                    {"regions", Array{number, Dictionary{{"interval", "often"}}}},
                                    {"trees", Array{number, Dictionary{}, Dictionary{{"path", number}}}},
                                    {"polled", number}}};
  const std::string text = statusText(statusWith(streams));
  EXPECT_THAT(text, HasSubstr("watch 1"));
  EXPECT_THAT(text, Not(HasSubstr("3 times")));
}

TEST(StatusText, HoldsAnyBytesAndDatesInJson) {
  ServiceStatus status = statusWith({stream("/\xff", "fanotify")});
  status.report->all = Dictionary{{"streams", Array{stream("/\xff", "fanotify")}}, {"at", platform::Date{1.5}}};
  const Object object = statusObject(status);
  EXPECT_EQ(object.objectForKey("streams").objectAtIndex(0).objectForKey("paths").objectAtIndex(0), Object(Dictionary{{"hex", "2fff"}}));
  EXPECT_EQ(object.objectForKey("at"), Object("1970-01-01T00:00:01.500Z"));
}

}  // namespace
}  // namespace kestrine::test
