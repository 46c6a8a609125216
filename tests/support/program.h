// A program that a test runs: what it prints is read here, and what it reads is written here.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace ryx::test {

// Milliseconds of patience with a line that does not come.
inline constexpr int kDeadline = 30'000;
// What the test has to do in the meantime, over and over.
inline std::function<void()> whileWaiting = [] {};

// A program whose output, both kinds of it, is read here, and whose input is written here.
class Program {
 public:
  explicit Program(std::vector<std::string> words) {
    int in[2], out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    EXPECT_EQ(0, posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ)) << words[0];
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  Program(const Program&) = delete;
  ~Program() {
    if (pid_ > 0) kill(SIGKILL);
    close(input_);
    close(output_);
  }

  // Reads up to a line that has `text` in it, and gives that line; all that came, when none did.
  std::string line(const std::string& text) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(kDeadline);
    std::string came;
    for (;;) {
      for (size_t length; (length = read_.find('\n')) != std::string::npos;) {
        const std::string one = read_.substr(0, length);
        read_.erase(0, length + 1);
        if (one.find(text) != std::string::npos) return one;
        came += one + "\n";
      }
      pollfd ready{output_, POLLIN, 0};
      char bytes[4096];
      ssize_t n = 0;
      whileWaiting();
      if (poll(&ready, 1, 5) == 0 && Clock::now() < end) continue;
      if (!ready.revents || (n = read(output_, bytes, sizeof bytes)) <= 0) {
        ADD_FAILURE() << "no line with '" << text << "', but:\n" << came << read_;
        return came;
      }
      read_.append(bytes, static_cast<size_t>(n));
    }
  }
  // The next line, whatever it is.
  std::string next() { return line(""); }
  void say(const std::string& line) {
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(input_, line.data(), line.size()));
  }
  pid_t pid() const { return pid_; }
  void signal(int number) { ::kill(pid_, number); }
  // The status as a shell has it.
  int kill(int number) {
    signal(number);
    return end();
  }
  // What it prints until it ends.
  std::string rest() {
    char bytes[4096];
    for (ssize_t n; (n = read(output_, bytes, sizeof bytes)) > 0;)
      read_.append(bytes, static_cast<size_t>(n));
    return read_;
  }
  int end() {
    int status = 0;
    EXPECT_EQ(pid_, waitpid(pid_, &status, 0));
    pid_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

 private:
  pid_t pid_ = -1;
  int input_, output_;
  std::string read_;
};

}  // namespace ryx::test
