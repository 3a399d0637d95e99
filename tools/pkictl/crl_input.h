// A CRL out of a file or off a server, DER or PEM, as the library's scan reads it.
#ifndef TOOLS_PKICTL_CRL_INPUT_H
#define TOOLS_PKICTL_CRL_INPUT_H

#include <libpki/crl.h>

#include <exception>
#include <vector>

#include "tools/pkictl/octet_source.h"
#include "tools/pkictl/progress_bar.h"

namespace pkictl {

class crl_input {
 public:
  // Opens it. Throws tools::failure.
  explicit crl_input(const std::string &file_or_url);
  ~crl_input();
  crl_input(const crl_input &) = delete;
  crl_input &operator=(const crl_input &) = delete;

  // pki_scan_crl over it. Throws tools::library_failure with a line that says what is wrong with
  // the file or the server's answer. `report->crl` is the caller's to free.
  void scan(const pki_crl_query &query, pki_crl_report *report);

 private:
  class pem_decoder;

  static ssize_t read(void *self, void *buffer, size_t size) noexcept;
  size_t read_der(char *buffer, size_t size);
  size_t read_pem(char *buffer, size_t size);
  size_t read_raw(char *buffer, size_t size);
  void begin();
  void find_pem();
  bool find_pem_label();
  std::string failure_of(int code, const std::string &heard) const;

  std::string name_;
  std::unique_ptr<octet_source> source_;
  progress_bar progress_;
  std::string pending_;  // read and not yet used
  uint64_t octets_ = 0;  // handed to the library
  std::unique_ptr<pem_decoder> pem_;
  std::exception_ptr broken_;
};

}  // namespace pkictl

#endif
