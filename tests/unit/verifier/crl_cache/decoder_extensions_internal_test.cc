// The crlExtensions' [0] holds one list of extensions, and nothing else.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlExtensionsElement : public crl_decoder_test {
 protected:
  static std::string crl_with(const std::string &in_element) {
    crl_fields fields;
    fields.entries = crl_entry(target_serial);
    fields.extensions_element = der_tlv(0xA0, in_element);
    return crl_octets(fields);
  }
  const std::string list = der_tlv(0x30, crl_number(1));
};

TEST_F(CrlExtensionsElement, ListAloneIsRead) {
  decoded got = decode_both_ways(crl_with(list));
  ASSERT_EQ(0, got.code);
  EXPECT_EQ(1, X509_CRL_get_ext_count(got.crl.get()));
}

TEST_F(CrlExtensionsElement, OctetsBehindTheListAreRefused) {
  for (const std::string &behind :
       {std::string(1, '\0'), std::string(2, '\0'), std::string("x"), der_tlv(0x05, ""),
        crl_number(2), der_tlv(0x30, unknown_extension(false)), list})
    expect_refused(15, crl_with(list + behind));
}

}  // namespace
