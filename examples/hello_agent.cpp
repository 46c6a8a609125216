// The agent of hello_agent.h, until SIGTERM or SIGINT ends it.
//
//   STATEHUBLOCAL=1 ./hello_agent
#include "examples/hello_agent.h"

#include <iostream>

int main(int argc, char** argv) {
  ryx::sdk sdk;
  hello_agent agent(sdk, std::cout);
  sdk.main_loop(argc, argv);
}
