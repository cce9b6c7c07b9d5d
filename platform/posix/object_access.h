// Who may use the channel's shared areas and semaphores on POSIX: the mode
// and group of an object this process creates, and the check of one that
// already exists (see platform::ObjectAccess).
#pragma once

#include "platform/security.h"

namespace platform::posix {

// Gives a newly created object, open on `fd`, its group and mode.
// Returns 0 or the layer's error.
int SecureNewObject(int fd, const ObjectAccess& access);

// Admits an existing object open on `fd`: 0, kErrInvalidOwner for one that
// another account owns or left open, or the error of a failed check. One
// this account owns is given the mode and group a new one would get, so
// objects left by an earlier open-mode run become private.
int AdmitExistingObject(int fd, const ObjectAccess& access);

// The file behind a named semaphore (glibc keeps them in /dev/shm as
// "sem.<name>"), for the two calls above.
std::string SemaphoreFile(const char* object_name);

}  // namespace platform::posix
