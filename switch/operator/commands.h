// What the command `ryx` does. Each writes to `out`, and throws Failure when it cannot be done.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "switch/operator/session.h"

namespace ryx::operators {

struct Output {
  std::ostream& out;
  bool json = false;
  size_t width = 0;  // of the terminal, 0: none
};

void list(Session& session, const std::string& path, const Output& to);
void show(Session& session, const std::string& path, const Output& to);
// Until SIGINT or SIGTERM. The connection is looked for again when it is lost.
void watch(Session& session, const platform::ConnectionSettings& settings, const std::string& path,
           const Output& to);
void set(Session& session, const std::string& path, const std::vector<std::string>& assignments);
// The Mirra tables, or the rows of one.
void mirraTables(Session& session, const std::string& name, const Output& to);
void clients(Session& session, const Output& to);
void services(Session& session, const Output& to);
// Without a setting it shows the one there is; "off" takes it away.
void traces(Session& session, const std::string& name, const std::string& setting,
            const Output& to);
void simulate(Session& session, const std::string& line);

struct NewAgent {
  std::string name, exec, user;
  std::vector<std::string> arguments, options;
  bool restartSilent = false, enable = false;
};
void addAgent(Session& session, const NewAgent& agent);
void removeAgent(Session& session, const std::string& name);
void enableAgent(Session& session, const std::string& name, bool enabled);
// `options`: KEY=VALUE, or KEY alone with `erases`.
void setOptions(Session& session, const std::string& name, const std::vector<std::string>& options,
                bool erases);
void showAgents(Session& session, const std::string& name, const Output& to);
void purgeAgent(Session& session, const std::string& name);

}  // namespace ryx::operators
