// intf_watch [INTF ...]: the agent of intf_watch.h, on standard input and output.
//
//   STATEHUBLOCAL=linux ./intf_watch                the interfaces are those of this machine
//   STATEHUBLOCAL=sim:FILE ./intf_watch Ethernet1   one of a simulated switch
#include "examples/intf_watch.h"

#include <iostream>

const char usage[] =
    "usage: intf_watch [INTF ...]\n"
    "Tells what happens to the interfaces, or to those that are named, for example Ethernet1.\n"
    "Commands on standard input, one a line: up INTF, down INTF, describe INTF TEXT, show "
    "[INTF].\n";

// The arguments that sdk::main_loop takes for itself.
bool of_the_sdk(const std::string& word) {
  for (const char* start :
       {"--daemonize", "--sysname=", "--statehubport=", "--statehubsockname=", "--pyserver"})
    if (word.rfind(start, 0) == 0) return true;
  return false;
}

int main(int argc, char** argv) {
  std::set<ryx::intf_id_t> intfs;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help") return std::cout << usage, 0;
    if (of_the_sdk(word)) continue;
    try {
      intfs.insert(ryx::intf_id_t(word));
    } catch (const ryx::error& e) {
      std::cerr << "intf_watch: " << e.what() << "\n" << usage;
      return 2;
    }
  }
  ryx::sdk sdk;
  intf_watch agent(sdk, std::cout, STDIN_FILENO, intfs);
  sdk.main_loop(argc, argv);
}
