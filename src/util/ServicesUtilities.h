#pragma once

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
};

}  // namespace kestrine
