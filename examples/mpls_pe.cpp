// The agent of mpls_pe.h, on standard output.
#include "examples/mpls_pe.h"

#include <iostream>

int main(int argc, char** argv) {
  ryx::sdk sdk;
  mpls_pe agent(sdk, std::cout);
  sdk.main_loop(argc, argv);
}
