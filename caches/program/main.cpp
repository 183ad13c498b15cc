// kelvane-caches: gives caches back when the daemon asks, and shows people what would go.

#include "caches/program/command_line.h"
#include "caches/program/serve.h"

int main(int argc, char** argv) {
  using namespace kelvane::caches;
  return argc < 2 ? serve() : runCommandLine(argc, argv);
}
