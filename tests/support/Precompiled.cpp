// The precompiled header of all test programs is built with this file.
