// A server, its service and its participants as the processes that they are, while some of them are
// killed, stopped or turned away: at the end everybody has the same.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/agent/connection.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/routing.h"
#include "platform/statehub/entity_manager.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tests/support/random_runs.h"
#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

using namespace platform;
using Interface::EthLagIntfConfigDir;
using Routing::RouteInput;
using test::Process;
using test::Program;
using test::until;

const std::string kRyxd = RYX_BINARY_DIR "/bin/ryxd";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;  // and ten times slower
#else
constexpr bool kIsSanitized = false;
#endif
constexpr int kLags = 20;
constexpr const char* kVrf = "routing/vrf/input/default";

IntfId lag(int n) {
  IntfId id;
  EXPECT_TRUE(parse("Port-Channel" + std::to_string(n), &id));
  return id;
}
Routing::RouteKey route(uint32_t n) {
  return {IpPrefix(IpAddr::v4(0x0a000000 + n), 32), 1};
}

// A participant in a process of its own.
class Worker final : private Timer {
 public:
  Worker(const std::string& socket, const Participant& who)
      : Timer("load"), name_(who.name), isAgent_(who.role == Role::agent) {
    settings_.socketName = socket;
    std::string why;
    em_ = EntityManager::overSocket(connectToServer(settings_, &why), who);
    reconnection_ = std::make_unique<Reconnection>(*em_, settings_);
    group_ = em_->mountGroup();
    for (const char* path :
         {"interface/config/eth/lag", "routing/vrf/input", "daemon/agent/status"})
      group_->add(path, "", "w");
    group_->close([this](MountStatus s) { status_ = s; });
    if (!until([this] { return status_ == MountStatus::success; })) _exit(1);
  }

  // "load SEED": writes and goes on writing, until "rest". "settled": until all of it is at the
  // server. "dump OWNER FILE": an agent's routes, and what all share, one a line.
  std::string answer(std::istringstream& question) {
    std::string verb, owner, file;
    question >> verb;
    if (verb == "load") {
      unsigned seed = 0;
      question >> seed;
      random_.seed(seed);
      armAt(clock().now());
    } else if (verb == "rest") {
      disarm();
    } else if (verb == "settled") {
      return until([this] {
        return em_->connected() && em_->drained() && em_->acknowledged() == em_->batches();
      })
                 ? "yes"
                 : "no";
    } else if (verb == "dump") {
      question >> owner >> file;
      dump(owner, file);
    } else if (verb == "routes") {  // "routes FIRST COUNT TAG", an agent's own
      uint32_t first = 0, count = 0, tag = 0;
      question >> first >> count >> tag;
      WriterScope as(*em_);
      for (uint32_t n = first; n < first + count; ++n)
        input()->route.create(route(n))->tag.set(tag);
    } else if (verb == "erase") {
      uint32_t first = 0, count = 0;
      question >> first >> count;
      WriterScope as(*em_);
      for (uint32_t n = first; n < first + count; ++n) input()->route.erase(route(n));
    } else if (verb == "describe") {
      question >> file;
      WriterScope as(*em_);
      lags()->intf.create(lag(1))->description.set(file);
    } else if (verb == "see") {
      question >> file;
      return until([&] {
        auto* there = lags()->intf.find(lag(1));
        return there && there->description() == file;
      })
                 ? "yes"
                 : "no";
    }
    return "done";
  }

 private:
  EthLagIntfConfigDir* lags() { return em_->find<EthLagIntfConfigDir>("interface/config/eth/lag"); }
  RouteInput* input() {
    return em_->tree().make<RouteInput>(std::string(kVrf) + "/RyxSdk-" + name_);
  }
  void onTimer() override {
    WriterScope as(*em_);
    if (auto* mine = isAgent_ ? input() : nullptr) {
      for (int i = 0; i < 50; ++i) {
        const Routing::RouteKey key = route(random_() % 3000);
        if (random_() % 3 == 0)
          mine->route.erase(key);
        else if (auto* r = mine->route.create(key))
          r->tag.set(random_() % 1000);
      }
      if (random_() % 20 == 0) EntityOps::remove(*mine);
    }
    for (int i = 0; i < 5; ++i)
      if (auto* shared = lags()->intf.find(lag(1 + static_cast<int>(random_() % kLags))))
        shared->description.set(name_ + std::to_string(random_() % 1000));
    // What is another's it may not write, here or at the server.
    if (auto* others = em_->find<Dir>("daemon/agent/status"))
      if (others->entry.create<GenericAgent::Status>("stolen")) _exit(2);
    armAt(clock().now() + 0.0005);
  }
  void dump(const std::string& owner, const std::string& file) {
    std::ofstream out(file);
    std::map<std::string, uint32_t> routes;
    auto* of = em_->find<RouteInput>(std::string(kVrf) + "/RyxSdk-" + owner);
    for (auto it = of ? of->route.iterator() : decltype(of->route.iterator())(); it; it.next())
      routes[it.key().prefix.toString()] = it->tag();
    for (auto& [prefix, tag] : routes) out << prefix << " " << tag << "\n";
    std::map<std::string, std::string> shared;
    for (auto it = lags()->intf.iterator(); it; it.next())
      shared[it.key().toString()] = it->description();
    for (auto& [intf, description] : shared) out << intf << " " << description << "\n";
    for (CollectionIterator it(em_->find<Dir>("daemon/agent/status")->entry); it; it.next())
      out << it.get()->path() << "\n";
  }

