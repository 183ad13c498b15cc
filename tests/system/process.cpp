#include "tests/system/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace kelvane::tests {
namespace {

constexpr auto patience = std::chrono::seconds(30);

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (std::string& string : strings) out.push_back(string.data());
  out.push_back(nullptr);
  return out;
}

bool contains(const std::string& line, const std::string& text) {
  return line.find(text) != std::string::npos;
}

}  // namespace

Process::Process(std::vector<std::string> command, std::vector<std::string> environment) {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string name = std::string(*variable).substr(0, std::string(*variable).find('=') + 1);
    const auto set = [&](const std::string& given) { return given.starts_with(name); };
    if (std::none_of(environment.begin(), environment.end(), set)) environment.emplace_back(*variable);
  }
  const std::vector<char*> arguments = pointers(command);
  const std::vector<char*> variables = pointers(environment);
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) std::abort();
  id_ = ::fork();
  if (id_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(pipe[1], STDOUT_FILENO);
    ::dup2(pipe[1], STDERR_FILENO);
    ::execvpe(arguments[0], arguments.data(), variables.data());
    ::_exit(127);
  }
  ::close(pipe[1]);
  reader_ = std::thread([this, descriptor = pipe[0]] { read(descriptor); });
}

Process::~Process() {
  if (!waited_) {
    ::kill(id_, SIGKILL);
    wait();
  }
  reader_.join();
}

void Process::signal(int number) const { ::kill(id_, number); }

int Process::wait() {
  int status = 0;
  ::waitpid(id_, &status, 0);
  waited_ = true;
  return status;
}

void Process::read(int descriptor) {
  std::string rest;
  std::array<char, 4096> buffer{};
  ssize_t length = 0;
  while ((length = ::read(descriptor, buffer.data(), buffer.size())) > 0) {
    rest.append(buffer.data(), static_cast<std::size_t>(length));
    const std::scoped_lock lock(mutex_);
    for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
      lines_.push_back(rest.substr(0, end));
      rest.erase(0, end + 1);
    }
    changed_.notify_all();
  }
  ::close(descriptor);
  const std::scoped_lock lock(mutex_);
  if (!rest.empty()) lines_.push_back(rest);
  ended_ = true;
  changed_.notify_all();
}

bool Process::printed(const std::string& text) { return printed(text, 1); }

bool Process::printed(const std::string& text, std::size_t times) {
  std::unique_lock lock(mutex_);
  const auto found = [&] {
    const auto lines =
        std::count_if(lines_.begin(), lines_.end(), [&](const auto& line) { return contains(line, text); });
    return static_cast<std::size_t>(lines) >= times;
  };
  changed_.wait_for(lock, patience, [&] { return found() || ended_; });
  return found();
}

std::size_t Process::count(const std::string& text) {
  const std::scoped_lock lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(lines_.begin(), lines_.end(), [&](const auto& line) { return contains(line, text); }));
}

std::string Process::output() {
  const std::scoped_lock lock(mutex_);
  std::string all;
  for (const std::string& line : lines_) all += line + "\n";
  return all;
}

Finished run(std::vector<std::string> command, std::vector<std::string> environment) {
  Process process(std::move(command), std::move(environment));
  const int status = process.wait();
  static_cast<void>(process.printed("\n"));  // a line that never comes: waits for the end of the output
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), process.output()};
}

std::string built(const std::string& name) { return std::filesystem::path(KELVANE_BINARY_FOLDER) / name; }

}  // namespace kelvane::tests
