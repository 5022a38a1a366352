// `kestrine events`, as programs and people read it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/foundation/base/FileHandle.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct Event {
  std::string path;
  std::uint64_t id = 0;
  std::uint64_t flags = 0;
  std::vector<std::string> names;
};

std::vector<Event> eventsIn(const std::string& output) {
  std::vector<Event> events;
  std::istringstream stream(output);
  std::string line;
  std::getline(stream, line);
  while (std::getline(stream, line)) {
    rapidjson::Document document;
    EXPECT_FALSE(document.Parse(line.c_str()).HasParseError()) << line;
    EXPECT_TRUE(document.HasMember("id")) << line;
    Event event;
    event.path = document.HasMember("path") ? document["path"].GetString() : "hex:" + std::string(document["path_hex"].GetString());
    event.id = document["id"].GetUint64();
    event.flags = document["flags"].GetUint64();
    for (const auto& name : document["names"].GetArray()) event.names.emplace_back(name.GetString());
    events.push_back(event);
  }
  return events;
}

class EventsCommand : public testing::Test {
 protected:
  EventsCommand() { makeFolder(tree()); }

  [[nodiscard]] std::string tree() const { return sandbox.folder("tree"); }

  void watch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"events", "--json"});
    watcher = std::make_unique<Process>(Sandbox::command(arguments), sandbox.options());
    ASSERT_TRUE(watcher->waitForOutput("}\n", kLongEnough)) << watcher->errorOutput();
  }
  /// Ends it and returns what it told.
  std::vector<Event> end() {
    watcher->signal(SIGTERM);
    EXPECT_EQ(watcher->wait(), 0) << watcher->errorOutput();
    return eventsIn(watcher->output());
  }
  static const Event* find(const std::vector<Event>& events, const std::string& path) {
    const auto found = std::ranges::find(events, path, &Event::path);
    return found == events.end() ? nullptr : &*found;
  }

  Sandbox sandbox;
  std::unique_ptr<Process> watcher;
};

TEST_F(EventsCommand, SaysFirstThatTheWatchStandsAndThroughWhichSource) {
  watch({tree()});
  EXPECT_THAT(watcher->output(), testing::MatchesRegex("\\{\"ready\": true, \"source\": \"(fanotify|inotify)(\\+inotify)?\"\\}\n"));
  EXPECT_THAT(end(), IsEmpty());
}

TEST_F(EventsCommand, PrintsEachItemWithItsFlags) {
  watch({tree()});
  writeFile(tree() + "/hello", "world");
  ASSERT_TRUE(watcher->waitForOutput("/hello\"}\n", kLongEnough));
  const std::vector<Event> events = end();
  const Event* event = find(events, tree() + "/hello");
  ASSERT_NE(event, nullptr);
  EXPECT_NE(event->id, 0U);
  EXPECT_EQ(event->flags & 0x10100, 0x10100U);
  EXPECT_THAT(event->names, Contains("ItemCreated"));
  EXPECT_THAT(event->names, Contains("ItemIsFile"));
}

TEST_F(EventsCommand, PrintsWhatWasPendingWhenItIsToldToEnd) {
  for (const int signal : {SIGTERM, SIGINT}) {
    watch({"--latency", "3600", tree()});
    for (int i = 0; i < 100; ++i) writeFile(tree() + "/file" + std::to_string(i), "text");
    watcher->signal(signal);
    EXPECT_EQ(watcher->wait(), 0);
    const std::vector<Event> events = eventsIn(watcher->output());
    for (int i = 0; i < 100; ++i) EXPECT_NE(find(events, tree() + "/file" + std::to_string(i)), nullptr) << i;
  }
}

