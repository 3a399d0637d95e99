#include "tools/pkictl/scep_file.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/scep_message.h"

namespace pkictl {

namespace {

tools::pkcs7_ptr read_pem(const std::string &text) {
  tools::bio_ptr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  tools::pkcs7_ptr message(PEM_read_bio_PKCS7(bio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return message;
}

tools::pkcs7_ptr read_text(std::string text) {
  size_t version = text.find(" HTTP/1.");
  size_t mark = text.find('?');
  text = text.substr(
      mark == std::string::npos ? 0 : mark + 1,
      version == std::string::npos || mark > version ? std::string::npos : version - mark - 1);
  std::string base64 = tools::query_value(text, "message").value_or(text);
  return tools::decode_pkcs7(tools::decode_message_text(base64).value_or(""));
}

}  // namespace

tools::pkcs7_ptr load_scep_message(const std::string &path) {
  std::string bytes = tools::read_file(path);
  tools::pkcs7_ptr message = tools::decode_pkcs7(bytes);
  if (!message)
    message = bytes.find("-----BEGIN ") == std::string::npos ? read_text(bytes) : read_pem(bytes);
  if (!message)
    throw tools::failure(path + " holds no PKCS#7 message (DER, PEM, base64 or a query)");
  return message;
}

}  // namespace pkictl
