#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace tool_test {

namespace {

struct process {
  pid_t pid;
  int out;
  int err;
};

std::vector<char *> pointers(strings *texts) {
  std::vector<char *> list;
  for (std::string &text : *texts)
    list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

// Unless there is one of that name: a shell that starts the tool would take the last one.
void add_entry(const std::string &entry, strings *entries) {
  const std::string name = entry.substr(0, entry.find('=') + 1);
  for (const std::string &other : *entries)
    if (other.starts_with(name))
      return;
  entries->push_back(entry);
}

strings whole_environment(const strings &additions) {
  strings entries = additions;
  static const folder state;
  add_entry("XDG_STATE_HOME=" + (state / "state"), &entries);
  for (char **entry = environ; *entry; entry++)
    add_entry(*entry, &entries);
  return entries;
}

process start(const std::string &name, const strings &arguments, const strings &environment) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  strings words = {std::filesystem::path(TOOL_DIR) / name};
  words.insert(words.end(), arguments.begin(), arguments.end());
  strings entries = whole_environment(environment);
  pid_t pid = -1;
  int error = posix_spawn(&pid, words[0].c_str(), &actions, nullptr, pointers(&words).data(),
                          pointers(&entries).data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (error != 0)
    throw std::runtime_error("cannot run " + words[0]);
  return {pid, out[0], err[0]};
}

// Reads what is there; false at the end of the stream.
bool drain(int fd, std::string *text) {
  char part[4096];
  ssize_t got = read(fd, part, sizeof part);
  if (got > 0)
    text->append(part, static_cast<size_t>(got));
  return got > 0;
}

void read_both(int out, int err, result *into) {
  pollfd waits[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
  while (waits[0].fd >= 0 || waits[1].fd >= 0) {
    if (poll(waits, 2, 120000) <= 0)
      break;
    if (waits[0].revents && !drain(out, &into->out))
      waits[0].fd = -1;
    if (waits[1].revents && !drain(err, &into->err))
      waits[1].fd = -1;
  }
}

int wait_for(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

result run(const std::string &name, const strings &arguments, const strings &environment) {
  process started = start(name, arguments, environment);
  result done;
  read_both(started.out, started.err, &done);
  close(started.out);
  close(started.err);
  done.exit_code = wait_for(started.pid);
  return done;
}

bool is_one_line(const std::string &text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

folder::folder() {
  std::string path = (std::filesystem::temp_directory_path() / "pki-tools-XXXXXX").string();
  if (!mkdtemp(path.data()))
    throw std::runtime_error("mkdtemp");
  path_ = path;
}

folder::~folder() {
  std::filesystem::remove_all(path_);
}

std::string folder::write(const std::string &file, const std::string &bytes) const {
  std::string path = path_ + "/" + file;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

lab_process::lab_process(const std::string &dir, const strings &arguments) {
  std::string ready = dir + ".ready";
  unlink(ready.c_str());  // of another lab with this folder
  strings words = {"serve", "--dir", dir, "--ready-file", ready};
  words.insert(words.end(), arguments.begin(), arguments.end());
  process started = start("pkilab", words, {});
  pid_ = started.pid;
  out_ = started.out;
  err_ = started.err;
  // Quiet, it tells only the file.
  bool is_quiet = std::find(arguments.begin(), arguments.end(), "--quiet") != arguments.end();
  while (first_line_.find('\n') == std::string::npos &&
         !(is_quiet && access(ready.c_str(), F_OK) == 0)) {
    pollfd readable = {out_, POLLIN, 0};
    if (poll(&readable, 1, 20) > 0 && !drain(out_, &first_line_))
      break;
  }
  url_ = read_file(ready);
  if (url_.empty())
    throw std::runtime_error("pkilab does not start: " + end(SIGKILL).err);
  url_.pop_back();
}

lab_process::~lab_process() {
  if (pid_ > 0)
    end(SIGKILL);
}

int lab_process::port() const {
  return std::stoi(url_.substr(url_.rfind(':') + 1));
}

void lab_process::wait_for_log(const std::string &text) {
  while (log_.find(text) == std::string::npos)
    if (!drain(err_, &log_))
      throw std::runtime_error("pkilab ended without logging: " + text);
}

result lab_process::end(int signal_number) {
  result done;
  done.out = first_line_;
  done.err = log_;
  kill(pid_, signal_number);
  read_both(out_, err_, &done);
  done.exit_code = wait_for(pid_);
  close(out_);
  close(err_);
  pid_ = -1;
  return done;
}

background_pkictl::background_pkictl(const strings &arguments, const strings &environment) {
  process started = start("pkictl", arguments, environment);
  pid_ = started.pid;
  out_ = started.out;
  err_ = started.err;
}

background_pkictl::~background_pkictl() {
  if (pid_ > 0)
    end(SIGKILL);
}

result background_pkictl::end(int signal_number) {
  kill(pid_, signal_number);
  return wait();
}

result background_pkictl::wait() {
  result done;
  read_both(out_, err_, &done);
  done.exit_code = wait_for(pid_);
  close(out_);
  close(err_);
  pid_ = -1;
  return done;
}

}  // namespace tool_test
