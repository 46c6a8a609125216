// The agent of arp_watch.h, on standard output.
//
//   STATEHUBLOCAL=sim:FILE ./arp_watch
#include "examples/arp_watch.h"

#include <iostream>

int main(int argc, char** argv) {
  ryx::sdk sdk;
  arp_watch agent(sdk, std::cout);
  sdk.main_loop(argc, argv);
}
