// Puts what the tool has kept into the library's store.
#ifndef TOOLS_PKICTL_STATE_STORE_H
#define TOOLS_PKICTL_STATE_STORE_H

#include <libpki/records.h>

#include <memory>
#include <string>

#include "tools/common/ca_info_reader.h"
#include "tools/pkictl/state_format.h"

namespace pkictl {

using key_info_ptr = std::unique_ptr<key_info, tools::free_with<free_key_info>>;
using cert_info_ptr = std::unique_ptr<cert_info, tools::free_with<free_cert_info>>;

// What the document of a kept CA says, with its label and URL.
struct read_ca_document {
  tools::ca_info_ptr info;
  tools::cert_list_ptr additional_certs;  // of X509
  std::string expires;                    // as the document says it
};

// Reads it apart from the store. Throws failure.
read_ca_document read_ca(const std::string &label, const saved_ca &saved);

// Each enters what is kept under a label and returns the store's record. A CA's additional
// certificates go among the provisioned ones. start_library must have run. Throw failure.
tools::ca_info_ptr enter_ca(const std::string &label, const saved_ca &saved);
key_info_ptr enter_key(const std::string &label, const saved_key &saved);

}  // namespace pkictl

#endif
