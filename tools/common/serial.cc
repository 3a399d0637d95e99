#include "tools/common/serial.h"

#include <openssl/bn.h>

#include <algorithm>

#include "tools/common/failure.h"

namespace tools {

namespace {

constexpr size_t max_digits = 128;
constexpr const char *decimal_mark = "dec:";

bool is_made_of(const std::string &text, const char *characters) {
  return !text.empty() && text.size() <= max_digits &&
         text.find_first_not_of(characters) == std::string::npos;
}

std::string hex_digits_of(std::string text) {
  if (text.starts_with("0x") || text.starts_with("0X"))
    text.erase(0, 2);
  text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
  return is_made_of(text, "0123456789abcdefABCDEF") ? text : "";
}

std::string decimal_digits_of(const std::string &text) {
  std::string digits = text.substr(std::string(decimal_mark).size());
  return is_made_of(digits, "0123456789") ? digits : "";
}

}  // namespace

serial_ptr parse_serial(const std::string &text) {
  bool is_decimal = text.starts_with(decimal_mark);
  std::string digits = is_decimal ? decimal_digits_of(text) : hex_digits_of(text);
  if (digits.empty())
    return nullptr;
  BIGNUM *number = nullptr;
  if (is_decimal)
    BN_dec2bn(&number, digits.c_str());
  else
    BN_hex2bn(&number, digits.c_str());
  serial_ptr serial(number ? BN_to_ASN1_INTEGER(number, nullptr) : nullptr);
  BN_free(number);
  if (!serial)
    throw failure("out of memory");
  return serial;
}

serial_ptr require_serial(const std::string &text) {
  serial_ptr serial = parse_serial(text);
  if (!serial)
    throw usage_failure("'" + text +
                        "' is no serial number; write it in hexadecimal as in 10C4, 0x10C4 or"
                        " 10:C4, or in decimal as in dec:4292");
  return serial;
}

}  // namespace tools
