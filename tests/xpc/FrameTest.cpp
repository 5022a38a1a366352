#include <fcntl.h>
#include <gtest/gtest.h>

#include "platform/xpc/channel/Frame.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace platform::xpc;
using kestrine::test::frame;
using kestrine::test::little32;
using kestrine::test::nullDescriptors;
using platform::FileHandle;

/// What a reader makes of a stream: "kind:payload size:descriptors" for each frame, and the error.
class Reading {
 public:
  void feed(const std::string& bytes, std::vector<FileHandle> descriptors = {}) {
    reader_.feed(std::as_bytes(std::span(bytes)), std::move(descriptors));
    for (;;) {
      const auto next = reader_.next();
      if (!next) error_ = next.error().reason;
      if (!next || !*next) return;
      const platform::xpc::Frame& read = **next;
      frames_.push_back(std::to_string(static_cast<int>(read.kind)) + ":" + std::to_string(read.payload.size()) + ":" +
                        std::to_string(read.descriptors.size()));
    }
  }
  [[nodiscard]] const std::vector<std::string>& frames() const { return frames_; }
  [[nodiscard]] const std::string& error() const { return error_; }
  [[nodiscard]] bool isInside() const { return reader_.isInsideFrame(); }

 private:
  FrameReader reader_;
  std::vector<std::string> frames_;
  std::string error_;
};

TEST(FrameReader, ReadsTheSameFramesHoweverTheBytesAreCut) {
  const std::string stream = frame(1) + frame(4, "payload") + frame(2) + frame(3, std::string(300, 'x')) + frame(4, "");
  const std::vector<std::string> expected{"1:0:0", "4:7:0", "2:0:0", "3:300:0", "4:0:0"};
  for (std::size_t first = 0; first <= stream.size(); ++first) {
    Reading reading;
    reading.feed(stream.substr(0, first));
    reading.feed(stream.substr(first));
    ASSERT_EQ(reading.frames(), expected) << "cut at " << first;
    ASSERT_FALSE(reading.isInside());
  }
  Reading single;
  for (const char byte : stream) single.feed(std::string(1, byte));
  EXPECT_EQ(single.frames(), expected);
  EXPECT_EQ(single.error(), "");
}

TEST(FrameReader, KnowsWhetherAFrameIsUnderWay) {
  Reading reading;
  EXPECT_FALSE(reading.isInside());
  reading.feed(frame(4, "payload").substr(0, 1));
  EXPECT_TRUE(reading.isInside());
  reading.feed(frame(4, "payload").substr(1));
  EXPECT_FALSE(reading.isInside());
}

TEST(FrameReader, RefusesEveryWrongHeader) {
  const std::vector<std::tuple<std::string, std::string, std::string>> table{
      {"kind 0", frame(0), "there is no such kind of frame"},
      {"kind 5", frame(5), "there is no such kind of frame"},
      {"kind 255", frame(255), "there is no such kind of frame"},
      {"version 0", std::string("\0\0\0\0\4\0\0\0", 8), "the frame has another protocol version"},
      {"version 2", std::string("\0\0\0\0\4\2\0\0", 8), "the frame has another protocol version"},
      {"one byte too many", little32(16'777'217) + std::string("\4\1\0\0", 4), "the frame is too large"},
      {"4 GiB", "\xFF\xFF\xFF\xFF" + std::string("\4\1\0\0", 4), "the frame is too large"},
      {"65 descriptors", frame(4, "", 65), "the frame has too many descriptors"},
      {"65535 descriptors", frame(4, "", 65'535), "the frame has too many descriptors"},
      {"a hello with a payload", frame(1, "x"), "the frame's kind has no payload"},
      {"a hello with a descriptor", frame(1, "", 1), "the frame's kind has no payload"},
      {"a status request with a payload", frame(2, "x"), "the frame's kind has no payload"},
      {"text in place of a frame", "GET / HTTP/1.1\r\n\r\n", "the frame has another protocol version"},
      {"a descriptor that did not come", frame(4, "x", 1), "a frame's descriptors are missing"},
  };
  for (const auto& [name, bytes, reason] : table) {
    Reading reading;
    reading.feed(frame(4, "before") + bytes);
    EXPECT_EQ(reading.frames(), std::vector<std::string>{"4:6:0"}) << name;
    EXPECT_EQ(reading.error(), reason) << name;
    reading.feed(frame(4, "after"));
    EXPECT_EQ(reading.frames().size(), 1U) << name << ": nothing is read after an error";
  }
}

TEST(FrameReader, AcceptsThePayloadAtTheBound) {
  Reading reading;
  reading.feed(frame(4, std::string(16'777'216, 'x')));
  EXPECT_EQ(reading.frames(), std::vector<std::string>{"4:16777216:0"});
}

TEST(FrameReader, GivesEachFrameItsDescriptors) {
  Reading reading;
  reading.feed(frame(4, "a") + frame(4, "b", 2).substr(0, 1), nullDescriptors(2));
  EXPECT_EQ(reading.frames(), std::vector<std::string>{"4:1:0"});
  reading.feed(frame(4, "b", 2).substr(1));
  reading.feed(frame(4, "c", 1), nullDescriptors(1));
  EXPECT_EQ(reading.frames(), (std::vector<std::string>{"4:1:0", "4:1:2", "4:1:1"}));
}

TEST(FrameReader, RefusesDescriptorsThatBelongToNoFrameAndClosesThem) {
  const int before = kestrine::test::countOwnDescriptors();
  {
    Reading between;
    between.feed(frame(4, "a"), nullDescriptors(1));
    EXPECT_EQ(between.error(), "a descriptor belongs to no frame");
    EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
    Reading tooMany;
    tooMany.feed(frame(4, "abc", 1).substr(0, 9), nullDescriptors(2));
    EXPECT_EQ(tooMany.error(), "a descriptor belongs to no frame");
    Reading beforeTheHeader;
    beforeTheHeader.feed("\1", nullDescriptors(65));
    EXPECT_EQ(beforeTheHeader.error(), "a descriptor belongs to no frame");
    EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
  }
  EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
}

TEST(FrameReader, CountsWhatTheProcessHolds) {
  const auto descriptors = ReceiveBudget::totalDescriptors();
  const auto bytes = ReceiveBudget::totalBytes();
  {
    FrameReader reader;
    const std::string whole = frame(4, std::string(100'000, 'x'), 3);
    reader.feed(std::as_bytes(std::span(whole)).first(50'000), nullDescriptors(3));
    EXPECT_EQ(ReceiveBudget::totalDescriptors(), descriptors + 3);
    EXPECT_EQ(ReceiveBudget::totalBytes(), bytes + 50'000);
    reader.feed(std::as_bytes(std::span(whole)).subspan(50'000), {});
    const auto next = reader.next();
    ASSERT_TRUE(next && *next);
    EXPECT_EQ(ReceiveBudget::totalDescriptors(), descriptors + 3);
    EXPECT_EQ(ReceiveBudget::totalBytes(), bytes + 100'000);
  }
  EXPECT_EQ(ReceiveBudget::totalDescriptors(), descriptors);
  EXPECT_EQ(ReceiveBudget::totalBytes(), bytes);
}

}  // namespace
