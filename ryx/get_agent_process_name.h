// The name that an agent has when it does not say otherwise: that of its process.
#ifndef RYX_GET_AGENT_PROCESS_NAME_H
#define RYX_GET_AGENT_PROCESS_NAME_H

#include <ryx/api.h>

#include <string>

namespace ryx {

/// The agent's name by its process: the environment variable AGENT_PROCESS_NAME when it is set and
/// not empty, of whose value the part after the last dash counts, unless that dash is the last
/// character; else the file name of the program, or of the script that "python" runs, without its
/// extension and without a leading "lt-". Every character but ASCII letters, digits, '-' and '_'
/// becomes '_'. Ends the process as agent_name_not_found_exit() does when there is no name.
///
/// To be called while no other thread changes the environment.
RYX_API std::string get_agent_process_name();

/// Writes the reason, and what to do about it, to standard error and aborts the process.
[[noreturn]] RYX_API void agent_name_not_found_exit(const char* reason);

}  // namespace ryx

#endif  // RYX_GET_AGENT_PROCESS_NAME_H
