#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;

struct Typed {
  std::vector<std::string> options;
  std::string value;
  Object stored;
  std::string read;
};

TEST(DefaultsCommand, StoresEachTypeAndReadsItBack) {
  const Typed kTyped[] = {
      {{}, "/home/me", "/home/me", "/home/me\n"},
      {{}, "", "", "\n"},
      {{"--type", "string"}, "7", "7", "7\n"},
      {{"--type", "int"}, "-7", Object::numberWithLongLong(-7), "-7\n"},
      {{"--type=float"}, "2.5", Object::numberWithDouble(2.5), "2.5\n"},
      {{"--type", "bool"}, "yes", Object::numberWithBool(true), "1\n"},
      {{"--type", "bool"}, "false", Object::numberWithBool(false), "0\n"},
  };
  const Sandbox sandbox;
  for (const Typed& typed : kTyped) {
    std::vector<std::string> write = {"defaults"};
    write.insert(write.end(), typed.options.begin(), typed.options.end());
    write.insert(write.end(), {"--", "write", "Some.Domain", "key", typed.value});
    EXPECT_EQ(sandbox.run(write).status, 0) << typed.read;
    EXPECT_EQ(sandbox.defaults("Some.Domain", "key"), typed.stored) << typed.read;
    const Outcome read = sandbox.run({"defaults", "read", "Some.Domain", "key"});
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(read.output, typed.read);
  }
}

TEST(DefaultsCommand, ListsReadsAndDeletesKeysAndDomains) {
  const Sandbox sandbox;
  EXPECT_EQ(sandbox.run({"defaults", "list"}).output, "");
  ASSERT_EQ(sandbox.run({"defaults", "write", "B", "one", "1"}).status, 0);
  ASSERT_EQ(sandbox.run({"defaults", "write", "B", "two", "2"}).status, 0);
  ASSERT_EQ(sandbox.run({"defaults", "write", "A", "three", "3"}).status, 0);
  EXPECT_EQ(sandbox.run({"defaults", "list"}).output, "A\nB\n");
  EXPECT_EQ(sandbox.run({"defaults", "list", "B"}).output, "one\ntwo\n");
  const Outcome whole = sandbox.run({"defaults", "read", "B"});
  EXPECT_THAT(whole.output, HasSubstr("one = 1;"));
  EXPECT_THAT(whole.output, HasSubstr("two = 2;"));

  EXPECT_EQ(sandbox.run({"defaults", "delete", "B", "one"}).status, 0);
  EXPECT_EQ(sandbox.run({"defaults", "list", "B"}).output, "two\n");
  EXPECT_EQ(sandbox.run({"defaults", "delete", "B"}).status, 0);
  EXPECT_EQ(sandbox.run({"defaults", "list"}).output, "A\n");
}

TEST(DefaultsCommand, SaysWhichDomainOrKeyIsMissing) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Known", "key", "value"}).status, 0);
  for (const char* action : {"read", "delete", "list"}) {
    const Outcome outcome = sandbox.run({"defaults", action, "Unknown"});
    EXPECT_EQ(outcome.status, 8) << action;
    EXPECT_THAT(outcome.errorOutput, HasSubstr("no preferences domain 'Unknown'; 'kestrine defaults list' names those that exist"));
  }
  for (const char* action : {"read", "delete"}) {
    const Outcome outcome = sandbox.run({"defaults", action, "Known", "other"});
    EXPECT_EQ(outcome.status, 8) << action;
    EXPECT_THAT(outcome.errorOutput, HasSubstr("no key 'other' in domain 'Known'; 'kestrine defaults list Known' names its keys"));
  }
}

TEST(DefaultsCommand, SaysWhenPreferencesCannotBeWritten) {
  const Sandbox sandbox;
  // A file where the folder should be stops root too.
  writeFile(sandbox.preferences(), "no folder");
  const Outcome outcome = sandbox.run({"defaults", "write", "Domain", "key", "value"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("Domain.plist' cannot be written"));
}

TEST(DefaultsCommand, TellsADamagedDomainFromAMissingOneHoweverOftenItIsAsked) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Damaged", "key", "value"}).status, 0);
  const std::string path = sandbox.preferences() + "/Damaged.plist";
  writeFile(path, "no property list");
  for (int i = 0; i < 2; ++i) {
    for (const std::vector<std::string>& rest :
         {std::vector<std::string>{"read", "Damaged"}, {"read", "Damaged", "key"}, {"list", "Damaged"}, {"delete", "Damaged", "key"}}) {
      std::vector<std::string> command = {"defaults"};
      command.insert(command.end(), rest.begin(), rest.end());
      const Outcome outcome = sandbox.run(command);
      EXPECT_EQ(outcome.status, 9) << rest.front();
      EXPECT_THAT(outcome.errorOutput, HasSubstr("Damaged.plist' holds no preferences: text between elements"));
    }
  }
  EXPECT_EQ(readFile(path), "no property list");
  // What is written takes its place, and what is deleted goes; a copy of the damaged file stays.
  EXPECT_EQ(sandbox.run({"defaults", "write", "Damaged", "key", "new"}).status, 0);
  EXPECT_EQ(sandbox.run({"defaults", "read", "Damaged", "key"}).output, "new\n");
  EXPECT_EQ(readFile(path + ".corrupt"), "no property list");
  writeFile(path, "no property list again");
  EXPECT_EQ(sandbox.run({"defaults", "delete", "Damaged"}).status, 0);
  EXPECT_EQ(readFile(path + ".corrupt.2"), "no property list again");
  EXPECT_EQ(sandbox.run({"defaults", "read", "Damaged"}).status, 8);
}

TEST(DefaultsCommand, DoesNotWaitForAPipe) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Other", "key", "value"}).status, 0);
  ASSERT_EQ(mkfifo((sandbox.preferences() + "/Pipe.plist").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((sandbox.preferences() + "/Locked.plist.lock").c_str(), 0600), 0);
  for (const std::vector<std::string>& rest : {std::vector<std::string>{"read", "Pipe"},
                                               {"list", "Pipe"},
                                               {"write", "Pipe", "key", "value"},
                                               {"delete", "Pipe"},
                                               {"write", "Locked", "key", "value"}}) {
    std::vector<std::string> command = {"defaults"};
    command.insert(command.end(), rest.begin(), rest.end());
    EXPECT_EQ(sandbox.run(command).status, 1) << rest.front() << " " << rest[1];
  }
}

TEST(DefaultsCommand, TellsAForbiddenFileFromAMissingOne) {
  if (geteuid() == 0) GTEST_SKIP() << "left out: a preferences file without permission, because root may read every file";
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Secret", "key", "value"}).status, 0);
  ASSERT_EQ(chmod((sandbox.preferences() + "/Secret.plist").c_str(), 0), 0);
  const Outcome outcome = sandbox.run({"defaults", "read", "Secret"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("Secret.plist' cannot be read: Permission denied"));
}

}  // namespace
}  // namespace kestrine::test
