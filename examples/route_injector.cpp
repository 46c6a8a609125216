// The agent of route_injector.h, on standard output:
//
//   route_injector FILE [--once]
//
// With --once it exits when the switch has installed what there is to install.
#include "examples/route_injector.h"

#include <cstring>
#include <fstream>
#include <iostream>

int main(int argc, char** argv) {
  const char* name = nullptr;
  bool is_once = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--once") == 0)
      is_once = true;
    else if (std::strncmp(argv[i], "--", 2) != 0)
      name = argv[i];
  }
  std::ifstream file(name ? name : "");
  if (!file) {
    std::cerr << "route_injector: cannot read " << (name ? name : "a table")
              << "; expected: route_injector FILE [--once]" << std::endl;
    return 1;
  }
  ryx::sdk sdk;
  route_injector agent(sdk, file, std::cout, is_once);
  sdk.main_loop(argc, argv);
}
