// kzqcoll: the collector. Opens the channel for this server and answers
// the agent's requests from a row source.
//   kzqcoll --replay <directory> [--requests <n>]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "collector/collector_loop.h"
#include "collector/replay_source.h"
#include "kvc/kvcutil.h"

namespace {

int Usage() {
  fprintf(stderr, "usage: kzqcoll --replay <directory> [--requests <n>]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string replay;
  int requests = 0;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--replay") == 0) {
      replay = argv[i + 1];
    } else if (strcmp(argv[i], "--requests") == 0) {
      requests = atoi(argv[i + 1]);
    } else {
      return Usage();
    }
  }
  if (replay.empty() || argc % 2 == 0) return Usage();
  std::string error;
  auto source = collector::ReplaySource::Load(replay, &error);
  if (source == nullptr) {
    fprintf(stderr, "kzqcoll: %s\n", error.c_str());
    return 3;
  }
  kvc::Log('@', "kzqcoll", "%s", "");
  const std::string pid_file = collector::WritePidFile();
  if (pid_file.empty()) kvc::Log('w', "col0001", "Could not write the pid file\n");
  const int rc = collector::Serve(*source, requests);
  if (!pid_file.empty()) remove(pid_file.c_str());
  return rc;
}
