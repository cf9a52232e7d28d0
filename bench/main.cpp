// moxbench: moxolefio against libgsf and memcpy on generated documents.
//
//   moxbench [--runs N] [--quick] [SECTION...]
//
// SECTION is open, read, lookup, write or edit (all of them by default).  Each
// figure is the median of N runs (5 by default); --quick uses smaller
// documents for a smoke run.  The table goes to standard output.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/gsf_peer.h"
#include "bench/sections.h"

namespace {

struct Section {
  const char* name;
  void (*run)(const bench::Options&, bench::Table*);
};

const Section kSections[] = {
    {"open", bench::openSection},
    {"read", bench::readSection},
    {"lookup", bench::lookupSection},
    {"write", bench::writeSection},
    {"edit", bench::editSection},
    {"native", bench::nativeSection},
};

int usage() {
  fprintf(stderr, "usage: moxbench [--runs N] [--quick] [open|read|lookup|write|edit]...\n");
  return 1;
}

void printMachine(const bench::Options& options) {
  utsname u;
  uname(&u);
  char cpu[256] = "unknown";
  if (FILE* f = fopen("/proc/cpuinfo", "r")) {
    char line[256];
    while (fgets(line, sizeof line, f) != nullptr) {
      if (strncmp(line, "model name", 10) == 0) {
        const char* colon = strchr(line, ':');
        snprintf(cpu, sizeof cpu, "%s", colon != nullptr ? colon + 2 : line);
        cpu[strcspn(cpu, "\n")] = 0;
        break;
      }
    }
    fclose(f);
  }
  printf("machine: %s, %ld cores, %s %s; median of %d runs; libgsf %s\n", cpu,
         sysconf(_SC_NPROCESSORS_ONLN), u.sysname, u.release, options.runs,
         bench::gsf::available() ? "built in" : "not built in");
  printf("ratios: mox/gsf above 1 means moxolefio was faster; x memcpy is moxolefio's "
         "time over memcpy's for the same bytes\n\n");
}

}  // namespace

int main(int argc, char** argv) {
  bench::Options options;
  std::vector<std::string> wanted;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
      options.runs = atoi(argv[++i]);
      if (options.runs < 1) return usage();
    } else if (strcmp(argv[i], "--quick") == 0) {
      options.quick = true;
    } else if (argv[i][0] == '-') {
      return usage();
    } else {
      wanted.push_back(argv[i]);
    }
  }
  for (const std::string& name : wanted) {
    bool known = false;
    for (const Section& s : kSections) known = known || name == s.name;
    if (!known) return usage();
  }
  printMachine(options);
  bench::Table table;
  table.echo(true);
  for (const Section& s : kSections) {
    bool run = wanted.empty();
    for (const std::string& name : wanted) run = run || name == s.name;
    if (run) s.run(options, &table);
  }
  printf("\n");
  table.print();
  return 0;
}
