#pragma once

namespace kestrine::test {

/// A second process that watches over this one. When this one dies without a word (killed, crashed, ended by a handler of somebody's) it
/// ends what is left of it, services in sessions of their own included, and removes its temporary folders. Where
/// KESTRINE_TEST_ENDS_WITH_RUNNER is set, as CTest does, it also ends this one when the process that started it dies.
///
/// It knows what is left by KESTRINE_TEST_LIFE, which every program started from here inherits in its environment, and by a pipe that every
/// mere fork of this process holds. What was started with an environment of its own is not found.
///
/// Made before the process has threads. Its own end is the word that all is well, and waits for the keeper to be gone.
class Keeper {
 public:
  Keeper();
  ~Keeper();
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;

 private:
  int pipe_ = -1;
  int keeper_ = -1;
};

}  // namespace kestrine::test
