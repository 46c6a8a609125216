// ryx: the operator's command.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "switch/operator/commands.h"
#include "switch/operator/table.h"

namespace {

using namespace ryx::operators;
using ryx::platform::ConnectionSettings;

// How many letters have to be changed, added or left out between two words.
size_t distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t corner = std::exchange(row[0], i);
    for (size_t j = 1; j <= b.size(); ++j)
      corner = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1,
                                               corner + (a[i - 1] == b[j - 1] ? 0u : 1u)}));
  }
  return row[b.size()];
}

// The command that a mistyped word may have meant.
std::string nearest(const CLI::App& app, const std::string& word) {
  std::string best;
  for (const CLI::App* one : app.get_subcommands({}))
    if (best.empty() || distance(word, one->get_name()) < distance(word, best))
      best = one->get_name();
  return !best.empty() && distance(word, best) <= 2 ? best : "";
}

// What is wrong with the words, when it is the command itself; else what the parser says.
std::string mistake(const CLI::App& app, int argc, char** argv, const std::string& parsers) {
  const CLI::App* of = &app;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--statehubsockname" || word == "--sysname") ++i;
    if (word.empty() || word[0] == '-') continue;
    const auto commands = of->get_subcommands({});
    if (commands.empty()) return parsers;
    const auto at = std::find_if(commands.begin(), commands.end(),
                                 [&](const CLI::App* one) { return one->get_name() == word; });
    if (at != commands.end()) {
      of = *at;
      continue;
    }
    const std::string meant = nearest(*of, word);
    return "there is no command \"" + word + "\"" +
           (meant.empty() ? "" : "; did you mean " + meant + "?");
  }
  return parsers;
}

struct Arguments {
  ConnectionSettings settings = ConnectionSettings::fromEnvironment();
  std::string path = "/", name, setting, socket, system;
  std::vector<std::string> words;
  bool json = false, erases = false;
  NewAgent agent;
};

