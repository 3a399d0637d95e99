// The tool's standard output, kept apart from what the library or a vendor's board library may
// write there.
#ifndef TOOLS_PKICTL_OUTPUT_H
#define TOOLS_PKICTL_OUTPUT_H

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace pkictl {

using json = nlohmann::ordered_json;

class output {
 public:
  // Takes a private copy of descriptor 1 and points descriptor 1 itself at stderr, so that only
  // what goes through this object reaches the reader. Make it before the first library call.
  output();
  ~output();
  output(const output &) = delete;
  output &operator=(const output &) = delete;

  // Throw failure when the reader cannot be reached.
  void write_text(const std::string &text);
  void write_json(const json &value);

  // What `print` writes to the C library's stdout. Throws failure.
  static std::string standard_output_of(const std::function<void()> &print);

 private:
  int fd_;
};

}  // namespace pkictl

#endif
