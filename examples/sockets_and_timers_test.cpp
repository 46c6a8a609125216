// The interface server, with real sockets, on a simulated switch, in virtual time.
#include "examples/sockets_and_timers.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <ryx/testing.h>

namespace {

using ryx::testing::agent_sdk;
using ryx::testing::simulated_switch;

class IntfServer : public testing::Test {
 protected:
  IntfServer() {
    sw_.command("interface-add Ethernet1\noper-status Ethernet1 1\ninterface-add Ethernet2");
    sdk_.start();
  }

  class Client {
   public:
    explicit Client(IntfServer& test) : test_(test) {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port =
          htons(static_cast<uint16_t>(std::stoi(test.sw_.agent_status("server", "port"))));
      const int now = 1;  // no line waits for the acknowledgement of the one before
      setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
      EXPECT_EQ(0, connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address));
      test.sw_.run();
    }
    ~Client() { close(fd_); }
    std::string ask(const std::string& text) {
      EXPECT_EQ(static_cast<ssize_t>(text.size()), send(fd_, text.data(), text.size(), 0));
      test_.sw_.run();
      char bytes[4096];
      const ssize_t n = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
      return n > 0 ? std::string(bytes, static_cast<size_t>(n)) : n == 0 ? "closed" : "nothing";
    }

   private:
    IntfServer& test_;
    const int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  };

  simulated_switch sw_;
  agent_sdk sdk_{sw_, "server"};
  intf_server server_{sdk_};
};

TEST_F(IntfServer, AnswersLineByLine) {
  Client client(*this);
  EXPECT_EQ("1", sw_.agent_status("server", "clients"));
  EXPECT_EQ("Ethernet1 INTF_OPER_UP\nEthernet2 INTF_OPER_DOWN\n",
            client.ask("Ethernet1\nEthernet2\n"));
  EXPECT_EQ("nothing", client.ask("Ether"));
  sw_.command("oper-status Ethernet2 1");
  EXPECT_EQ("Ethernet2 INTF_OPER_UP\n", client.ask("net2\n"));
  EXPECT_EQ("Ethernet3 does not exist\n", client.ask("Ethernet3\n"));
  EXPECT_NE("nothing", client.ask("no name\n"));
  EXPECT_EQ("closed", client.ask(std::string(2000, 'x')));
  EXPECT_EQ("0", sw_.agent_status("server", "clients"));
}

TEST_F(IntfServer, SendsTheSilentAway) {
  Client quiet(*this), lively(*this);
  sw_.run_for(20);
  EXPECT_EQ("Ethernet1 INTF_OPER_UP\n", lively.ask("Ethernet1\n"));
  sw_.run_for(9.9);
  EXPECT_EQ("2", sw_.agent_status("server", "clients"));
  sw_.run_for(0.2);
  EXPECT_EQ("1", sw_.agent_status("server", "clients"));
  sw_.run_for(19.8);
  EXPECT_EQ("1", sw_.agent_status("server", "clients"));
  sw_.run_for(0.2);
  EXPECT_EQ("0", sw_.agent_status("server", "clients"));
}

TEST_F(IntfServer, ListensWhereItIsTold) {
  const std::string before = sw_.agent_status("server", "port");
  for (const std::string wrong : {"70000", "-1", "http", "80x"}) {
    sw_.agent_option_set("server", "port", wrong);
    sw_.run();
    EXPECT_EQ("'" + wrong + "' is no port: expected 0 to 65535",
              sw_.agent_status("server", "port"));
  }
  sw_.agent_option_set("server", "port", before);
  sw_.run();
  EXPECT_EQ(before, sw_.agent_status("server", "port"));
  Client client(*this);
  EXPECT_EQ("Ethernet1 INTF_OPER_UP\n", client.ask("Ethernet1\n"));
}

}  // namespace
