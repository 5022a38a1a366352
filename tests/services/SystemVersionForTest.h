#pragma once

#include <cstdlib>

namespace kestrine::test {

/// The process believes itself on that version of the operating system while this lives. One at a time.
class SystemVersionForTest {
 public:
  explicit SystemVersionForTest(const char* version) { setenv("KESTRINE_SYSTEM_VERSION", version, 1); }
  ~SystemVersionForTest() { unsetenv("KESTRINE_SYSTEM_VERSION"); }
  SystemVersionForTest(const SystemVersionForTest&) = delete;
  SystemVersionForTest& operator=(const SystemVersionForTest&) = delete;
};

}  // namespace kestrine::test
