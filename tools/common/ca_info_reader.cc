#include "tools/common/ca_info_reader.h"

#include <libpki/error.h>

#include <climits>

#include "tools/common/failure.h"

namespace tools {

read_ca_info read_document(const std::string &xml) {
  read_ca_info read;
  read.info.reset(alloc_ca_info());
  read.additional_certs.reset(OPENSSL_sk_new_null());
  if (!read.info || !read.additional_certs || xml.size() > INT_MAX)
    throw failure("out of memory");
  pki_store_object scratch = {};
  scratch.provisioned_certs = read.additional_certs.get();
  read.code = parse_ca_info_doc(reinterpret_cast<const unsigned char *>(xml.data()),
                                static_cast<int>(xml.size()), &scratch, read.info.get());
  return read;
}

}  // namespace tools
