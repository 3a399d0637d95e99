#include "tools/pkictl/signed_file.h"

#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <cstdlib>

#include "tools/common/failure.h"
#include "tools/common/ossl.h"
#include "tools/common/text.h"

namespace pkictl {

namespace {

const unsigned char *octets(const std::string &bytes) {
  return reinterpret_cast<const unsigned char *>(bytes.data());
}

const ASN1_OCTET_STRING *signed_data(const PKCS7 *message) {
  if (!message || !PKCS7_type_is_signed(message) || !message->d.sign)
    return nullptr;
  const PKCS7 *content = message->d.sign->contents;
  return content && PKCS7_type_is_data(content) ? content->d.data : nullptr;
}

}  // namespace

int open_signed(const std::string &message, EVP_PKEY *key, std::string *xml) {
  unsigned char *content = nullptr;
  int length = 0;
  int code =
      verify_bytes(octets(message), static_cast<int>(message.size()), key, &content, &length);
  if (code == 0)
    xml->assign(content, content + length);
  free(content);
  return code;
}

std::string open_unchecked(const std::string &path, const std::string &bytes, bool *is_signed) {
  const unsigned char *at = octets(bytes);
  tools::pkcs7_ptr message(d2i_PKCS7(nullptr, &at, static_cast<long>(bytes.size())));
  ERR_clear_error();
  const ASN1_OCTET_STRING *data = signed_data(message.get());
  *is_signed = data != nullptr;
  if (data)
    return std::string(ASN1_STRING_get0_data(data),
                       ASN1_STRING_get0_data(data) + ASN1_STRING_length(data));
  if (!tools::trim(bytes).starts_with("<"))
    throw tools::failure(path + " is neither a signed CA-info document nor XML");
  return bytes;
}

}  // namespace pkictl
