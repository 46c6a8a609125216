#include "switch/hub/process.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "switch/hub/files.h"

namespace ryx::hub {
namespace {

// What a user is to the kernel, looked up before the process is split.
struct Identity {
  bool isOther = false;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  std::string home;
};

bool lookUp(const std::string& user, Identity* identity) {
  if (user.empty()) return true;
  const passwd* found = ::getpwnam(user.c_str());
  if (!found) return false;
  identity->isOther = found->pw_uid != ::geteuid();
  identity->uid = found->pw_uid;
  identity->gid = found->pw_gid;
  identity->home = found->pw_dir;
  int count = 256;
  identity->groups.resize(static_cast<size_t>(count));
  if (::getgrouplist(user.c_str(), found->pw_gid, identity->groups.data(), &count) < 0)
    return false;
  identity->groups.resize(static_cast<size_t>(count));
  return true;
}

std::vector<std::string> environmentOf(const Program& program, const Identity& identity) {
  std::vector<std::string> all;
  auto added = program.environment;
  if (identity.isOther) {
    added.emplace_back("USER", program.user);
    added.emplace_back("LOGNAME", program.user);
    added.emplace_back("HOME", identity.home);
  }
  for (char** at = environ; *at; ++at) {
    const std::string_view entry = *at;
    const std::string_view name = entry.substr(0, entry.find('='));
    // The readiness of the server is the server's to tell, and where Statehub is stands fast.
    bool replaced = name == "NOTIFY_SOCKET" || name == "STATEHUBLOCAL" || name == "STATEHUBPORT" ||
                    name.starts_with("STATEHUB_SOCKID_ARG");
    for (const auto& [key, value] : added) replaced |= key == name;
    if (!replaced) all.emplace_back(entry);
  }
  for (const auto& [key, value] : added) all.push_back(key + "=" + value);
  return all;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

// What the child needs, made ready before the process is split.
struct Split {
  const Program& program;
  const Identity& identity;
  char* const* arguments;
  char* const* variables;
  int null;       // /dev/null
  int report[2];  // a pipe that ends when the child is another program, and else carries an errno
};

// In the child: nothing but system calls, since it shares the parent's memory until it is another
// program.
int become(const Split& split) {
  const int descriptor = split.program.descriptor;
  const Identity& identity = split.identity;
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::setpgid(0, 0);
  if (::dup2(split.null, STDIN_FILENO) < 0) return errno;
  if (descriptor >= 0 && ::fcntl(descriptor, F_SETFD, 0) < 0) return errno;
  // The system calls themselves: the library's own would tell the parent's other threads.
  if (identity.isOther &&
      (::syscall(SYS_setgroups, identity.groups.size(), identity.groups.data()) != 0 ||
       ::syscall(SYS_setgid, identity.gid) != 0 || ::syscall(SYS_setuid, identity.uid) != 0))
    return errno;
  ::execvpe(split.program.path.c_str(), split.arguments, split.variables);
  return errno;
}

// The child's number, or -1. Apart from whatever the compiler keeps in registers elsewhere.
[[gnu::noinline]] pid_t splitProcess(const Split& split) {
  const pid_t pid = ::vfork();
  if (pid == 0) {
    const int failure = become(split);
    if (::write(split.report[1], &failure, sizeof failure) < 0) ::_exit(126);
    ::_exit(127);
  }
  return pid;
}

}  // namespace

ProcessId ProcessId::of(pid_t pid) {
  ProcessId id;
  id.pid = pid;
  std::string text;
  if (readFile("/proc/" + std::to_string(pid) + "/stat", &text) == 0) {
    // The 22nd field; the second one, in parentheses, may hold anything.
    size_t at = text.rfind(')');
    for (int field = 2; field < 22 && at != std::string::npos; ++field) at = text.find(' ', at + 1);
    if (at != std::string::npos) id.started = std::strtoull(text.c_str() + at, nullptr, 10);
  }
  if (readFile("/proc/sys/kernel/random/boot_id", &text) == 0)
    id.boot = text.substr(0, text.find('\n'));
  return id;
}

bool ProcessId::isAlive() const {
  if (pid <= 0) return false;
  const ProcessId now = of(pid);
  return now.started != 0 && now.started == started && now.boot == boot;
}

std::unique_ptr<Process> Process::start(const Program& program, Ended ended, std::string* error) {
  Identity identity;
  if (!lookUp(program.user, &identity)) {
    *error = "there is no user \"" + program.user + "\"";
    return nullptr;
  }
  std::vector<std::string> argumentTexts = program.arguments;
  std::vector<std::string> variableTexts = environmentOf(program, identity);
  const std::vector<char*> arguments = pointers(argumentTexts);
  const std::vector<char*> variables = pointers(variableTexts);
  Split split{program, identity, arguments.data(), variables.data(), -1, {-1, -1}};
  split.null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  int failure = ::pipe2(split.report, O_CLOEXEC) == 0 ? 0 : errno;
  const pid_t pid = failure == 0 ? splitProcess(split) : -1;
  if (failure == 0 && pid < 0) failure = errno;
  ::close(split.null);
  ::close(split.report[1]);
  if (pid > 0 && ::read(split.report[0], &failure, sizeof failure) < 0) failure = errno;
  ::close(split.report[0]);
  const int pidfd = failure == 0 ? static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)) : -1;
  if (failure == 0 && pidfd < 0) failure = errno;
  if (failure != 0) {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    *error = "cannot run " + program.path + ": " + std::strerror(failure);
    return nullptr;
  }
  return std::unique_ptr<Process>(new Process(pidfd, ProcessId::of(pid), std::move(ended)));
}

std::unique_ptr<Process> Process::adopt(const ProcessId& id, Ended ended) {
  if (!id.isAlive()) return nullptr;
  const auto pidfd = static_cast<int>(::syscall(SYS_pidfd_open, id.pid, 0));
  if (pidfd < 0) return nullptr;
  // It may have ended, and its number been used again, in between.
  if (id.isAlive()) return std::unique_ptr<Process>(new Process(pidfd, id, std::move(ended)));
  ::close(pidfd);
  return nullptr;
}

Process::Process(int pidfd, ProcessId id, Ended ended)
    : Descriptor(pidfd, "Process"), id_(std::move(id)), ended_(std::move(ended)) {
  ::fcntl(pidfd, F_SETFD, FD_CLOEXEC);
  readableInterestIs(true);
}

Process::~Process() {
  readableInterestIs(false);
  ::close(fd());
}

void Process::signal(int number) {
  if (::kill(-id_.pid, number) != 0) ::syscall(SYS_pidfd_send_signal, fd(), number, nullptr, 0);
}

void Process::onReadable() {
  int status = -1;
  if (::waitpid(id_.pid, &status, WNOHANG) == 0) return;
  readableInterestIs(false);
  const Ended ended = std::move(ended_);
  ended(status);
}

std::string endText(int status) {
  if (status == -1) return "ended";
  if (WIFSIGNALED(status))
    return "was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
           ::strsignal(WTERMSIG(status)) + ")";
  return "exited with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace ryx::hub