TEST_F(EventsCommand, PrintsFoldersWithoutFileEvents) {
  for (const std::vector<std::string>& options : {std::vector<std::string>{"--no-file-events"}, {"--flags", "0"}, {"--flags=0x2"}}) {
    std::vector<std::string> arguments = options;
    arguments.push_back(tree());
    watch(arguments);
    writeFile(tree() + "/hello", "world");
    ASSERT_TRUE(watcher->waitForOutput("\"id\"", kLongEnough));
    const std::vector<Event> events = end();
    ASSERT_THAT(events, Not(IsEmpty()));
    for (const Event& event : events) EXPECT_EQ(std::filesystem::path(event.path + "/").parent_path(), tree());
    std::filesystem::remove(tree() + "/hello");
  }
}

TEST_F(EventsCommand, LeavesOutEachExcludedPath) {
  for (const char* name : {"a", "b", "ab"}) makeFolder(tree() + "/" + name);
  watch({tree(), "--exclude", tree() + "/a", "--exclude=" + tree() + "/b"});
  for (const char* name : {"a", "b", "ab"}) writeFile(tree() + "/" + name + "/file", "text");
  const std::vector<Event> events = end();
  EXPECT_NE(find(events, tree() + "/ab/file"), nullptr);
  EXPECT_EQ(find(events, tree() + "/a/file"), nullptr);
  EXPECT_EQ(find(events, tree() + "/b/file"), nullptr);
}

TEST_F(EventsCommand, TellsChangesOfTheWatchedPathItself) {
  watch({"--watch-root", "--latency", "0.01", tree()});
  std::filesystem::rename(tree(), tree() + "2");
  ASSERT_TRUE(watcher->waitForOutput("RootChanged", kLongEnough));
  const std::vector<Event> events = end();
  const auto changed = std::ranges::find_if(events, [](const Event& event) { return (event.flags & 0x20) != 0; });
  ASSERT_NE(changed, events.end());
  EXPECT_EQ(changed->path, tree());
}

TEST_F(EventsCommand, PrintsPathsThatAreNoTextAsBytes) {
  watch({tree()});
  writeFile(tree() + "/bad\xff\n", "text");
  std::string hex;
  for (const char c : tree() + "/bad\xff\n") {
    constexpr char kDigits[] = "0123456789abcdef";
    hex += {kDigits[static_cast<unsigned char>(c) >> 4], kDigits[static_cast<unsigned char>(c) & 15]};
  }
  ASSERT_TRUE(watcher->waitForOutput("\"path_hex\": \"" + hex + "\"}\n", kLongEnough));
  EXPECT_NE(find(end(), "hex:" + hex), nullptr);
}

TEST_F(EventsCommand, PrintsReadableLinesAndWatchingOnStandardError) {
  Process people(Sandbox::command({"events", "--no-defer", tree()}), sandbox.options());
  ASSERT_TRUE(people.waitForErrorOutput("watching\n", kLongEnough));
  EXPECT_EQ(people.output(), "");
  writeFile(tree() + "/hello\nworld", "text");
  ASSERT_TRUE(people.waitForOutput("\n", kLongEnough));
  people.signal(SIGINT);
  EXPECT_EQ(people.wait(), 0);
  EXPECT_THAT(people.output(), testing::MatchesRegex("([0-9]+ [A-Za-z,]+ " + tree() + "/hello\\\\x0aworld\n)+"));
}

