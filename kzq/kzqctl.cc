// kzqctl: the command-line companion of the agent.
//   kzqctl tables --json   the table catalogue, offline
#include <cstdio>
#include <cstring>

#include "kzq/catalogue_json.h"

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "tables") == 0 && strcmp(argv[2], "--json") == 0) {
    printf("%s\n", kzq::CatalogueJson().dump(2).c_str());
    return 0;
  }
  fprintf(stderr, "usage: kzqctl tables --json\n");
  return 2;
}
