#include "framework/bsv1.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/environment.h"

const char* BSV1_GetEnv(const char* name) { return name == nullptr ? nullptr : getenv(name); }

int BSV1_PutEnv(const char* pair) {
  const char* equals = pair == nullptr ? nullptr : strchr(pair, '=');
  if (equals == nullptr || equals == pair) return 1;
  const std::string name(pair, static_cast<size_t>(equals - pair));
  return platform::SetEnv(name.c_str(), equals + 1) ? 0 : 1;
}

char* BSV1_ToUpper(char* text) {
  for (char* p = text; p != nullptr && *p != '\0'; ++p) *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
  return text;
}

int BSV1_GetLock(BSV1_Lock* lock) {
  if (lock == nullptr) return 1;
  lock->mutex.lock();
  return 0;
}

int BSV1_ReleaseLock(BSV1_Lock* lock) {
  if (lock == nullptr) return 1;
  lock->mutex.unlock();
  return 0;
}

int BSV1_DestroyLock(BSV1_Lock* lock) { return lock == nullptr ? 1 : 0; }
