// Octets of any number, from a file or a server, without holding them.
#ifndef TOOLS_PKICTL_OCTET_SOURCE_H
#define TOOLS_PKICTL_OCTET_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace pkictl {

class octet_source {
 public:
  octet_source() = default;
  virtual ~octet_source() = default;
  octet_source(const octet_source &) = delete;
  octet_source &operator=(const octet_source &) = delete;

  // At most `size` octets; 0 at the end. Throws tools::failure.
  virtual size_t read(char *buffer, size_t size) = 0;
  // How many there are, or 0: not known.
  virtual uint64_t length() const = 0;
};

// Or else a file.
bool is_url(const std::string &file_or_url);

// Opens a file, or asks the server of an http URL. Throws tools::failure.
std::unique_ptr<octet_source> open_source(const std::string &file_or_url);

}  // namespace pkictl

#endif
