// Result numbers of the platform layer.
//
// Every operation reports failure with the Windows error number that the
// logic above tests for, whatever the backend, so that code never needs to
// know which OS it runs on.
#pragma once

namespace platform {

inline constexpr int kOk = 0;
inline constexpr int kErrFileNotFound = 2;
inline constexpr int kErrPathNotFound = 3;
inline constexpr int kErrAccessDenied = 5;
inline constexpr int kErrInvalidHandle = 6;
inline constexpr int kErrNotEnoughMemory = 8;
inline constexpr int kErrNotSupported = 50;
inline constexpr int kErrBadNetPath = 53;
inline constexpr int kErrInvalidData = 13;
inline constexpr int kErrInvalidParameter = 87;
inline constexpr int kErrInvalidName = 123;
inline constexpr int kErrBadPathname = 161;
inline constexpr int kErrAlreadyExists = 183;
inline constexpr int kErrMoreData = 234;
inline constexpr int kErrTimeout = 258;  // WAIT_TIMEOUT
inline constexpr int kErrNoMoreItems = 259;
inline constexpr int kErrTooManyPosts = 298;
inline constexpr int kErrGeneric = 31;  // ERROR_GEN_FAILURE
inline constexpr int kErrKeyDeleted = 1018;
inline constexpr int kErrServiceDoesNotExist = 1060;  // ERROR_SERVICE_DOES_NOT_EXIST
inline constexpr int kErrNotStartedAsService = 1063;  // ERROR_FAILED_SERVICE_CONTROLLER_CONNECT
inline constexpr int kErrServiceSpecific = 1066;
inline constexpr int kErrProcessAborted = 1067;  // ERROR_PROCESS_ABORTED
inline constexpr int kErrInvalidOwner = 1307;  // a shared object another account owns or left open
inline constexpr int kErrNoneMapped = 1332;  // no such account

}  // namespace platform
