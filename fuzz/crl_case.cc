#include "crl_case.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "support/crl_der.h"

namespace fuzz {

namespace {

using namespace support;

enum length_kind { length_right, length_none, length_too_long, length_too_short, length_huge };
enum end_kind { end_behind, end_within, reset_within, end_long_behind };

constexpr size_t longest_answer = 300000;
constexpr uint8_t target_none = 0x11, target_long_serial = 2, target_other_issuer = 4,
                  target_starts = 8;

uint32_t number(const uint8_t (&octets)[2]) {
  return octets[0] | static_cast<uint32_t>(octets[1]) << 8;
}

int announced(const crl_choices &choices, size_t size) {
  int exact = static_cast<int>(size);
  switch (choices.length_kind % 5) {
    case length_none:
      return -1;
    case length_too_long:
      return exact + 1 + choices.length_change;
    case length_too_short:
      return exact - std::min(exact, 1 + choices.length_change);
    case length_huge:
      return INT_MAX;
    default:
      return exact;
  }
}

void set_end(const crl_choices &choices, server_script *script) {
  size_t size = script->body.size();
  script->size = size;
  switch (choices.end % 4) {
    case end_within:
    case reset_within:
      script->size = size > 0 ? number(choices.cut) % size : 0;
      script->reset = choices.end % 4 == reset_within;
      break;
    case end_long_behind:
      if (size == 0)
        break;
      script->repeated = 1 + choices.repeated % size;
      script->size = size + number(choices.cut) * 8;
      script->size = std::min(script->size, longest_answer);
      break;
    default:
      break;
  }
}

cert make_target(bool long_serial, bool other_issuer) {
  cert made = simple_cert(other_issuer ? "other" : "issuer", "device", short_serial);
  if (long_serial)
    X509_set_serialNumber(made.get(), make_serial(long_serial_octets).get());
  return made;
}

std::vector<std::string> make_elements() {
  std::vector<std::string> made = {
      crl_entry(short_serial),
      crl_entry(short_serial, reason_code(1)),
      crl_entry(short_serial, certificate_issuer("other")),
      crl_entry(short_serial, certificate_issuer("issuer")),
      crl_entry(short_serial, reason_code(8) + certificate_issuer("issuer")),
      crl_entry(long_serial_octets),
      crl_entry(long_serial_octets, reason_code(6), der_generalized_time(crl_der_now)),
      crl_entry(77),
      crl_entry(77, reason_code(1)),
      crl_entry(77, certificate_issuer("other")),
      crl_entry(78, unknown_extension(false)),
      crl_entry(std::string(21, '\x11')),
      crl_entry(std::string("\x00\x05", 2)),
      crl_entry("\xff\xfb", reason_code(1)),
      crl_entry(""),
      crl_entry("\x77", "", der_tlv(0x17, std::string(13, '\0'))),
      crl_entry("\x77", "", der_tlv(0x18, "")),
      crl_entry(std::string(200, '\x11'), reason_code(1)),
      reason_code(1),
      reason_code(200),
      reason_code(1, true),
      certificate_issuer("other"),
      certificate_issuer("issuer"),
      certificate_issuer("other", true),
      crl_extension("2.5.29.29", der_tlv(0x30, "")),
      crl_extension("2.5.29.29", der_tlv(0x30, der_uri("http://a/"))),
      crl_extension("2.5.29.29", der_tlv(0x30, der_uri("http://a/") + der_directory_name("x"))),
      crl_extension("2.5.29.29", ""),
      crl_extension("2.5.29.24", der_generalized_time(crl_der_now)),
      crl_extension("2.5.29.23", der_oid("1.2.840.10040.2.1")),
      unknown_extension(false),
      unknown_extension(true),
      der_tlv(0x30, reason_code(1)),
      der_tlv(0x30, ""),
      crl_number(3),
      delta_crl_indicator(2),
      freshest_crl({"http://a/", "http://b/"}),
      issuing_dist_point({.uris = {"http://a/"}, .indirect = true}),
      authority_key_id({.key_id = "\x01\x02"}),
      authority_key_id({.issuer = der_directory_name("issuer"), .serial = "\x01"}),
      der_tlv(0xa0, der_tlv(0x30, crl_number(3))),
      der_tlv(0xa0, ""),
      der_utc_time(crl_der_now),
      der_generalized_time(crl_der_now),
      der_tlv(0x17, "2311142213Z"),
      der_tlv(0x17, "231114221320+0100"),
      der_name("issuer"),
      der_name("other"),
      der_directory_name("issuer"),
      der_tlv(0x30, ""),
      der_algorithm("sha256WithRSAEncryption"),
      der_algorithm("ecdsa-with-SHA384", false),
      der_algorithm("rsaEncryption"),
      der_algorithm("RSASSA-PSS"),
      der_algorithm("ED25519", false),
      der_algorithm("1.2.3.4"),
      der_integer(0),
      der_integer(1),
      der_integer(short_serial),
      der_integer(std::string("\x00\x00\x05", 3)),
      der_integer("\xff\xff\xff\x05"),
      der_tlv(0x03, std::string("\x00\x01", 2)),
      der_tlv(0x03, ""),
      der_oid("1.2.840.113549.1.7.2"),
      der_oid("1.2.840.113549.1.7.1"),
      der_tlv(0xa0, der_tlv(0x30, std::string(600, '\x01'))),
      std::string("\x00\x00", 2),
      std::string(501, 'z'),
  };
  return made;
}

}  // namespace

crl_case read_crl_case(const uint8_t *data, size_t size) {
  crl_choices choices;
  std::memcpy(&choices, data, std::min(size, sizeof choices));
  crl_case made;
  made.format = choices.format % 3;
  made.has_target = (choices.target & target_none) != target_none;
  made.long_serial = (choices.target & target_long_serial) != 0;
  made.other_issuer = (choices.target & target_other_issuer) != 0;
  made.start_at_target = (choices.target & target_starts) != 0;
  if (size > sizeof choices)
    made.script.body.assign(data + sizeof choices, data + size);
  made.script.content_length = announced(choices, made.script.body.size());
  made.script.has_content_type = choices.content_type % 4 != 3;
  made.script.delivery = static_cast<server_script::pieces>(choices.delivery % 5);
  made.script.seed = 1 + number(choices.seed);
  set_end(choices, &made.script);
  return made;
}

std::string write_crl_case(const crl_choices &choices, const std::string &body) {
  return std::string(reinterpret_cast<const char *>(&choices), sizeof choices) + body;
}

X509 *target_of(const crl_case &now) {
  static const cert targets[2][2] = {{make_target(false, false), make_target(false, true)},
                                     {make_target(true, false), make_target(true, true)}};
  return now.has_target ? targets[now.long_serial][now.other_issuer].get() : nullptr;
}

const std::vector<std::string> &crl_elements() {
  static const std::vector<std::string> made = make_elements();
  return made;
}

}  // namespace fuzz
