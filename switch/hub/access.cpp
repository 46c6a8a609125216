#include "switch/hub/access.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "switch/base/names.h"

namespace ryx::hub {

using platform::HubPeer;
using platform::Participant;
using platform::Role;

namespace {

bool isInGroup(const passwd& user, const std::string& name) {
  const group* wanted = ::getgrnam(name.c_str());
  if (!wanted) return false;
  const gid_t gid = wanted->gr_gid;
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (::getgrouplist(user.pw_name, user.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
    ::getgrouplist(user.pw_name, user.pw_gid, groups.data(), &count);
  }
  groups.resize(static_cast<size_t>(std::max(count, 0)));
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

// Users are looked up anew each time: who was added to a group since then counts.
bool isAmong(int64_t uid, const std::vector<std::string>& users) {
  const passwd* found = uid >= 0 ? ::getpwuid(static_cast<uid_t>(uid)) : nullptr;
  if (!found) return false;
  const std::string name = found->pw_name;
  const passwd user = {.pw_name = const_cast<char*>(name.c_str()),
                       .pw_passwd = nullptr,
                       .pw_uid = found->pw_uid,
                       .pw_gid = found->pw_gid,
                       .pw_gecos = nullptr,
                       .pw_dir = nullptr,
                       .pw_shell = nullptr};
  return std::any_of(users.begin(), users.end(), [&](const std::string& one) {
    return one.starts_with("@") ? isInGroup(user, one.substr(1)) : one == name;
  });
}

bool mayEverything(int64_t uid) {
  return uid == 0 || uid == static_cast<int64_t>(::getuid());
}

}  // namespace

std::string Access::turnsAway(const Participant& who, const HubPeer& peer) {
  if (peer.isStarted) {
    if (who.role == peer.role && who.name == peer.name) return "";
    return std::string("the server started this process as the ") + nameOf(peer.role) + " '" +
           peer.name + "', and it says that it is the " + nameOf(who.role) + " '" +
           std::string(who.name) + "'";
  }
  if (who.role == Role::agent) return turnsAwayAgent(who.name, peer);
  if (mayEverything(peer.uid)) return "";
  if (who.role == Role::operators && isAmong(peer.uid, config_.operators)) return "";
  return "the user " + userName(peer.uid) + " is not configured as one of the " +
         (who.role == Role::operators ? "operators" : "services, which the server starts itself");
}

std::string Access::turnsAwayAgent(std::string_view name, const HubPeer& peer) const {
  if (name.find('-') != name.npos)
    return "an agent's name must have no '-' here, since its configuration is found by the part "
           "behind it; give it another name by AGENT_PROCESS_NAME or by ryx::sdk(name)";
  if (mayEverything(peer.uid)) return "";
  const std::string agent(name);
  if (peer.uid < 0 && peer.pid < 0) {  // over TCP
    const auto& may = config_.peerAgents;
    if (std::find(may.begin(), may.end(), agent) != may.end() ||
        std::find(may.begin(), may.end(), "*") != may.end())
      return "";
    return "the agent '" + agent + "' is not configured to connect over TCP";
  }
  if (isOwn_ && isOwn_(name, peer.pid)) return "";
  for (const std::string& key : {agent, std::string("*")})
    if (auto at = config_.agents.find(key);
        at != config_.agents.end() && isAmong(peer.uid, at->second))
      return "";
  return "the user " + userName(peer.uid) + " is not configured to connect as the agent '" + agent +
         "'";
}

}  // namespace ryx::hub
