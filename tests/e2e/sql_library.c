/* An in-process SQL library for the tests: it answers a request with lines
 * that show what the agent handed it - the request, the connection
 * settings and the debug flag set before the call. "fail <n>" requests
 * write their lines and then return n. Built without execSqlRequest it
 * lacks one of the two entries the agent looks up. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvc/kzqsqld.h"

#ifdef _WIN32
#define KZQSQLD_EXPORT __declspec(dllexport)
#else
#define KZQSQLD_EXPORT __attribute__((visibility("default")))
#endif

static int g_debug_flag = -1; /* -1: setDebugLevels was not called */

KZQSQLD_EXPORT void setDebugLevels(int debug_flag, const unsigned short* levels, int count) {
  (void)levels;
  g_debug_flag = count == 10 ? debug_flag : -2;
}

#ifndef KZQSQLD_WITHOUT_EXEC
KZQSQLD_EXPORT int execSqlRequest(const char* request, const char* output_path, const char* host, const char* server_id,
                                  const char* logon, const char* password) {
  FILE* out = fopen(output_path, "w");
  if (out == NULL) return 99;
  fprintf(out, "request: %s\n", request);
  fprintf(out, "server: %s\\%s\n", host, server_id);
  fprintf(out, "logon: %s%s\n", logon, password[0] != '\0' ? " with password" : "");
  fprintf(out, "debug: %d\n", g_debug_flag);
  fclose(out);
  return strncmp(request, "fail ", 5) == 0 ? atoi(request + 5) : 0;
}
#endif