  ConnectionSettings settings_;
  std::unique_ptr<EntityManager> em_;
  std::unique_ptr<Reconnection> reconnection_;
  std::unique_ptr<MountGroup> group_;
  const std::string name_;
  const bool isAgent_;
  MountStatus status_ = MountStatus::pending;
  std::mt19937 random_;
};

class SystemTest : public testing::Test {
 protected:
  SystemTest() {
    ::unsetenv("STATEHUBLOCAL");
    ::unsetenv("RYX_SIM_INPUT");
    std::ofstream scenario(directory_ / "scenario");
    for (int n = 1; n <= kLags; ++n) scenario << "interface-add Port-Channel" << n << "\n";
  }
  std::unique_ptr<Program> server() {
    auto made = std::make_unique<Program>(std::vector<std::string>{
        kRyxd, "--statehubsockname=" + socket_, "--state=" + (directory_ / "state").string(),
        "--service=sim:" + (directory_ / "scenario").string()});
    made->line("listening");
    return made;
  }
  Process worker(const std::string& name, Role role = Role::agent) {
    return Process([this, name, role] {
      auto* worker = new Worker(socket_, Participant(role, name));
      return [worker](std::istringstream& question) { return worker->answer(question); };
    });
  }
  std::string dump(Process& of, const std::string& owner) {
    const std::string file = directory_ / "dump";
    EXPECT_EQ("done", of.ask("dump " + owner + " " + file));
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // Both say the same of an agent's routes and of what all share, item by item.
  void expectEqual(Process& one, Process& other, const std::string& owner) {
    std::istringstream mine(dump(one, owner)), theirs(dump(other, owner));
    int lines = 0;
    for (std::string a, b;; ++lines) {
      const bool more = static_cast<bool>(std::getline(mine, a));
      ASSERT_EQ(more, static_cast<bool>(std::getline(theirs, b))) << owner << ": " << a << b;
      if (!more) break;
      ASSERT_EQ(a, b) << "of " << owner;
      ASSERT_EQ(std::string::npos, a.find("stolen"));
    }
    EXPECT_LE(kLags, lines);
    compared_ += lines;
  }
  void killService() {
    Program ryx({RYX_BINARY_DIR "/bin/ryx", "--statehubsockname=" + socket_, "service", "--json"});
    const std::string text = ryx.rest();
    EXPECT_EQ(0, ryx.end());
    const size_t at = text.find("\"pid\": ");
    const int pid = at == text.npos ? 0 : std::atoi(text.c_str() + at + 7);
    if (pid > 1) ::kill(pid, SIGKILL);
  }
  // What the process has in memory, in MiB.
  static double residentOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;)
      if (double kilobytes; word == "VmRSS:" && status >> kilobytes) return kilobytes / 1024;
    return 0;
  }

  test::TempDir directory_;
  const std::string socket_ = directory_ / "statehub";
  int compared_ = 0;  // items
};

