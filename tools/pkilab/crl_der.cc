#include "tools/pkilab/crl_der.h"

#include <openssl/bn.h>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkilab/day.h"

namespace pkilab::der {

namespace {

constexpr unsigned char enumerated_tag = 0x0A;

// What one of OpenSSL's i2d functions makes.
template <class Encode, class Object>
std::string encoded(Encode encode, Object *object) {
  unsigned char *octets = nullptr;
  int length = object ? encode(object, &octets) : -1;
  if (length < 0)
    throw tools::failure("cannot make the CRL: " + tools::openssl_reason());
  std::string der(octets, octets + length);
  OPENSSL_free(octets);
  return der;
}

}  // namespace

std::string header(unsigned char tag, uint64_t length) {
  std::string octets;
  if (length < 0x80)
    return {static_cast<char>(tag), static_cast<char>(length)};
  for (uint64_t rest = length; rest > 0; rest >>= 8)
    octets.insert(octets.begin(), static_cast<char>(rest & 0xFF));
  octets.insert(octets.begin(), static_cast<char>(0x80 | octets.size()));
  octets.insert(octets.begin(), static_cast<char>(tag));
  return octets;
}

std::string wrap(unsigned char tag, const std::string &content) {
  return header(tag, content.size()) + content;
}

std::string oid(const std::string &text) {
  std::unique_ptr<ASN1_OBJECT, tools::free_with<ASN1_OBJECT_free>> object(
      OBJ_txt2obj(text.c_str(), 1));
  return encoded(i2d_ASN1_OBJECT, object.get());
}

std::string number(const std::string &decimal) {
  BIGNUM *value = nullptr;
  std::unique_ptr<ASN1_INTEGER, tools::free_with<ASN1_STRING_free>> made;
  if (BN_dec2bn(&value, decimal.c_str()) > 0)
    made.reset(BN_to_ASN1_INTEGER(value, nullptr));
  BN_free(value);
  return encoded(i2d_ASN1_INTEGER, made.get());
}

std::string enumerated(int value) {
  return wrap(enumerated_tag, std::string(1, static_cast<char>(value)));
}

std::string name(const X509_NAME *name) {
  return encoded(i2d_X509_NAME, name);
}

std::string serial(const ASN1_INTEGER *serial) {
  return encoded(i2d_ASN1_INTEGER, serial);
}

namespace {

// Seconds from `now`; the sum need not be a time_t.
std::string time_beside(time_t now, long long seconds) {
  struct tm parts = {};
  char text[32];
  if (!gmtime_r(&now, &parts) ||
      !OPENSSL_gmtime_adj(&parts, static_cast<int>(seconds / day),
                          static_cast<long>(seconds % day)) ||
      strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts) == 0)
    throw tools::failure("a time of the CRL is too far away");
  constexpr int first_utc_year = 1950 - 1900;
  constexpr int last_utc_year = 2049 - 1900;
  bool is_utc = parts.tm_year >= first_utc_year && parts.tm_year <= last_utc_year;
  return is_utc ? wrap(utc_time, text + 2) : wrap(generalized_time, text);
}

}  // namespace

std::string time(time_t when) {
  return time_beside(when, 0);
}

std::string time(const answer_time &when, time_t now) {
  constexpr size_t utc_size = 13;  // "YYMMDDHHMMSSZ"
  if (const long long *seconds = std::get_if<long long>(&when))
    return time_beside(now, *seconds);
  const std::string &text = std::get<std::string>(when);
  return wrap(text.size() == utc_size ? utc_time : generalized_time, text);
}

std::string extension(const std::string &oid_text, bool critical, const std::string &value) {
  std::string flag = critical ? wrap(boolean, "\xFF") : "";
  return wrap(sequence, oid(oid_text) + flag + wrap(octet_string, value));
}

}  // namespace pkilab::der
