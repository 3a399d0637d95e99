// A CA-info document as a device reads it, apart from the process's own store.
#ifndef TOOLS_COMMON_CA_INFO_READER_H
#define TOOLS_COMMON_CA_INFO_READER_H

#include <libpki/records.h>
#include <libpki/store.h>

#include <memory>
#include <string>

#include "tools/common/ossl.h"

namespace tools {

using ca_info_ptr = std::unique_ptr<ca_info, free_with<free_ca_info>>;

inline void free_certs(STACK *list) {
  sk_X509_pop_free(reinterpret_cast<STACK_OF(X509) *>(list), X509_free);
}
using cert_list_ptr = std::unique_ptr<STACK, free_with<free_certs>>;

struct read_ca_info {
  int code = 0;  // of parse_ca_info_doc
  ca_info_ptr info;
  cert_list_ptr additional_certs;  // of X509
};

// Reads `xml` with parse_ca_info_doc. What stood before an error is in the result.
read_ca_info read_document(const std::string &xml);

}  // namespace tools

#endif
