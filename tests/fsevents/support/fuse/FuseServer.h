#pragma once

#include <linux/fuse.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/fuse/FuseFaults.h"
#include "tests/fsevents/support/fuse/FuseNodes.h"

namespace kestrine::test {

/// Answers the kernel's questions about a file system in user space (fuse(4)) with what is in a folder, or with the errors that it was
/// told. Nothing is cached by the kernel, so that changes made in the folder itself are seen at once. Threads: one.
class FuseServer {
 public:
  FuseServer(platform::FileHandle device, platform::FileHandle backing) : device_(std::move(device)), backing_(std::move(backing)) {}

  [[nodiscard]] int device() const { return device_.fileDescriptor(); }
  FuseFaults& faults() { return faults_; }
  /// Reads one question and answers it. False when the file system is no longer mounted anywhere.
  bool serveOne();

 private:
  struct Question {
    const fuse_in_header& header;
    std::string_view body;
    /// What it is about: the file with the question's number, or, where a name is given, the one of that name in it.
    std::string path;
    /// The fixed part of the body, and the names after it.
    template <typename Part>
    const Part& part() const {
      return *reinterpret_cast<const Part*>(body.data());
    }
    [[nodiscard]] const char* name(std::size_t after) const { return body.data() + after; }
  };
  struct Operation {
    std::uint32_t code;
    const char* name;
    int (FuseServer::*answer)(const Question&);
    /// Where the name that makes the path stands in the body, behind how many bytes; -1 for an operation without.
    int nameAfter;
  };
  static const Operation* find(std::uint32_t code);
  void answer(const Operation& operation, const fuse_in_header& header, std::string_view body);
  void send(std::uint64_t unique, int error);

  // Each leaves its answer in `reply_` and returns 0 or errno.
  int begin(const Question& question);
  int statistics(const Question& question);
  int lookup(const Question& question);
  int attributes(const Question& question);
  int setAttributes(const Question& question);
  int makeNode(const Question& question);
  int makeFolder(const Question& question);
  int makeLink(const Question& question);
  int makeHardLink(const Question& question);
  int readLink(const Question& question);
  int removeFile(const Question& question);
  int removeFolder(const Question& question);
  int rename(const Question& question);
  int renameWithFlags(const Question& question);
  int renameTo(const Question& question, std::uint64_t folder, unsigned flags, const char* names);
  int open(const Question& question);
  int create(const Question& question);
  int read(const Question& question);
  int write(const Question& question);
  int close(const Question& question);
  int openFolder(const Question& question);
  int readFolder(const Question& question);
  int closeFolder(const Question& question);
  int synchronise(const Question& question);

  int entry(const std::string& path);
  int facts(const std::string& path, struct statx& facts) const;
  template <typename Part>
  void put(const Part& part) {
    reply_.append(reinterpret_cast<const char*>(&part), sizeof part);
  }

  platform::FileHandle device_;
  platform::FileHandle backing_;
  FuseFaults faults_;
  FuseNodes nodes_;
  std::string reply_;
  struct Entry {
    std::string name;
    std::uint64_t inode;
    std::uint32_t type;
  };
  std::map<std::uint64_t, std::vector<Entry>> listings_;
  std::uint64_t lastListing_ = 0;
};

}  // namespace kestrine::test
