#include "tools/common/cert_text.h"

#include <openssl/bn.h>
#include <openssl/err.h>

#include <ctime>

#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace tools {

namespace {

// Empty when the name cannot be printed so.
std::string print_name(const X509_NAME *name, unsigned long flags, bool *printed) {
  bio_ptr bio(BIO_new(BIO_s_mem()));
  *printed = bio && X509_NAME_print_ex(bio.get(), name, 0, flags) >= 0;
  ERR_clear_error();
  if (!*printed)
    return "";
  char *text = nullptr;
  long length = BIO_get_mem_data(bio.get(), &text);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
}

}  // namespace

std::string name_text(const X509_NAME *name) {
  if (!name)
    return "";
  unsigned long order = XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_DN_REV | XN_FLAG_FN_SN;
  unsigned long escapes =
      ASN1_STRFLGS_ESC_2253 | ASN1_STRFLGS_ESC_CTRL | XN_FLAG_DUMP_UNKNOWN_FIELDS;
  bool printed = false;
  std::string text = print_name(name, order | escapes | ASN1_STRFLGS_UTF8_CONVERT, &printed);
  // A string that breaks its own type's rules does not convert: show its octets.
  if (!printed)
    text = print_name(name, order | escapes | ASN1_STRFLGS_ESC_MSB, &printed);
  return printed ? printable(text) : "unreadable";
}

std::string serial_text(const ASN1_INTEGER *serial) {
  if (!serial)
    return "";
  BIGNUM *number = ASN1_INTEGER_to_BN(serial, nullptr);
  char *digits = number ? BN_bn2hex(number) : nullptr;
  std::string text = digits ? digits : "unreadable";
  OPENSSL_free(digits);
  BN_free(number);
  ERR_clear_error();
  return text;
}

std::string time_text(const ASN1_TIME *time) {
  struct tm parts = {};
  char text[32];
  bool readable = time && ASN1_TIME_to_tm(time, &parts) == 1;
  ERR_clear_error();
  if (!readable || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &parts) == 0)
    return "unreadable";
  return text;
}

std::string fingerprint_text(const X509 *cert) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (X509_digest(cert, EVP_sha256(), digest, &length) != 1)
    throw failure("cannot compute a certificate's fingerprint");
  return hex(std::string(digest, digest + length), ':');
}

}  // namespace tools
