// Damaged CRLs, held against OpenSSL's decoder of whole CRLs.
#include <algorithm>
#include <map>
#include <random>

#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

std::vector<std::string> sound_crls() {
  crl_fields plain, indirect, bare;
  plain.entries = crl_entry(4) + crl_entry(target_serial, reason_code(1));
  plain.extensions = crl_number(3, true) + unknown_extension(false);
  indirect.entries = crl_entry(4, certificate_issuer("other")) + crl_entry(9) +
                     crl_entry(target_serial, certificate_issuer("issuer"));
  indirect.extensions = issuing_dist_point({.uris = {"http://a/"}, .indirect = true});
  bare.version.clear();
  bare.next_update.clear();
  for (crl_fields *fields : {&plain, &indirect, &bare})
    fields->signature = der_tlv(0x03, std::string("\0ABCD", 5));
  return {crl_octets(plain), crl_octets(indirect), crl_octets(bare)};
}

std::string damaged(std::mt19937 &random, std::string octets) {
  for (size_t count = 1 + random() % 3; count > 0; count--) {
    size_t at = random() % octets.size();
    switch (random() % 5) {
      case 0:
        octets[at] = static_cast<char>(random());
        break;
      case 1:
        octets[at] = static_cast<char>(octets[at] ^ (1 << random() % 8));
        break;
      case 2:
        octets[at] = static_cast<char>(octets[at] + (random() % 2 ? 1 : -1));
        break;
      case 3:  // one octet goes, another comes: lengths further out stay right
        octets.erase(at, 1);
        octets.insert(random() % octets.size(), 1, static_cast<char>(random()));
        break;
      default:
        std::swap(octets[at], octets[random() % octets.size()]);
    }
  }
  return octets;
}

// What the decoders may differ about.
enum class difference {
  none,
  outer_tags,      // are not looked at
  left_over,       // octets are logged, and no error
  digest,          // of an algorithm has to be known
  entry_critical,  // extensions have to be known
  entry_issuer,    // has to be readable
  ber,             // OpenSSL reads indefinite lengths, constructed strings and primitive lists
  unexplained
};

bool is_left_over() {
  return logged_containing(4, "parse inconsistency");
}

bool same(const support::crl &one, const support::crl &other) {
  entry_list first = entries_of(one), second = entries_of(other);
  std::sort(first.begin(), first.end());
  std::sort(second.begin(), second.end());
  return frame_of(one) == frame_of(other) && first == second;
}

bool has_unreadable_issuer(const support::crl &crl) {
  STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(crl.get());
  for (int i = 0; i < sk_X509_REVOKED_num(entries); i++) {
    X509_REVOKED *entry = sk_X509_REVOKED_value(entries, i);
    for (int j = 0; j < X509_REVOKED_get_ext_count(entry); j++) {
      X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, j);
      if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) != NID_certificate_issuer)
        continue;
      auto *names = static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(extension));
      support::clear_openssl_errors();
      if (!names)
        return true;
      GENERAL_NAMES_free(names);
    }
  }
  return false;
}

difference compare(const std::string &octets) {
  clear_log();
  decoded ours = decode(octets);
  support::crl theirs = openssl_decoded(octets);
  if (ours.crl && theirs)
    return same(ours.crl, theirs) ? difference::none : difference::unexplained;
  if (!ours.crl && !theirs)
    return difference::none;
  if (ours.crl) {
    size_t tbs = 2 + (octets[1] & 0x80 ? octets[1] & 0x7F : 0);
    if (octets[0] != 0x30 || octets[tbs] != 0x30)
      return difference::outer_tags;
    return is_left_over() ? difference::left_over : difference::unexplained;
  }
  if (ours.code == 84)
    return difference::digest;
  if (ours.code == 86)
    return difference::entry_critical;
  if (has_unreadable_issuer(theirs))
    return difference::entry_issuer;
  return octets.find_first_of("\x80\x24\x10") != std::string::npos ? difference::ber
                                                                   : difference::unexplained;
}

class CrlWholeDifferential : public crl_decoder_test {};

TEST_F(CrlWholeDifferential, DamagedCrlsAreJudgedAlikeButForListedDifferences) {
  std::mt19937 random(99);
  std::map<difference, size_t> counts;
  std::string unexplained;
  output_of([&] {
    for (int i = 0; i < 8000; i++)
      for (const std::string &sound : sound_crls()) {
        std::string octets = damaged(random, sound);
        difference found = compare(octets);
        counts[found]++;
        if (found == difference::unexplained && unexplained.size() < 1500)
          unexplained += testing::PrintToString(octets) + "\n";
      }
  });
  EXPECT_EQ("", unexplained);
  EXPECT_EQ(0u, counts[difference::unexplained]);
  EXPECT_GT(counts[difference::none], 20000u);
}

}  // namespace
