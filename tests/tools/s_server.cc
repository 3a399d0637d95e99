#include "s_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

extern char **environ;

namespace tool_test {

namespace {

// The line that ends with the port, as in "ACCEPT 127.0.0.1:40001".
std::string read_port(int fd) {
  std::string text;
  char c = 0;
  while (read(fd, &c, 1) == 1) {
    if (c != '\n')
      text += c;
    else if (text.starts_with("ACCEPT"))
      return text.substr(text.rfind(':') + 1);
    else
      text.clear();
  }
  throw std::runtime_error("openssl s_server does not start");
}

}  // namespace

s_server::s_server(const strings &options) {
  // With -www it answers whoever connects, and leaves its standard input alone.
  strings words = {"openssl", "s_server", "-accept", "127.0.0.1:0", "-www"};
  words.insert(words.end(), options.begin(), options.end());
  std::vector<char *> arguments;
  for (std::string &word : words)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  int error = posix_spawnp(&pid_, "openssl", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  out_ = out[0];
  if (error != 0)
    throw std::runtime_error("cannot run openssl");
  port_ = read_port(out_);
}

s_server::~s_server() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(out_);
}

}  // namespace tool_test
