#pragma once

namespace kestrine {

/// How a request went, the last argument of every finished block, and what a transport's control methods answer. There is no 3. The pair of
/// done and no task stands the other way round for `close` than for `resume` and `pause`; callers rely on the numbers.
enum RestTaskStatus : int {
  /// The task finished without a transport error; the result is delivered.
  RestStatusSuccess = 0,
  /// There is no network; nothing was sent.
  RestStatusNotReachable = 1,
  /// The platform completed the task with an error.
  RestStatusNetworkError = 2,
  /// The parameters could not be serialised to JSON.
  RestStatusBodyEncodingError = 4,
  /// The response's body is no JSON.
  RestStatusResponseParseError = 5,
  /// `resume`: the current task was resumed.
  RestStatusResumed = 6,
  /// `resume`: there is no current task.
  RestStatusResumeNoTask = 7,
  /// `pause`: there is a current task.
  RestStatusPaused = 8,
  /// `pause`: there is no current task.
  RestStatusPauseNoTask = 9,
  /// `close`: there is no current task.
  RestStatusCloseNoTask = 10,
  /// `close`: the current task was cancelled.
  RestStatusClosed = 11,
};

}  // namespace kestrine
