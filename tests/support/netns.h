// Network namespaces for tests. Each is made for a test and goes with it; the machine's own network
// is never touched. Making one takes a privilege: where it is missing, the test is skipped.
//
//   if (std::string why = NetNs::unavailable(); !why.empty()) GTEST_SKIP() << why;
//   NetNs ns;
//   NetNs::Inside inside(ns);                     this thread is in it
//   ns.run("ip link add eth1 type veth peer name peer1");
//   ns.run("ip link set peer1 netns " + other.path());
#pragma once

#include <string>

namespace ryx::test {

class NetNs {
 public:
  // Why none can be made; empty when it can.
  static std::string unavailable();

  NetNs();
  ~NetNs();
  NetNs(const NetNs&) = delete;
  NetNs& operator=(const NetNs&) = delete;

  // A name of it that `ip` takes behind "netns".
  std::string path() const;

  // Runs a shell command in it and gives its standard output and error. A command that fails fails
  // the test.
  std::string run(const std::string& command, const std::string& input = "") const;

  // Runs many lines of `ip`, in one process.
  void ipBatch(const std::string& lines) const { run("ip -batch -", lines); }

  // The calling thread is in the namespace as long as this lives.
  class Inside {
   public:
    explicit Inside(const NetNs& ns);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    int before_;
  };

 private:
  int fd_;
};

}  // namespace ryx::test
