// The precompiled header of the rooms is built with this file.
