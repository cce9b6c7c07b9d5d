// Base services the agent uses: environment, case and locks.
#pragma once

#include <mutex>

// The variable's value, or null. The pointer stays valid until the
// variable is set again.
const char* BSV1_GetEnv(const char* name);
// Sets a variable from "NAME=value" (an existing one is replaced); 0, or
// 1 when the text has no name or the environment refused it.
int BSV1_PutEnv(const char* pair);
// Upper-cases `text` in place and returns it.
char* BSV1_ToUpper(char* text);

// A lock the same thread may take again.
struct BSV1_Lock {
  std::recursive_mutex mutex;
};
int BSV1_GetLock(BSV1_Lock* lock);
int BSV1_ReleaseLock(BSV1_Lock* lock);
// Nothing to free: the lock ends with its owner. Kept so callers can say
// they are done with it.
int BSV1_DestroyLock(BSV1_Lock* lock);
