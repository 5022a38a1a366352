#include "watcher/CDEvent.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <set>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine::test {
namespace {

using platform::Object;

struct Question {
  const char* name;
  bool (CDEvent::*ask)() const noexcept;
  std::uint32_t bit;
};

constexpr Question kQuestions[] = {
    {"mustRescanSubDirectories", &CDEvent::mustRescanSubDirectories, 0x00000001},
    {"isUserDropped", &CDEvent::isUserDropped, 0x00000002},
    {"isKernelDropped", &CDEvent::isKernelDropped, 0x00000004},
    {"isEventIdentifiersWrapped", &CDEvent::isEventIdentifiersWrapped, 0x00000008},
    {"isHistoryDone", &CDEvent::isHistoryDone, 0x00000010},
    {"isRootChanged", &CDEvent::isRootChanged, 0x00000020},
    {"didVolumeMount", &CDEvent::didVolumeMount, 0x00000040},
    {"didVolumeUnmount", &CDEvent::didVolumeUnmount, 0x00000080},
    {"isCreated", &CDEvent::isCreated, 0x00000100},
    {"isRemoved", &CDEvent::isRemoved, 0x00000200},
    {"isInodeMetadataModified", &CDEvent::isInodeMetadataModified, 0x00000400},
    {"isRenamed", &CDEvent::isRenamed, 0x00000800},
    {"isModified", &CDEvent::isModified, 0x00001000},
    {"isFinderInfoModified", &CDEvent::isFinderInfoModified, 0x00002000},
    {"didChangeOwner", &CDEvent::didChangeOwner, 0x00004000},
    {"isXattrModified", &CDEvent::isXattrModified, 0x00008000},
    {"isFile", &CDEvent::isFile, 0x00010000},
    {"isDir", &CDEvent::isDir, 0x00020000},
    {"isSymlink", &CDEvent::isSymlink, 0x00040000},
};

std::shared_ptr<const CDEvent> eventWithFlags(std::uint32_t flags) {
  return CDEvent::eventWithIdentifier_date_URL_flags(1, platform::Date{0}, platform::URL::URLWithString("file:///w/a"), flags);
}

// The names of the questions that the record answers with yes, the one about no flags included.
std::set<std::string> affirmed(const CDEvent& event) {
  std::set<std::string> names;
  for (const Question& question : kQuestions) {
    if ((event.*question.ask)()) names.insert(question.name);
  }
  if (event.isGenericChange()) names.insert("isGenericChange");
  return names;
}

TEST(CDEvent, AnswersEachQuestionByItsOwnBitAlone) {
  for (const Question& question : kQuestions) {
    EXPECT_EQ(affirmed(*eventWithFlags(question.bit)), std::set<std::string>{question.name});
    EXPECT_FALSE((*eventWithFlags(~question.bit).*question.ask)()) << question.name;
  }
}

TEST(CDEvent, WithoutFlagsIsAGenericChangeAndNothingElse) {
  EXPECT_EQ(affirmed(*eventWithFlags(0)), std::set<std::string>{"isGenericChange"});
}

TEST(CDEvent, OfACreatedFileIsCreatedAndAFile) {
  EXPECT_EQ(affirmed(*eventWithFlags(0x00010100)), (std::set<std::string>{"isCreated", "isFile"}));
}

TEST(CDEvent, OfChangedExtendedAttributesSaysSo) { EXPECT_TRUE(eventWithFlags(0x00008000)->isXattrModified()); }

TEST(CDEvent, WithABitThatNobodyAsksAboutAnswersNoToEverything) { EXPECT_TRUE(affirmed(*eventWithFlags(0x80000000)).empty()); }

TEST(CDEvent, KeepsWhatItWasMadeOf) {
  const auto url = platform::URL::URLWithString("file:///w/a%20b");
  const auto event = CDEvent::eventWithIdentifier_date_URL_flags(0xFFFFFFFFFFFFFFFE, platform::Date{1.5}, url, 0xFFFFFFFF);
  EXPECT_EQ(event->identifier(), 18446744073709551614U);
  EXPECT_EQ(event->date(), platform::Date{1.5});
  EXPECT_EQ(event->URL(), url);
  EXPECT_EQ(event->flags(), 4294967295U);
}

TEST(CDEvent, ArchivesUnderItsFourKeys) {
  const auto event =
      CDEvent::eventWithIdentifier_date_URL_flags(7, platform::Date{1795250280}, platform::URL::URLWithString("file:///w/a"), 0x10100);
  const Object archive = event->encodeWithCoder();
  EXPECT_EQ(archive.count(), 4U);
  EXPECT_EQ(archive.objectForKey("identifier"), Object::numberWithUnsignedLongLong(7));
  EXPECT_EQ(archive.objectForKey("flags"), Object::numberWithUnsignedLongLong(65792));
  EXPECT_EQ(archive.objectForKey("date"), Object(platform::Date{1795250280}));
  EXPECT_EQ(archive.objectForKey("URL"), Object("file:///w/a"));
}

TEST(CDEvent, SurvivesArchivingWithTheLargestIdentifierAndFlags) {
  const auto event = CDEvent::eventWithIdentifier_date_URL_flags(0xFFFFFFFFFFFFFFFE, platform::Date{1795250280.25},
                                                                 platform::URL::URLWithString("file:///w/%C3%A9"), 0xFFFFFFFF);
  const CDEvent restored(event->encodeWithCoder());
  EXPECT_EQ(restored.identifier(), 0xFFFFFFFFFFFFFFFEU);
  EXPECT_EQ(restored.flags(), 0xFFFFFFFFU);
  EXPECT_EQ(restored.date(), event->date());
  EXPECT_EQ(restored.URL(), event->URL());
}

TEST(CDEvent, ReadsAMissingKeyAsZeroOrNothing) {
  const CDEvent event{Object(platform::Dictionary{})};
  EXPECT_EQ(event.identifier(), 0U);
  EXPECT_EQ(event.flags(), 0U);
  EXPECT_FALSE(event.date().has_value());
  EXPECT_FALSE(event.URL().has_value());
  EXPECT_EQ(event.encodeWithCoder(), Object(platform::Dictionary{{"identifier", Object::numberWithUnsignedLongLong(0)},
                                                                 {"flags", Object::numberWithUnsignedLongLong(0)}}));
  EXPECT_EQ(event.description(),
            fmt::format("<CDEvent: {} {{ identifier = 0, URL = (null), flags = 0, date = (null) }}>", fmt::ptr(&event)));
}

TEST(CDEvent, ReadsOnlyTheLower32BitsOfArchivedFlags) {
  const CDEvent event{Object(platform::Dictionary{{"flags", Object::numberWithUnsignedLongLong(0x1'0000'0100)}})};
  EXPECT_EQ(event.flags(), 0x100U);
}

TEST(CDEvent, RefusesAnArchiveWithAValueOfAnotherKind) {
  try {
    const CDEvent event{Object(platform::Dictionary{{"date", Object("yesterday")}})};
    FAIL() << "a text was read as a date";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
  }
}

TEST(CDEvent, IsItsOwnCopy) {
  const auto event = eventWithFlags(1);
  EXPECT_EQ(event->copyWithZone().get(), event.get());
}

TEST(CDEvent, DescribesItselfWithASignedIdentifierAndUnsignedFlags) {
  const auto event = CDEvent::eventWithIdentifier_date_URL_flags(0xFFFFFFFFFFFFFFFE, platform::Date{1795250280.75},
                                                                 platform::URL::URLWithString("file:///w/a%20b"), 0xFFFFFFFF);
  EXPECT_EQ(event->description(),
            fmt::format("<CDEvent: {} {{ identifier = -2, URL = file:///w/a%20b, flags = 4294967295, date = 2026-11-21 08:38:00 +0000 }}>",
                        fmt::ptr(event.get())));
}

}  // namespace
}  // namespace kestrine::test
