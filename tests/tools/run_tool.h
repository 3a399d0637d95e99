// Runs the real programs.
#ifndef TESTS_TOOLS_RUN_TOOL_H
#define TESTS_TOOLS_RUN_TOOL_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tool_test {

using strings = std::vector<std::string>;

// In front of a library's path: the environment entry that has a tool load it. A tool of
// another machine is started by a script, which must not load it.
#ifdef TOOLS_ARE_STARTED_BY_SCRIPTS
#define TOOL_PRELOAD "TOOL_PRELOAD="
#else
#define TOOL_PRELOAD "LD_PRELOAD="
#endif

struct result {
  int exit_code = -1;  // 128 and the signal's number where one ended the program
  std::string out;
  std::string err;
};

// Runs TOOL_DIR/name, or a program with an absolute path, to its end, with an empty standard input
// and further environment entries "NAME=VALUE". Without one XDG_STATE_HOME is a folder of the test
// program's own.
result run(const std::string &name, const strings &arguments, const strings &environment = {});
inline result pkictl(const strings &arguments, const strings &environment = {}) {
  return run("pkictl", arguments, environment);
}

// One line of text, ended.
bool is_one_line(const std::string &text);

// A folder of its own for a test, removed with everything in it.
class folder {
 public:
  folder();
  ~folder();
  folder(const folder &) = delete;
  folder &operator=(const folder &) = delete;

  std::string operator/(const std::string &file) const { return path_ + "/" + file; }
  // Writes a file and returns its path.
  std::string write(const std::string &file, const std::string &bytes) const;

 private:
  std::string path_;
};

std::string read_file(const std::string &path);

// A pkilab process that serves from a folder of its own choice.
class lab_process {
 public:
  explicit lab_process(const std::string &dir, const strings &arguments = {});
  ~lab_process();
  lab_process(const lab_process &) = delete;
  lab_process &operator=(const lab_process &) = delete;

  // "http://127.0.0.1:PORT"
  const std::string &url() const { return url_; }
  int port() const;
  pid_t pid() const { return pid_; }
  // Waits until the lab has logged a line with this text in it.
  void wait_for_log(const std::string &text);
  // Sends a signal and waits for the end.
  result end(int signal_number);

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string url_;
  std::string first_line_;
  std::string log_;
};

// A pkictl that runs beside the test.
class background_pkictl {
 public:
  background_pkictl(const strings &arguments, const strings &environment);
  ~background_pkictl();
  background_pkictl(const background_pkictl &) = delete;
  background_pkictl &operator=(const background_pkictl &) = delete;

  // Sends a signal and waits for the end.
  result end(int signal_number);
  result wait();

 private:
  pid_t pid_;
  int out_;
  int err_;
};

}  // namespace tool_test

#endif
