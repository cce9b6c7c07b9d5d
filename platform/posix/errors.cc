#include "platform/posix/errors.h"

#include <cerrno>
#include <cstdio>

#include "platform/error.h"

namespace platform::posix {

int FromErrno(int err) {
  switch (err) {
    case 0:
      return kOk;
    case ENOENT:
      return kErrFileNotFound;
    case ENOTDIR:
      return kErrPathNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return kErrAccessDenied;
    case ENOMEM:
    case ENOSPC:
      return kErrNotEnoughMemory;
    case EEXIST:
      return kErrAlreadyExists;
    case ETIMEDOUT:
    case EAGAIN:
      return kErrTimeout;
    case EOVERFLOW:
      return kErrTooManyPosts;
    case EINVAL:
      return kErrInvalidParameter;
    case ENAMETOOLONG:
      return kErrInvalidName;
    default:
      return kErrGeneric;
  }
}

const char* ObjectName(const char* name, char (&buffer)[256]) {
  size_t out = 0;
  buffer[out++] = '/';
  for (const char* p = name; *p != '\0' && out + 1 < sizeof buffer; ++p)
    buffer[out++] = (*p == '/' || *p == '\\') ? '_' : *p;
  buffer[out] = '\0';
  return buffer;
}

}  // namespace platform::posix
