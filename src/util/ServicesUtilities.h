#pragma once

#include <string>
#include <string_view>

namespace kestrine {

/// Utilities that the service's parts share; class operations only. Any thread.
class ServicesUtilities {
 public:
  ServicesUtilities() = delete;

  /// Whether the operating system is a 10.7 release, which has no listener for services and needs the low-level hosting path.
  static bool is10_7();
  /// Whether the operating system is 10.7 or later and earlier than 10.10. Before 10.7 the answer is no, in spite of the name: callers
  /// choose between two ways that both need 10.7.
  static bool isLessThan10_10();

  /// The same questions about a given AppKit version number, of which only the whole part counts.
  static bool is10_7(double appKitVersionNumber);
  static bool isLessThan10_10(double appKitVersionNumber);

  /// A local path in the server's form: without its first character, whatever that is, and with backslashes for separators.
  /// "/Users/me/a.txt" gives "Users\me\a.txt". The empty path throws platform::Exception(NSRangeException).
  static std::string convertPathToWindows(std::string_view path);
  /// A path of the server's form as a local one: slashes for separators, and one more before it, also before a path that begins with one.
  static std::string convertPathToMac(std::string_view path);

  /// Copies the item at `source`, a file or a folder with all it holds, to a free name beside it: "report.pdf" to "report 1.pdf", the
  /// next time to "report 2.pdf", a folder "Photos" to "Photos 1". Gives the path of the copy, or `source` when nothing is there.
  /// `kestrinePath` is not used.
  ///
  /// Does not give up: a copy that fails is tried under the next number, for ever if need be. A caller must be sure that it may write into
  /// the folder and read the item.
  static std::string checkDuplicateAndCreate_kestrinePath(const std::string& source, const std::string& kestrinePath);
};

}  // namespace kestrine
