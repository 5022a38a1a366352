#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace kestrine::test {

enum class Rights {
  /// Those of the user who runs the tests; root's are kept.
  OfThisUser,
  /// Those of an ordinary user, also when root runs the tests: what the kernel asks privileges of the machine for is refused, permission
  /// bits hold. Mounts in the namespace are allowed all the same, as far as a user namespace allows them: tmpfs, bind mounts, FUSE.
  OfAnOrdinaryUser,
};

/// Runs `body` in a mount namespace of its own, from which nothing comes out: the test that is running is started again, alone, in a second
/// process, and it is there that `body` runs; what fails there fails the test here, with its output. Temporary folders are the process's
/// own. Where the machine refuses such namespaces the test is left out, and says so.
///
/// The whole test must be in `body`: what stands around it (as SetUp) runs in both processes.
void inMountNamespace(const std::function<void()>& body, Rights rights = Rights::OfThisUser);

/// Makes the suite of a fixture whose parameter is Rights run with both.
#define KESTRINE_PER_RIGHTS(Suite) \
  INSTANTIATE_TEST_SUITE_P(, Suite, testing::Values(Rights::OfThisUser, Rights::OfAnOrdinaryUser), ::kestrine::test::nameOfRights)
std::string nameOfRights(const testing::TestParamInfo<Rights>& parameter);

/// Why the machine refuses such namespaces; empty when it does not.
std::string refusalOfMountNamespaces(Rights rights = Rights::OfThisUser);

/// These throw std::runtime_error when the system refuses, and do nothing outside of such a namespace: no test touches the machine's own
/// mounts. Threads: any.

/// Mounts a new file system of this type; `source` matters to types that have one.
void mountAt(const std::string& point, const std::string& type, const std::string& options = "", const std::string& source = "none");
/// Mounts the folder `what` at `point` as well, with or without what is mounted below it.
enum class Below { Without, With };
void bindAt(const std::string& point, const std::string& what, Below below = Below::Without);
/// Fails when the mount is in use.
void unmountAt(const std::string& point);
/// Takes it out of the namespace; what uses it goes on.
void detachAt(const std::string& point);
/// Moves what is mounted at `from`.
void moveMount(const std::string& from, const std::string& to);
/// The folder `what` with everything that is mounted in it.
void bindAllAt(const std::string& point, const std::string& what);
/// Makes a mount that stands read-only or writable.
void remountAt(const std::string& point, bool readOnly);
/// Runs lines of shell in a further namespace, whose mounts are a copy of those of this one.
void inFurtherNamespace(const std::string& shell);

}  // namespace kestrine::test
