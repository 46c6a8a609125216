// An agent's name by its process.
#include "ryx/get_agent_process_name.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "lib/names.h"
#include "platform/base/check.h"

namespace ryx {

namespace {

constexpr size_t kCommandLineBytes = 200;

std::string readCommandLine() {
  std::FILE* file = std::fopen("/proc/self/cmdline", "re");
  if (file == nullptr) agent_name_not_found_exit("Unable to read /proc/self/cmdline");
  char bytes[kCommandLineBytes];
  const size_t size = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  if (size == 0) agent_name_not_found_exit("Unable to determine an agent name from cmdline");
  return std::string(bytes, size);
}

// The NUL-terminated word, without which the line stands then.
std::string_view takeWord(std::string_view* line) {
  const std::string_view word = line->substr(0, line->find('\0'));
  line->remove_prefix(word.size() < line->size() ? word.size() + 1 : word.size());
  return word;
}

std::string_view fileName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);  // all of it where there is no slash
}

std::string nameOfProgram() {
  const std::string line = readCommandLine();
  std::string_view words = line;
  const std::string program(takeWord(&words));
  std::string_view name = fileName(program);
  if (name == "python") name = fileName(takeWord(&words));
  if (const size_t dot = name.rfind('.'); dot != std::string_view::npos && dot != 0)
    name = name.substr(0, dot);
  if (name.starts_with("lt-")) name.remove_prefix(3);
  if (name.empty()) {
    char* reason = nullptr;
    if (::asprintf(&reason, "No agent name found: '%s'", program.c_str()) < 0)
      agent_name_not_found_exit("No agent name, no memory");
    agent_name_not_found_exit(reason);
  }
  return std::string(name);
}

std::string nameOfProcess() {
  const char* value = std::getenv("AGENT_PROCESS_NAME");
  if (value == nullptr) return nameOfProgram();
  const std::string_view text = value;
  if (text.empty()) {
    std::fputs("not using AGENT_PROCESS_NAME since empty", stderr);
    return nameOfProgram();
  }
  const size_t dash = text.rfind('-');
  const bool cut = dash != std::string_view::npos && dash + 1 < text.size();
  return std::string(cut ? text.substr(dash + 1) : text);
}

}  // namespace

std::string get_agent_process_name() {
  std::string name = nameOfProcess();
  for (char& c : name)
    if (!isNameCharacter(c)) c = '_';
  return name;
}

// The texts are as programs and their users know them.
void agent_name_not_found_exit(const char* reason) {
  std::fprintf(stderr,
               "We get the agent name from the binary name, or it can be set"
               "explicitely via the ryx::sdk(std::string) constructor.\n"
               "%s.\n"
               "Unable to find a process name: aborting!\n",
               reason);
  platform::checkFailed("No process name");
}

}  // namespace ryx
