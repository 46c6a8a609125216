// The agent of addr_guard.h, on standard output.
#include "examples/addr_guard.h"

#include <iostream>

int main(int argc, char** argv) {
  ryx::sdk sdk;
  addr_guard agent(sdk, std::cout);
  sdk.main_loop(argc, argv);
}
