// intf_watch [INTF ...]: the agent of intf_watch.h, on standard input and output.
//
//   STATEHUBLOCAL=linux ./intf_watch                the interfaces are those of this machine
//   STATEHUBLOCAL=sim:FILE ./intf_watch Ethernet1   one of a simulated switch
#include "examples/intf_watch.h"

#include <iostream>

int main(int argc, char** argv) {
  std::set<ryx::intf_id_t> intfs;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("--", 0) == 0) continue;  // the SDK's own arguments
    try {
      intfs.insert(ryx::intf_id_t(word));
    } catch (const ryx::error& e) {
      std::cerr << "intf_watch: " << e.what() << "\nusage: intf_watch [INTF ...]\n";
      return 2;
    }
  }
  ryx::sdk sdk;
  intf_watch agent(sdk, std::cout, STDIN_FILENO, intfs);
  sdk.main_loop(argc, argv);
}
