// Small CRLs of each kind with every truncation and every octet changed: an error, or a CRL whose
// signature does not verify, or one that says what it said before.
#include <algorithm>
#include <cstdlib>
#include <numeric>

#include "unit/verifier/crl_cache/decoder_support.h"
#include "verifier/crl_cache/pkcs7_walk.h"

using namespace crl_support;
using namespace support;

namespace {

// What a CRL means: everything but how it is signed.
std::string meaning_of(const support::crl &crl) {
  std::string frame = frame_of(crl);
  size_t oid = frame.find(' ', 8), issuer = frame.find(" issuer "),
         signature = frame.find(" signature ");
  std::string text = frame.substr(0, oid) + frame.substr(issuer, signature - issuer);
  for (int i = 0; i < X509_CRL_get_ext_count(crl.get()); i++)
    text += octets_of(X509_EXTENSION_get_data(X509_CRL_get_ext(crl.get(), i)));
  entry_list entries = entries_of(crl);
  std::sort(entries.begin(), entries.end());
  for (const auto &[serial, name] : entries)
    text += " " + serial + name;
  return text;
}

enum class kind { plain, indirect, wrapped, delta, partition, version_1 };

decoded decode_kind(kind which, const std::string &octets, uint32_t length) {
  if (which != kind::wrapped)
    return decode(octets, {.length = length});
  feeder source(octets);
  reader in(source.fd());
  decoded result;
  result.context.reset(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  pki::crl_request request = {};
  request.tbs_digest = result.context.get();
  request.target_cert = target().get();
  result.code = pki::find_crl_in_pkcs7(&request, &in.stream,
                                       length ? length : static_cast<uint32_t>(octets.size()), {});
  EXPECT_EQ(result.code == 0, request.crl != nullptr);
  EXPECT_EQ(nullptr, in.stream.mark);
  result.crl = hold(request.crl);
  result.truncated = request.truncated;
  return result;
}

std::string octets_of_kind(kind which) {
  crl_fields fields;
  fields.entries = crl_entry(4) + crl_entry(target_serial, reason_code(1));
  fields.extensions = crl_number(3, true) + authority_key_id({.key_id = "abcd"});
  if (which == kind::indirect) {
    fields.entries = crl_entry(4, certificate_issuer("other")) + crl_entry(9) +
                     crl_entry(target_serial, certificate_issuer("issuer"));
    fields.extensions = issuing_dist_point({.uris = {"http://a/"}, .indirect = true});
  } else if (which == kind::delta) {
    fields.extensions = crl_number(6) + delta_crl_indicator(5);
  } else if (which == kind::partition) {
    fields.extensions = issuing_dist_point({.uris = {"http://a/"}, .reasons = 0x1E});
  } else if (which == kind::version_1) {
    fields.version = fields.extensions = "";
    fields.entries = crl_entry(4) + crl_entry(target_serial);
  }
  std::string octets = crl_octets(fields);
  if (which != kind::wrapped)
    return octets;
  crl_pkcs7_fields wrapper;
  wrapper.certificates = der(target());
  return pkcs7_octets(octets, wrapper);
}

// What an octet is changed to: what is likeliest to mean something else, or, for EVERY_VALUE=1 in
// the environment, all that there is.
std::vector<int> changes_of(unsigned char octet) {
  if (!std::getenv("EVERY_VALUE"))
    return {0x00,         0xFF,         0x30,         0x80,      0x84,
            octet ^ 0x01, octet ^ 0x20, octet ^ 0x80, octet + 1, octet - 1};
  std::vector<int> values(255);
  std::iota(values.begin(), values.end(), octet + 1);
  return values;
}

class CrlBadInput : public crl_decoder_test, public testing::WithParamInterface<kind> {
 protected:
  static bool is_documented(int code) {
    return code == 15 || code == 48 || code == 84 || code == 86;
  }
  // The meaning of the sound CRL, whole and truncated: a changed length makes one of the other.
  std::string meanings[2];
  void learn_meanings(const std::string &octets) {
    std::string bare = octets_of_kind(GetParam() == kind::wrapped ? kind::plain : GetParam());
    meanings[0] = meaning_of(decode(bare).crl);
    meanings[1] = meaning_of(decode_without_length(bare).crl);
    EXPECT_NE(meanings[0], meanings[1]);
    EXPECT_EQ(meanings[0], meaning_of(decode_kind(GetParam(), octets, 0).crl));
  }
  bool is_fine(const decoded &got) const {
    if (got.code)
      return is_documented(got.code);
    return !verifies(got, test_key(0)) || meaning_of(got.crl) == meanings[got.truncated];
  }
};

TEST_P(CrlBadInput, SoundOneIsDecoded) {
  std::string octets = octets_of_kind(GetParam());
  for (uint32_t length : {0u, unknown_length}) {
    decoded got = decode_kind(GetParam(), octets, length);
    ASSERT_EQ(0, got.code);
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_P(CrlBadInput, EveryTruncationIsAnError) {
  std::string octets = octets_of_kind(GetParam());
  // What stands behind the CRL in a PKCS#7 message is not read.
  size_t needed = GetParam() == kind::wrapped ? octets.size() - 2 : octets.size();
  output_of([&] {
    for (size_t size = 0; size < needed; size++) {
      std::string cut = octets.substr(0, size);
      EXPECT_EQ(48, decode_kind(GetParam(), cut, static_cast<uint32_t>(octets.size())).code)
          << size;
      EXPECT_EQ(48, decode_kind(GetParam(), cut, unknown_length).code) << size;
      if (size > 0) {
        int code = decode_kind(GetParam(), cut, static_cast<uint32_t>(size)).code;
        EXPECT_TRUE(code == 15 || code == 48) << size;
      }
    }
  });
}

TEST_P(CrlBadInput, EveryChangedOctetIsAnErrorOrDetectedOrHarmless) {
  std::string octets = octets_of_kind(GetParam());
  learn_meanings(octets);
  for (uint32_t length : {0u, unknown_length}) {
    std::string problems;
    output_of([&] {
      for (size_t at = 0; at < octets.size(); at++)
        for (int value : changes_of(static_cast<unsigned char>(octets[at]))) {
          std::string changed = octets;
          changed[at] = static_cast<char>(value);
          decoded got = decode_kind(GetParam(), changed, length);
          if (!is_fine(got))
            problems += std::to_string(at) + "=" + std::to_string(value & 0xFF) + ":" +
                        std::to_string(got.code) + " ";
        }
    });
    EXPECT_EQ("", problems);
  }
}

TEST_P(CrlBadInput, EveryOctetMayBecomeAHostileLength) {
  std::string octets = octets_of_kind(GetParam());
  learn_meanings(octets);
  std::string problems;
  std::vector<std::string> lengths = {der_length(0xFFFFFFFF),
                                      der_length(0x7FFFFFFF),
                                      der_length(0x80000000u),
                                      der_length(uint64_t{1} << 32),
                                      der_length((uint64_t{1} << 32) + 2),
                                      der_length(10000, 4),
                                      der_length(10001, 4),
                                      "\xFE" + std::string(126, '\xFF')};
  output_of([&] {
    for (size_t at = 1; at < octets.size(); at++)
      for (const std::string &length : lengths) {
        std::string changed = octets.substr(0, at) + length + octets.substr(at + 1);
        decoded got = decode_kind(GetParam(), changed, unknown_length);
        if (!is_fine(got))
          problems += std::to_string(at) + ":" + std::to_string(got.code) + " ";
      }
  });
  EXPECT_EQ("", problems);
}

std::string kind_name(const testing::TestParamInfo<kind> &info) {
  const char *const names[] = {"Plain", "Indirect", "Wrapped", "Delta", "Partition", "Version1"};
  return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Kinds, CrlBadInput,
                         testing::Values(kind::plain, kind::indirect, kind::wrapped, kind::delta,
                                         kind::partition, kind::version_1),
                         kind_name);

}  // namespace
