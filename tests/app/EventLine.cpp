#include "app/commands/EventLine.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrine::test {
namespace {

using platform::FSEvent;

struct Line {
  FSEvent event;
  std::string json;
  std::string text;
};

const Line kLines[] = {
    {{"/a/b", 0x10100, 7},
     R"({"id": 7, "flags": 65792, "names": ["ItemCreated", "ItemIsFile"], "path": "/a/b"})",
     "7 ItemCreated,ItemIsFile /a/b"},
    {{"/a", 0, 18446744073709551614U},
     R"({"id": 18446744073709551614, "flags": 0, "names": [], "path": "/a"})",
     "18446744073709551614 - /a"},
    {{"/a", 1, 8}, R"({"id": 8, "flags": 1, "names": ["MustScanSubDirs"], "path": "/a"})", "8 MustScanSubDirs /a"},
    {{"/é日😀", 0x200, 1}, R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path": "/é日😀"})", "1 ItemRemoved /é日😀"},
    {{"/q\"b\\n\nt\tc\x01\x7f", 0x200, 1},
     R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path": "/q\"b\\n\nt\tc\u0001\u007f"})",
     R"(1 ItemRemoved /q"b\\n\x0at\x09c\x01\x7f)"},
    {{"/a\xff", 0x200, 1}, R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path_hex": "2f61ff"})", R"(1 ItemRemoved /a\xff)"},
    {{"/\xed\xa0\x80", 0x200, 1},
     R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path_hex": "2feda080"})",
     R"(1 ItemRemoved /\xed\xa0\x80)"},
    {{"/\xc0\xaf", 0x200, 1}, R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path_hex": "2fc0af"})", R"(1 ItemRemoved /\xc0\xaf)"},
    {{"/\xe6\x97", 0x200, 1}, R"({"id": 1, "flags": 512, "names": ["ItemRemoved"], "path_hex": "2fe697"})", R"(1 ItemRemoved /\xe6\x97)"},
};

TEST(EventLine, HoldsIdentifierFlagsNamesAndPath) {
  EventLineWriter json(true);
  EventLineWriter text(false);
  for (const Line& line : kLines) {
    for (int again = 0; again < 2; ++again) {
      std::string out = "before\n";
      json.append(out, line.event);
      EXPECT_EQ(out, "before\n" + line.json + "\n");
      out.clear();
      text.append(out, line.event);
      EXPECT_EQ(out, line.text + "\n");
    }
  }
}

struct NoticeLine {
  platform::fsevents::LossNotice notice;
  std::string json;
  std::string text;
};

const NoticeLine kNoticeLines[] = {
    {{true, "/a", "no permission", "chmod it"},
     R"({"loss": {"path": "/a", "reason": "no permission", "remedy": "chmod it"}})",
     "lost /a: no permission; chmod it"},
    {{true, "/a", "it does not answer", ""},
     R"({"loss": {"path": "/a", "reason": "it does not answer", "remedy": ""}})",
     "lost /a: it does not answer"},
    {{false, "/a", "no permission", "chmod it"}, R"({"recovered": {"path": "/a"}})", "recovered /a"},
    {{true, "/a\xff\n", "r\xff", "\"\n"},
     R"({"loss": {"path_hex": "2f61ff0a", "reason": "r\\xff", "remedy": "\"\n"}})",
     R"(lost /a\xff\x0a: r\xff; "\x0a)"},
    {{false, "/a\xff", "", ""}, R"({"recovered": {"path_hex": "2f61ff"}})", R"(recovered /a\xff)"},
};

TEST(EventLine, SaysWhatIsLostWhyAndWhatHelpsAndWhenItIsOver) {
  const EventLineWriter json(true);
  const EventLineWriter text(false);
  for (const NoticeLine& line : kNoticeLines) {
    std::string out = "before\n";
    json.append(out, line.notice);
    EXPECT_EQ(out, "before\n" + line.json + "\n");
    out.clear();
    text.append(out, line.notice);
    EXPECT_EQ(out, line.text + "\n");
  }
}

TEST(EventLine, NeverBreaksALineWhateverTheName) {
  EventLineWriter json(true);
  EventLineWriter text(false);
  for (int byte = 1; byte < 256; ++byte) {
    std::string out;
    json.append(out, {std::string("/x") + static_cast<char>(byte) + "y", 0x100, 1});
    text.append(out, {std::string("/x") + static_cast<char>(byte) + "y", 0x100, 1});
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << byte;
  }
}

}  // namespace
}  // namespace kestrine::test
