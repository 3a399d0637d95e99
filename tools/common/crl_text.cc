#include "tools/common/crl_text.h"

#include <openssl/bn.h>
#include <openssl/err.h>

#include <algorithm>

#include "tools/common/cert_text.h"
#include "tools/common/text.h"

namespace tools {

namespace {

constexpr int decimal_bits = 64;

std::string octets_of(const ASN1_STRING *string) {
  const unsigned char *octets = ASN1_STRING_get0_data(string);
  return std::string(octets, octets + ASN1_STRING_length(string));
}

std::string object_name(const ASN1_OBJECT *object, int only_digits) {
  char text[128] = "";
  OBJ_obj2txt(text, sizeof text, object, only_digits);
  ERR_clear_error();
  return text;
}

}  // namespace

std::vector<std::string> crl_reasons() {
  return {"unspecified",   "keyCompromise",        "CACompromise",    "affiliationChanged",
          "superseded",    "cessationOfOperation", "certificateHold", "",
          "removeFromCRL", "privilegeWithdrawn",   "AACompromise"};
}

std::vector<std::string> reason_flags(const ASN1_BIT_STRING *flags) {
  constexpr int reason_of_bit[] = {0, 1, 2, 3, 4, 5, 6, 9, 10};
  std::vector<std::string> names;
  for (int bit = 0; bit < 9; bit++)
    if (ASN1_BIT_STRING_get_bit(flags, bit))
      names.push_back(bit == 0 ? "unused" : crl_reasons()[static_cast<size_t>(reason_of_bit[bit])]);
  return names;
}

std::string number_text(const ASN1_INTEGER *number) {
  BIGNUM *value = number ? ASN1_INTEGER_to_BN(number, nullptr) : nullptr;
  bool is_short = value && BN_num_bits(value) <= decimal_bits;
  char *digits = nullptr;
  if (value)
    digits = is_short ? BN_bn2dec(value) : BN_bn2hex(value);
  std::string text = digits ? (is_short ? "" : "0x") + std::string(digits) : "unreadable";
  OPENSSL_free(digits);
  BN_free(value);
  ERR_clear_error();
  return text;
}

std::string general_name_text(const GENERAL_NAME *name) {
  if (name->type == GEN_URI)
    return printable(octets_of(name->d.uniformResourceIdentifier));
  if (name->type == GEN_DIRNAME)
    return name_text(name->d.directoryName);
  bio_ptr bio(BIO_new(BIO_s_mem()));
  if (bio)
    GENERAL_NAME_print(bio.get(), const_cast<GENERAL_NAME *>(name));
  ERR_clear_error();
  char *text = nullptr;
  long length = bio ? BIO_get_mem_data(bio.get(), &text) : 0;
  return length > 0 ? printable(std::string(text, static_cast<size_t>(length))) : "unreadable";
}

std::vector<std::string> general_names_text(const GENERAL_NAMES *names) {
  std::vector<std::string> texts;
  texts.reserve(static_cast<size_t>(std::max(sk_GENERAL_NAME_num(names), 0)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names); i++)
    texts.push_back(general_name_text(sk_GENERAL_NAME_value(names, i)));
  return texts;
}

std::string object_text(const ASN1_OBJECT *object) {
  int nid = OBJ_obj2nid(object);
  return nid == NID_undef ? oid_text(object) : OBJ_nid2sn(nid);
}

std::string oid_text(const ASN1_OBJECT *object) {
  return object_name(object, 1);
}

}  // namespace tools
