#include "tests/client/daemon_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cstdlib>
#include <stdexcept>

namespace kelvane::tests {

DaemonProcess::DaemonProcess(const std::string& socket_path, const std::vector<std::string>& arguments) {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  std::vector<std::string> words{STAND_IN_DAEMON, socket_path};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const int failed = ::posix_spawn(&pid_, STAND_IN_DAEMON, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  input_ = FileDescriptor(in[1]);
  output_ = ::fdopen(out[0], "r");
  if (failed != 0) throw std::runtime_error("the stand-in daemon cannot be started");
  await("ready");
}

void DaemonProcess::tell(const std::string& line) const {
  const std::string text = line + "\n";
  ASSERT_EQ(::write(input_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::string DaemonProcess::hear() {
  char* text = nullptr;
  std::size_t room = 0;
  const ssize_t length = ::getline(&text, &room, output_);
  std::string line = length > 0 ? std::string(text, static_cast<std::size_t>(length - 1)) : "the end";
  std::free(text);
  return line;
}

void DaemonProcess::await(const std::string& line) {
  for (std::string heard = hear(); heard != line; heard = hear()) {
    if (heard == "the end")
      throw std::runtime_error("the stand-in daemon ended before it wrote \"" + line + "\"");
  }
}

std::string DaemonProcess::ask(const std::string& line) {
  tell(line);
  const std::string beginning = line + ": ";
  for (;;) {
    std::string heard = hear();
    if (heard.starts_with(beginning)) return heard.substr(beginning.size());
    if (heard == "the end") return heard;
  }
}

void DaemonProcess::end(int signal) {
  if (pid_ < 0) return;
  ::kill(pid_, signal);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
  std::fclose(output_);
}

}  // namespace kelvane::tests