TEST_F(EventsCommand, TellsWhatChangedSinceAnIdentifierAndThenWhatChangesNow) {
  makeFolder(tree() + "/folder");
  watch({tree()});
  writeFile(tree() + "/before", "text");
  ASSERT_TRUE(watcher->waitForOutput("/before\"}\n", kLongEnough));
  const std::uint64_t last = end().back().id;
  writeFile(tree() + "/folder/meanwhile", "text");

  watch({"--since", std::to_string(last), tree()});
  ASSERT_TRUE(watcher->waitForOutput("HistoryDone", kLongEnough));
  writeFile(tree() + "/now", "text");
  ASSERT_TRUE(watcher->waitForOutput("/now\"}\n", kLongEnough));
  const std::vector<Event> events = end();
  const auto placeOf = [&](const Event* event) {
    return event == nullptr ? events.size() : static_cast<std::size_t>(event - events.data());
  };
  const auto done = std::ranges::find_if(events, [](const Event& event) { return (event.flags & 0x10) != 0; });
  ASSERT_NE(done, events.end());
  EXPECT_EQ(done->path, tree());
  EXPECT_EQ(std::ranges::count_if(events, [](const Event& event) { return (event.flags & 0x10) != 0; }), 1);
  const std::size_t divide = placeOf(&*done);
  EXPECT_LT(placeOf(find(events, tree() + "/folder/meanwhile")), divide) << watcher->output();
  EXPECT_GT(placeOf(find(events, tree() + "/now")), divide) << watcher->output();
  ASSERT_NE(find(events, tree() + "/now"), nullptr);
  EXPECT_GT(find(events, tree() + "/now")->id, last);
  for (const Event& event : events) EXPECT_EQ(event.flags & 1, 0U) << event.path;
}

TEST_F(EventsCommand, AsksForALookThroughWhereAnIdentifierLeadsNowhere) {
  struct Nowhere {
    std::string identifier;
    std::string reason;
  };
  // Of the year 2096, and of none.
  for (const Nowhere& nowhere : {Nowhere{std::to_string(std::uint64_t{4'000'000'000'000} << 22U), "the clock is behind the identifier"},
                                 Nowhere{"1", "never given out"}}) {
    watch({"--since", nowhere.identifier, tree()});
    ASSERT_TRUE(watcher->waitForOutput("HistoryDone", kLongEnough)) << watcher->output();
    ASSERT_TRUE(watcher->waitForOutput("{\"recovered\": {\"path\": \"" + tree() + "\"}}\n", kLongEnough)) << watcher->output();
    EXPECT_THAT(watcher->output(),
                testing::ContainsRegex("\\{\"loss\": \\{\"path\": \"" + tree() + "\", \"reason\": \"[^\"]*" + nowhere.reason));
    EXPECT_THAT(watcher->output(), HasSubstr("\"MustScanSubDirs\""));
    watcher->signal(SIGTERM);
    EXPECT_EQ(watcher->wait(), 0) << watcher->errorOutput();
  }
}

TEST_F(EventsCommand, EndsQuietlyWhenItsReaderGoes) {
  const std::string script =
      "exec 3>&1; { '" KESTRINE_COMMAND "' events --json '" + tree() + "'; echo \"ended with $?\" >&3; } | read -r line; exit 0";
  Process shell({"bash", "-c", script}, sandbox.options());
  int i = 0;
  ASSERT_TRUE(eventually(
      [&] {
        writeFile(tree() + "/file" + std::to_string(i++), "text");
        return shell.output().find("ended with 0") != std::string::npos;
      },
      kLongEnough))
      << shell.errorOutput();
  EXPECT_THAT(shell.errorOutput(), Not(HasSubstr("kestrine: ")));
}

TEST_F(EventsCommand, EndsAlsoWhenItsReaderDoesNotRead) {
  const std::string fifo = sandbox.folder("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const platform::FileHandle reader(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
  Process shell({"sh", "-c", "exec '" KESTRINE_COMMAND "' events --json '" + tree() + "' >'" + fifo + "'"}, sandbox.options());
  int waiting = 0;
  ASSERT_TRUE(eventually([&] { return ioctl(reader.fileDescriptor(), FIONREAD, &waiting) == 0 && waiting > 0; }, kLongEnough))
      << shell.errorOutput();
  // Several times what a pipe holds (pipe(7)).
  for (int i = 0; i < 2000; ++i) writeFile(tree() + "/" + std::string(200, 'x') + std::to_string(i), "");
  shell.signal(SIGTERM);
  EXPECT_EQ(shell.wait(), 1);
  EXPECT_THAT(shell.errorOutput(), HasSubstr("standard output could not be written: its reader does not read"));
}

}  // namespace
}  // namespace kestrine::test
