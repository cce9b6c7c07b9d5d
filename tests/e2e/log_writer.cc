// A second process for the diagnostic-log tests.
//   kvc_log_writer write <tag> <lines> <go-file> <ready-file>
//     opens col.log in KVCLOGDIR, says it is ready, waits for the go file,
//     then writes numbered lines of varying length.
//   kvc_log_writer hold <ready-file>
//     takes the log's lock, says it is ready and waits to be killed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kvc/diagnostic_log.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/named_lock.h"

namespace {

void Touch(const char* path) {
  if (FILE* f = fopen(path, "w")) fclose(f);
}

bool Exists(const char* path) {
  platform::FileStatus st;
  return platform::StatPath(path, &st) == 0;
}

int Write(const char* tag, int lines, const char* go, const char* ready) {
  if (kvc::OpenLogFile() != 0) return 2;
  Touch(ready);
  while (!Exists(go)) platform::SleepMillis(5);
  for (int i = 0; i < lines; ++i) {
    // Long, varying payloads make a torn line likely if the lock failed.
    const std::string payload(static_cast<size_t>(100 + (i * 37) % 3000), tag[0]);
    kvc::Log('i', "tst0001", "%s %d %d %s|\n", tag, i, static_cast<int>(payload.size()),
             payload.c_str());
  }
  return 0;
}

int Hold(const char* ready) {
  const std::string name = "LogMutex_" + platform::GetEnv("COLL_SERVERID").value_or("") + "_" +
                           platform::GetEnv("COLL_SERVICENUMBER").value_or("");
  int error = 0;
  auto lock = platform::CreateNamedLock(name, &error);
  if (lock == nullptr || !lock->TryLockFor(5000)) return 3;
  Touch(ready);
  for (;;) platform::SleepMillis(1000);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && strcmp(argv[1], "write") == 0) return Write(argv[2], atoi(argv[3]), argv[4], argv[5]);
  if (argc == 3 && strcmp(argv[1], "hold") == 0) return Hold(argv[2]);
  fprintf(stdout, "usage: kvc_log_writer write <tag> <lines> <go> <ready> | hold <ready>\n");
  return 1;
}