TEST_F(SystemTest, KillsAtRandomMomentsUnderLoad) {
  uint64_t kills = 0;
  test::randomRuns(4, [&](std::mt19937& random) {
    auto ryxd = server();
    const std::vector<std::string> names = {"a", "b", "c"};
    std::vector<Process> agents;
    for (auto& name : names) agents.push_back(worker(name));
    const auto load = [&](Process& agent) { agent.ask("load " + std::to_string(random())); };
    for (Process& agent : agents) load(agent);
    for (int event = 0; event < 6; ++event, ++kills) {
      ::usleep(random() % 60'000);  // somewhere in the middle of it all
      if (const unsigned which = random() % 5; which == 3) {
        ryxd->kill(SIGKILL);
        ryxd = server();
      } else if (which == 4) {
        killService();
      } else {
        agents[which].kill9();
        agents[which] = worker(names[which]);
        load(agents[which]);
      }
    }
    for (Process& agent : agents) EXPECT_EQ("done", agent.ask("rest"));
    for (Process& agent : agents) EXPECT_EQ("yes", agent.ask("settled"));
    Process observer = worker("observer", Role::operators);
    for (size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ("yes", agents[i].ask("settled"));
      expectEqual(observer, agents[i], names[i]);
    }
    // One that starts anew finds what it left.
    agents[0].kill9();
    agents[0] = worker("a");
    expectEqual(observer, agents[0], "a");
    for (Process& agent : agents) agent.kill9();
    observer.kill9();
    EXPECT_EQ(0, ryxd->kill(SIGTERM));
    unlink((directory_ / "state/state").c_str());
  });
  EXPECT_LT(1000, compared_) << "there was a load";
  test::tellOperations(kills);
}

TEST_F(SystemTest, AReaderThatIsStoppedEndsEqual) {
  auto ryxd = server();
  Process writer = worker("a"), reader = worker("reader", Role::operators);
  constexpr unsigned many = kIsSanitized ? 50'000 : 1'000'000;
  EXPECT_EQ("done", writer.ask("routes 0 1000 1"));
  EXPECT_EQ("yes", writer.ask("settled"));
  reader.signal(SIGSTOP);
  // The same keys over and over, then ever new ones.
  for (unsigned tag = 2; tag < 2 + many / 1000; ++tag) {
    EXPECT_EQ("done", writer.ask("routes 0 1000 " + std::to_string(tag)));
    if (tag % 100 == 0) {
      EXPECT_EQ("yes", writer.ask("settled"));
    }
  }
  EXPECT_EQ("yes", writer.ask("settled"));
  const double before = residentOf(ryxd->pid());
  for (unsigned first = 10'000; first < 10'000 + many; first += 10'000) {
    EXPECT_EQ("done", writer.ask("routes " + std::to_string(first) + " 10000 7"));
    EXPECT_EQ("yes", writer.ask("settled"));
    EXPECT_EQ("done", writer.ask("erase " + std::to_string(first) + " 10000"));
    EXPECT_EQ("yes", writer.ask("settled"));
  }
  // Deletions are kept for it up to a bound, and no change is.
  EXPECT_LT(residentOf(ryxd->pid()) - before, 100) << "MiB";
  reader.signal(SIGCONT);
  EXPECT_EQ("done", writer.ask("describe end"));
  EXPECT_EQ("yes", reader.ask("see end"));
  EXPECT_EQ("yes", reader.ask("settled"));
  expectEqual(reader, writer, "a");
  writer.kill9();
  reader.kill9();
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(SystemTest, TwoHundredParticipants) {
  constexpr int kProcesses = 4, kEach = 50;
  auto ryxd = server();
  std::vector<Process> processes;
  for (int p = 0; p < kProcesses; ++p)
    processes.push_back(Process([this, p] {
      auto* workers = new std::vector<std::unique_ptr<Worker>>;
      for (int i = 0; i < kEach; ++i)
        workers->push_back(std::make_unique<Worker>(
            socket_, Participant("w" + std::to_string(p) + "_" + std::to_string(i))));
      return [workers](std::istringstream& question) {
        std::string answers;
        const std::string line = question.str();
        for (auto& worker : *workers) {
          std::istringstream again(line);
          const std::string answer = worker->answer(again);
          if (answers.find(answer) == answers.npos) answers += answer;
        }
        return answers;
      };
    }));
  Process one = worker("one");
  const auto allSee = [&](const std::string& text) {
    EXPECT_EQ("done", one.ask("describe " + text));
    for (Process& p : processes) EXPECT_EQ("yes", p.ask("see " + text));
  };
  allSee("first");
  // All of them write at once what is their own.
  for (Process& p : processes) EXPECT_EQ("done", p.ask("routes 0 100 5"));
  for (Process& p : processes) EXPECT_EQ("yes", p.ask("settled"));
  Process observer = worker("observer", Role::operators);
  EXPECT_EQ(dump(observer, "w0_0"), dump(observer, "w3_49"));
  EXPECT_NE(std::string::npos, dump(observer, "w3_49").find("10.0.0.99/32 5"));
  // Half of them die, and then the server.
  processes.pop_back();
  processes.pop_back();
  allSee("second");
  EXPECT_EQ(137, ryxd->kill(SIGKILL));
  ryxd = server();
  allSee("third");
  for (Process& p : processes) EXPECT_EQ("yes", p.ask("settled"));
  EXPECT_EQ("yes", one.ask("settled"));
  Process after = worker("after", Role::operators);
  EXPECT_NE(std::string::npos, dump(after, "w1_49").find("10.0.0.99/32 5"));
  EXPECT_EQ(std::string::npos, dump(after, "w3_49").find("10.0.0.99/32 5"))
      << "who is dead returns nothing";
  for (Process& p : processes) p.kill9();
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

}  // namespace
}  // namespace ryx
