#include "tools/pkilab/option_words.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <charconv>

namespace pkilab {

void refuse_value(const std::string &value, const std::string &wanted) {
  throw tools::usage_failure("'" + value + "' is not " + wanted);
}

long long number_value(const std::string &text, long long lowest, long long highest) {
  long long value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
    refuse_value(text,
                 "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  return value;
}

answer_time time_value(const std::string &text) {
  constexpr long long longest = 1000LL * 365 * 24 * 60 * 60;
  bool is_number = !text.empty() && text.find_first_not_of("0123456789", text[0] == '-' ? 1 : 0) ==
                                        std::string::npos;
  // A GeneralizedTime is digits too, but its "Z" tells it apart.
  if (is_number)
    return number_value(text, -longest, longest);
  return text;
}

std::string oid_value(const std::string &text) {
  ASN1_OBJECT *object = OBJ_txt2obj(text.c_str(), 1);
  ASN1_OBJECT_free(object);
  if (!object)
    refuse_value(text, "an object identifier as in 1.2.3.4");
  return text;
}

std::string digest_value(const std::string &text) {
  if (!EVP_get_digestbyname(text.c_str()))
    refuse_value(text, "a digest that OpenSSL knows; try SHA1");
  return text;
}

std::string header_value(const std::string &text) {
  return tools::printable(text);
}

}  // namespace pkilab
