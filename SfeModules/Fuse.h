// The state file system: read-only text files under "/BessProc/", each built when it is read.
//
// Threads    | operation                                      | control | FUSE's own |
//            | fuseRegister, fuseDeRegister, fuseInit,        |   yes   |     -      |
//            |   fuseDeInit, fuseUpdateBufferSize             |         |            |
//            | the callbacks of fuseOperations(), generators  |    -    |    yes     |
//              All are safe against each other.
// Read side  : a generator runs on a registered QSBR thread that is online while it runs, so it may
//              walk RCU tables.
// Ownership  : state is process-wide and never destroyed, since FUSE's threads run until the end of
//              the process; the library that holds this code stays mapped once they were started.
// Errors     : a file system that cannot be mounted stays absent; a generator that throws makes the
//              read fail with EIO and is logged.
// Cost       : every read builds the whole text again and copies the part that was asked for.
// Invariants :
//   (1) a generator is never running once the removal of its file has returned.
//   (2) no lock is held while a generator runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct fuse_operations;

// Makes the file `name` ("/" and the file's name) readable as the text that `fn` builds; a file of
// that name gets the new generator.
void fuseRegister(std::string name, std::function<std::string()> fn);

// Removes a file; one that is absent is ignored. A reader that has it open gets ENOENT from its
// next read. Returns when no generator of the file is running; from inside a generator at once,
// since there it could wait for itself. RCU: the wait is a quiescent state of the calling thread.
void fuseDeRegister(std::string name);

// Starts the file system's thread, which mounts after five seconds; later calls do nothing.
void fuseInit();

// Nothing to undo: the mount goes away with the process.
void fuseDeInit();

// Sets the size in bytes that every file is reported to have. A reader is not held to it.
void fuseUpdateBufferSize(unsigned int size);

// The callbacks that are given to FUSE.
const fuse_operations& fuseOperations();
