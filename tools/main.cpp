// kelvanectl: the administrator's command line.

#include "tools/options.h"

int main(int argc, char** argv) { return kelvane::tools::runProgram(argc, argv); }
