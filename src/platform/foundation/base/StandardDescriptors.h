#pragma once

namespace platform {

/// Opens those of the descriptors 0, 1 and 2 that the process was started without on /dev/null, so that no file that is opened later gets
/// their number and what is printed or logged in it. A standard input or output that was missing stays unusable: reading the one and
/// writing to the other fail with EBADF, so that nobody takes a closed output for one that was written. What is written to a standard error
/// that was missing is dropped.
///
/// The first thing in a program, while it has one thread. Ends the process with EX_OSERR (71) where /dev/null cannot be opened, without a
/// word, since there is nowhere to say it.
void openMissingStandardDescriptors();

}  // namespace platform
