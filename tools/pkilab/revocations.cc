#include "tools/pkilab/revocations.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "tools/common/cert_text.h"
#include "tools/common/crl_text.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace pkilab {

namespace {

constexpr const char *no_reason = "none";

std::string reason_name(int number) {
  std::vector<std::string> names = revocation_reasons();
  return number < 0 ? no_reason : names.at(static_cast<size_t>(number));
}

// "1763719337 keyCompromise"
std::optional<revocation> parse(const std::string &text) {
  std::istringstream words(text);
  revocation how;
  std::string name;
  if (!(words >> how.at >> name))
    return std::nullopt;
  if (name == no_reason)
    return how;
  std::vector<std::string> names = revocation_reasons();
  auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end())
    return std::nullopt;
  how.reason = static_cast<int>(found - names.begin());
  return how;
}

}  // namespace

std::vector<std::string> revocation_reasons() {
  std::vector<std::string> names = tools::crl_reasons();
  names.at(CRL_REASON_REMOVE_FROM_CRL).clear();
  return names;
}

std::string revocations::path(const ASN1_INTEGER *serial) const {
  return folder_ + "/" + tools::serial_text(serial) + ".txt";
}

bool revocations::revoke(const ASN1_INTEGER *serial, const revocation &how) const {
  if (tools::file_exists(path(serial)))
    return false;
  tools::make_folders(folder_);
  std::string text = std::to_string(how.at) + " " + reason_name(how.reason) + "\n";
  tools::write_file(path(serial), text, 0644);
  return true;
}

bool revocations::restore(const ASN1_INTEGER *serial) const {
  if (unlink(path(serial).c_str()) == 0)
    return true;
  if (errno == ENOENT)
    return false;
  throw tools::failure("cannot remove " + path(serial) + ": " + strerror(errno));
}

std::vector<serial_ptr> revocations::serials() const {
  const std::string ending = ".txt";
  std::vector<serial_ptr> all;
  for (const std::string &name : tools::list_folder(folder_)) {
    serial_ptr serial = name.ends_with(ending)
                            ? tools::parse_serial(name.substr(0, name.size() - ending.size()))
                            : nullptr;
    if (serial)
      all.push_back(std::move(serial));
  }
  return all;
}

std::optional<revocation> revocations::find(const ASN1_INTEGER *serial) const {
  if (!tools::file_exists(path(serial)))
    return std::nullopt;
  std::optional<revocation> how = parse(tools::read_file(path(serial)));
  if (!how)
    throw tools::failure(path(serial) + " is damaged; remove it, and revoke again");
  return how;
}

}  // namespace pkilab
