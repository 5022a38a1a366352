#include "platform/foundation/value/ObjectFormat.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(FormatObject, PutsDescriptionsInPlace) {
  EXPECT_EQ(formatObject("watcher url  %@", {"/base"}), "watcher url  /base");
  EXPECT_EQ(formatObject("%@%@-%@", {"a", Object::numberWithInt(2), Object::null()}), "a2-<null>");
  EXPECT_EQ(formatObject("%@/Kestrine", {Object()}), "(null)/Kestrine");
  EXPECT_EQ(formatObject("[%@]", {Array{"x"}}), "[(\n    x\n)]");
}

TEST(FormatObject, DoesNotReadWhatItPutIn) { EXPECT_EQ(formatObject("%@ %@", {"%@", "b"}), "%@ b"); }

TEST(FormatObject, SaysNullWhereThereIsNoArgument) {
  EXPECT_EQ(formatObject("%@ %@", {"a"}), "a (null)");
  EXPECT_EQ(formatObject("none", {"a"}), "none");
  EXPECT_EQ(formatObject("", {}), "");
}

TEST(FormatObject, LeavesOtherPercentSigns) {
  EXPECT_EQ(formatObject("100%% %d %", {"a"}), "100% %d %");
  EXPECT_EQ(formatObject("%%@ %@", {"a"}), "%@ a");
  EXPECT_EQ(formatObject("%%%@", {"a"}), "%a");
}

}  // namespace
}  // namespace platform