int run(int argc, char** argv) {
  Arguments given;
  std::function<void(Session&)> command;
  const Output plain{std::cout, false, terminalWidth()};
  const auto output = [&] { return Output{std::cout, given.json, terminalWidth()}; };

  CLI::App app{
      "Looks at a running switch and steers it, through its Statehub server.\n"
      "Example: ryx show /interface/status"};
  app.name("ryx");
  app.set_version_flag("--version", RYX_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--statehubsockname", given.socket, "the server's Unix socket")->take_last();
  app.add_option("--sysname", given.system, "which switch of this machine")->take_last();

  const auto add = [&](CLI::App& to, const char* name, const char* what,
                       std::function<void(Session&)> does) {
    CLI::App* sub = to.add_subcommand(name, what);
    sub->fallthrough();
    sub->callback([&command, does = std::move(does)] { command = does; });
    return sub;
  };
  const auto addJson = [&](CLI::App* to) { to->add_flag("--json", given.json, "as JSON"); };
  const auto addPath = [&](CLI::App* to, bool isRequired) {
    to->add_option("PATH", given.path, "a place in the state, as /interface/status")
        ->required(isRequired);
  };

  CLI::App* ls = add(app, "ls", "What stands directly below a path.\nExample: ryx ls /interface",
                     [&](Session& s) { list(s, given.path, output()); });
  addPath(ls, false);
  addJson(ls);
  CLI::App* show = add(app, "show",
                       "All that stands at and below a path.\n"
                       "Example: ryx show /interface/status/eth/lag --json",
                       [&](Session& s) { ryx::operators::show(s, given.path, output()); });
  addPath(show, true);
  addJson(show);
  CLI::App* watch =
      add(app, "watch",
          "What is there, then each change, until it is interrupted.\n"
          "Example: ryx watch /interface/status",
          [&](Session& s) { ryx::operators::watch(s, given.settings, given.path, output()); });
  addPath(watch, true);
  addJson(watch);
  CLI::App* set = add(app, "set",
                      "Sets attributes, all of them or none.\nExample: ryx set "
                      "/interface/config/eth/lag/Port-Channel1 description=uplink",
                      [&](Session& s) { ryx::operators::set(s, given.path, given.words); });
  addPath(set, true);
  set->add_option("ATTRIBUTE=VALUE", given.words, "what to set")->required();

  CLI::App* agent = app.add_subcommand("agent", "The agents that the server knows and runs.");
  agent->require_subcommand(1);
  agent->fallthrough();
  const auto addName = [&](CLI::App* to, bool isRequired) {
    to->add_option("NAME", given.name, "the agent's name")->required(isRequired);
  };
  CLI::App* agentAdd =
      add(*agent, "add",
          "Makes an agent known.\n"
          "Example: ryx agent add watcher --exec=./intf_watch --option=color=blue --enable",
          [&](Session& s) {
            given.agent.name = given.name;
            addAgent(s, given.agent);
          });
  addName(agentAdd, true);
  agentAdd->add_option("--exec", given.agent.exec, "the program that the server runs as it");
  agentAdd->add_option("--argument", given.agent.arguments, "for the program; again for more")
      ->allow_extra_args(false);
  agentAdd->add_option("--user", given.agent.user, "as whom it runs (default: as the server)");
  agentAdd->add_option("--option", given.agent.options, "KEY=VALUE; again for more")
      ->allow_extra_args(false);
  agentAdd->add_flag("--restart-silent", given.agent.restartSilent,
                     "killed and started again when its heartbeat stays out");
  agentAdd->add_flag("--enable", given.agent.enable, "at once");
  addName(add(*agent, "remove", "Takes an agent away, with all that it left.",
              [&](Session& s) { removeAgent(s, given.name); }),
          true);
  addName(add(*agent, "enable", "Has the server run it.",
              [&](Session& s) { enableAgent(s, given.name, true); }),
          true);
  addName(add(*agent, "disable", "Has it clean up and end.",
              [&](Session& s) { enableAgent(s, given.name, false); }),
          true);
  CLI::App* option = add(*agent, "option",
                         "Sets options that the agent reads.\n"
                         "Example: ryx agent option watcher color=red",
                         [&](Session& s) { setOptions(s, given.name, given.words, given.erases); });
  addName(option, true);
  option->add_option("KEY=VALUE", given.words, "the options; keys alone with --delete")->required();
  option->add_flag("--delete", given.erases, "takes them away");
  CLI::App* agentShow = add(*agent, "show", "The agents, or one with its options and status.",
                            [&](Session& s) { showAgents(s, given.name, output()); });
  addName(agentShow, false);
  addJson(agentShow);
  addName(add(*agent, "purge", "Takes away what an agent that does not run left in the state.",
              [&](Session& s) { ryx::operators::purgeAgent(s, given.name); }),
          true);

  CLI::App* trace = add(app, "trace",
                        "What a participant traces, besides its own setting.\n"
                        "Example: ryx trace watcher RyxSdkIntf/0-9; ryx trace watcher off",
                        [&](Session& s) { traces(s, given.name, given.setting, plain); });
  trace->add_option("NAME", given.name, "an agent, a service, or ryxd")->required();
  trace->add_option("SETTING", given.setting, "as RYX_TRACE has it, or off");
  CLI::App* mirra = add(app, "mirra",
                        "The status tables in shared memory, or the rows of one.\n"
                        "Example: ryx mirra routing/vrf/status/default --json",
                        [&](Session& s) { mirraTables(s, given.name, output()); });
  mirra->add_option("TABLE", given.name, "a table's name");
  addJson(mirra);
  addJson(add(app, "clients", "Who is connected to the server.",
              [&](Session& s) { clients(s, output()); }));
  addJson(add(app, "service", "The services that the server runs.",
              [&](Session& s) { services(s, output()); }));
  CLI::App* sim = add(app, "sim",
                      "A command to the simulated switch.\n"
                      "Example: ryx sim oper-status Ethernet1 2",
                      [&](Session& s) {
                        std::string line;
                        for (const std::string& word : given.words)
                          line += (line.empty() ? "" : " ") +
                                  (word.find(' ') == word.npos ? word : "\"" + word + "\"");
                        simulate(s, line);
                      });
  sim->add_option("COMMAND", given.words, "the command and its words")->required();
  app.add_subcommand("help", "This text.")->callback([&] { throw CLI::CallForHelp(); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "ryx: " << mistake(app, argc, argv, e.what()) << "\n";
    std::cerr << "ryx --help and ryx COMMAND --help tell what is expected.\n";
    return kWrongUsage;
  }
  if (!given.socket.empty()) given.settings.socketName = given.socket;
  if (!given.system.empty()) given.settings.systemName = given.system;
  Session session(given.settings);
  command(session);
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const Failure& failure) {
    std::cerr << "ryx: " << failure.what() << "\n";
    return failure.status;
  }
}
