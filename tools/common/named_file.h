// Files that a person named: all of a command's get their place, or none.
#ifndef TOOLS_COMMON_NAMED_FILE_H
#define TOOLS_COMMON_NAMED_FILE_H

#include <sys/types.h>

#include <string>

namespace tools {

// Written beside its place, put there, and kept; until it is kept, its end leaves all as it was.
// One that is there is replaced only with `force`, and refused without; behind a link it is the
// file that the link leads to. A device is written to at once, and nothing of that is taken back.
// All throw failure.
class named_file {
 public:
  // Refuses what cannot be written.
  named_file(const std::string &path, bool force);
  ~named_file();
  named_file(const named_file &) = delete;
  named_file &operator=(const named_file &) = delete;

  void write(const std::string &bytes, mode_t mode);
  void put();
  void keep() { is_put_ = false; }

 private:
  [[noreturn]] void fail() const;
  int make_temporary();

  std::string named_;
  std::string path_;
  bool force_;
  bool is_device_;
  std::string temporary_;  // "" before there is one; once put, what was there before
  bool is_put_ = false;
  bool has_replaced_ = false;
};

// One that stands alone.
void write_named_file(const std::string &path, const std::string &bytes, mode_t mode, bool force);

}  // namespace tools

#endif
