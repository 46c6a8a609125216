// The agent's view of itself: whether the operator has enabled it, the options that the operator
// has set for it, a table of status that it publishes, and the way to leave.
//
//   class my_agent : public ryx::agent_handler {
//    public:
//     explicit my_agent(ryx::sdk& sdk)
//         : agent_handler(sdk.get_agent_mgr()), agents_(sdk.get_agent_mgr()) {}
//     void on_initialized() override { agents_->status_set("state", "ready"); }
//     void on_agent_enabled(bool enabled) override {
//       if (!enabled) agents_->agent_shutdown_complete_is(true);
//     }
//     ...
#ifndef RYX_AGENT_H
#define RYX_AGENT_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/iter_base.h>

#include <string>

namespace ryx {

class agent_mgr;

/// The agent's callbacks, all called on the loop's thread with the API's lock held.
class RYX_API agent_handler : public base_handler<agent_mgr, agent_handler> {
 public:
  /// Registers the handler for all events.
  explicit agent_handler(agent_mgr* mgr);
  ~agent_handler() override;

  /// The SDK is initialized: from now on every manager can be used. Called once. Every manager must
  /// have been asked for before.
  virtual void on_initialized();

  /// The operator enabled or disabled the agent, or created or removed its configuration, without
  /// which it is disabled. A disabled agent cleans up and then calls
  /// `agent_mgr::agent_shutdown_complete_is(true)`. What holds at the start is not reported.
  virtual void on_agent_enabled(bool enabled);

  /// The operator set an option to `value`, or removed it: then `value` is empty. What is set at
  /// the start is not reported.
  virtual void on_agent_option(const std::string& name, const std::string& value);
};

/// Names of options, and keys of status.
class RYX_API agent_option_iter_impl;
class RYX_API agent_status_iter_impl;
using agent_option_iter_t = iter_base<std::string, agent_option_iter_impl>;
using agent_status_iter_t = iter_base<std::string, agent_status_iter_impl>;

/// Obtained from `sdk::get_agent_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Every operation but id() raises a legacy_exception, "SDK not initialized -- did you forget to
/// wait for your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call.
class RYX_API agent_mgr : public base_mgr<agent_handler> {
 public:
  ~agent_mgr() override;

  /// Whether the agent is configured and enabled.
  virtual bool enabled() const = 0;

  /// The option's value, empty when it is not set.
  virtual std::string agent_option(const std::string& name) const = 0;
  /// The names of the options that are set.
  virtual agent_option_iter_t agent_option_iter() const = 0;

  /// What the agent published under the key, empty when it published nothing.
  virtual std::string status(const std::string& key) const = 0;
  /// The keys under which the agent published something.
  virtual agent_status_iter_t status_iter() const = 0;

  /// Publishes the value. Raises an invalid_range_error for a key of more than 1024 bytes or a
  /// value of more than 10240.
  virtual void status_set(const std::string& key, const std::string& value) = 0;
  /// Takes it back. Nothing happens when there is none.
  virtual void status_del(const std::string& key) = 0;

  /// With true: the agent has cleaned up after it was disabled. Its status says that it no longer
  /// runs, or is removed when the agent has no configuration any more, and the agent leaves as by
  /// exit(). With false: nothing happens.
  virtual void agent_shutdown_complete_is(bool complete) = 0;

  /// The agent's status says that it no longer runs, and the loop returns.
  virtual void exit() = 0;

  /// Accepted, and ignored.
  void id(const char* agent_id);

 protected:
  agent_mgr();
};

/// The name under which the configuration and status of the agent stand: what comes after the last
/// dash of the title, or all of a title without a dash. Aborts the process for a title that ends in
/// a dash.
RYX_API std::string agentTitle2agentName(std::string title);

}  // namespace ryx

#endif  // RYX_AGENT_H
