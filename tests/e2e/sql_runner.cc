// Runs one "kzqsql" request through u_exec in a process of its own, so
// that each test finds the SQL library (or not) afresh, and prints the
// chain: "LINE <length> <text>" per node, or "NO CHAIN". Diagnostic lines,
// with tracing on, go to standard output too.
#include <cstdio>

#include "kvc/command_execution.h"
#include "platform/environment.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: kvc_sql_runner <request>\n");
    return 2;
  }
  platform::SetEnv("COLL_DEBUG", "d");  // the debug switch, and the flag handed to the library
  kvc::r_exec_chain* chain = kvc::u_exec("kzqsql", argv[1]);
  if (chain == nullptr) printf("NO CHAIN\n");
  for (const kvc::r_exec_chain* node = chain; node != nullptr; node = node->next)
    printf("LINE %d %s\n", static_cast<int>(node->length), node->text);
  kvc::free_exec_chain(chain);
  return 0;
}
