#include "tools/pkictl/tag_names.h"

#include <charconv>
#include <sstream>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/text.h"

namespace pkictl {

namespace {

constexpr size_t tag_count = 256;

// Enters what a line says; false when that is not a number and a name.
bool enter(const std::string &line, tag_names *names) {
  size_t tag = 0;
  const char *end = line.data() + line.size();
  auto [rest, error] = std::from_chars(line.data(), end, tag);
  std::string name = tools::trim(std::string(rest, end));
  if (error != std::errc() || rest == end || (*rest != ' ' && *rest != '\t') || name.empty() ||
      tag >= tag_count || tools::printable(name) != name)
    return false;
  (*names)[tag] = name;
  return true;
}

}  // namespace

tag_names read_tag_names(const std::string &path) {
  tag_names names(tag_count);
  std::istringstream lines(tools::read_file(path));
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    number++;
    line = tools::trim(line);
    if (!line.empty() && !enter(line, &names))
      throw tools::failure(path + ", line " + std::to_string(number) +
                           ": write a tag's number (0 to 255), a blank and its name");
  }
  return names;
}

}  // namespace pkictl
