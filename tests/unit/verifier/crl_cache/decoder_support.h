// What the tests of the CRL decoder share: decoding off a socket, and looking at what came out.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_DECODER_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_DECODER_SUPPORT_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/crl_der.h"
#include "support/store_fixture.h"
#include "unit/verifier/crl_cache/stream_support.h"
#include "verifier/crl_cache/decoder.h"

namespace crl_support {

constexpr uint32_t unknown_length = 0x7FFFFFFF;
constexpr long target_serial = 5;

// The certificate that is looked for: number 5 of "issuer".
inline const support::cert &target() {
  static const support::cert made = support::simple_cert("issuer", "device", target_serial);
  return made;
}

inline support::crl hold(X509_CRL *crl) {
  return support::crl(crl, X509_CRL_free);
}

inline support::crl openssl_decoded(const std::string &octets) {
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  support::crl crl = hold(d2i_X509_CRL(nullptr, &in, static_cast<long>(octets.size())));
  support::clear_openssl_errors();
  return crl;
}

struct decode_options {
  uint32_t length = 0;  // Content-Length; 0: the size of the octets
  delivery how = whole;
  support::cert target = crl_support::target();  // may be null
  bool start_at_target = false;
  bool with_pkcs7 = false;
};

struct decoded {
  int code = -1;
  support::crl crl;
  bool truncated = false;
  pki::pkcs7_start pkcs7 = {};
  std::string digest;
  uint32_t unread = 0;  // what the stream still holds
  std::shared_ptr<EVP_MD_CTX> context;
};

inline decoded decode(const std::string &octets, const decode_options &options = {}) {
  feeder source(octets, options.how);
  reader in(source.fd());
  decoded result;
  result.context.reset(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  pki::crl_request request = {};
  request.tbs_digest = result.context.get();
  request.target_cert = options.target.get();
  request.entries_may_start_at_target = options.start_at_target;
  uint32_t length = options.length ? options.length : static_cast<uint32_t>(octets.size());
  result.code = pki::cv_crl_decode_crl(&request, &in.stream, length,
                                       options.with_pkcs7 ? &result.pkcs7 : nullptr);
  result.truncated = request.truncated;
  result.unread = in.stream.avail;
  // A failure leaves neither a CRL nor a digest that goes on.
  EXPECT_EQ(result.code == 0, request.crl != nullptr);
  EXPECT_EQ(nullptr, in.stream.mark);
  result.crl = hold(request.crl);
  if (result.code == 0)
    result.digest = digest_so_far(request.tbs_digest);
  return result;
}

inline decoded decode_without_length(const std::string &octets, decode_options options = {}) {
  options.length = unknown_length;
  return decode(octets, options);
}

// Does `key` verify the CRL's signature over the digest of the stream?
inline bool verifies(const decoded &result, const support::key &key) {
  const ASN1_BIT_STRING *signature = nullptr;
  X509_CRL_get0_signature(result.crl.get(), &signature, nullptr);
  EVP_MD_CTX *copy = EVP_MD_CTX_new();
  bool good = EVP_MD_CTX_copy_ex(copy, result.context.get()) == 1 &&
              EVP_VerifyFinal(copy, ASN1_STRING_get0_data(signature),
                              static_cast<unsigned>(ASN1_STRING_length(signature)), key.get()) == 1;
  EVP_MD_CTX_free(copy);
  support::clear_openssl_errors();
  return good;
}

using support::octets_of;

inline std::string line_of(const X509_NAME *name) {
  char text[200] = "";
  X509_NAME_oneline(name, text, sizeof text);
  return text;
}

inline std::string serial_text(const X509_REVOKED *entry) {
  const ASN1_INTEGER *serial = X509_REVOKED_get0_serialNumber(entry);
  BIGNUM *number = ASN1_INTEGER_to_BN(serial, nullptr);
  char *text = BN_bn2dec(number);
  std::string made = text;
  OPENSSL_free(text);
  BN_free(number);
  return made;
}

// The issuer that the entry names, or "". Where several extensions do, the last one holds.
inline std::string issuer_in_entry(const X509_REVOKED *entry) {
  std::string issuer;
  for (int i = 0; i < X509_REVOKED_get_ext_count(entry); i++) {
    X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, i);
    if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) != NID_certificate_issuer)
      continue;
    auto *names = static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(extension));
    bool found = false;
    for (int j = 0; j < sk_GENERAL_NAME_num(names) && !found; j++) {
      const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, j);
      found = name->type == GEN_DIRNAME;
      if (found)
        issuer = line_of(name->d.directoryName);
    }
    GENERAL_NAMES_free(names);
  }
  return issuer;
}

// {serial number, effective issuer} of each entry, read in the order that they stand in.
using entry_list = std::vector<std::pair<std::string, std::string>>;
inline const std::string by_issuer = "/CN=issuer", by_other = "/CN=other", by_third = "/CN=third";
inline entry_list entries_of(const support::crl &crl) {
  entry_list list;
  std::string issuer = line_of(X509_CRL_get_issuer(crl.get()));
  STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(crl.get());
  for (int i = 0; i < sk_X509_REVOKED_num(entries); i++) {
    X509_REVOKED *entry = sk_X509_REVOKED_value(entries, i);
    if (std::string named = issuer_in_entry(entry); !named.empty())
      issuer = named;
    list.emplace_back(serial_text(entry), issuer);
  }
  support::clear_openssl_errors();
  return list;
}

// What must be the same whether or not entries were dropped.
inline std::string frame_of(const support::crl &crl) {
  const ASN1_BIT_STRING *signature = nullptr;
  const X509_ALGOR *algorithm = nullptr;
  X509_CRL_get0_signature(crl.get(), &signature, &algorithm);
  const ASN1_OBJECT *oid = nullptr;
  X509_ALGOR_get0(&oid, nullptr, nullptr, algorithm);
  char oid_text[80];
  OBJ_obj2txt(oid_text, sizeof oid_text, oid, 1);
  std::string text = "version " + std::to_string(X509_CRL_get_version(crl.get())) + " " + oid_text +
                     " issuer " + line_of(X509_CRL_get_issuer(crl.get())) + " " +
                     octets_of(X509_CRL_get0_lastUpdate(crl.get())) + " to " +
                     octets_of(X509_CRL_get0_nextUpdate(crl.get())) + " signature " +
                     octets_of(signature);
  for (int i = 0; i < X509_CRL_get_ext_count(crl.get()); i++) {
    X509_EXTENSION *extension = X509_CRL_get_ext(crl.get(), i);
    OBJ_obj2txt(oid_text, sizeof oid_text, X509_EXTENSION_get_object(extension), 1);
    text += std::string(" ") + oid_text +
            (X509_EXTENSION_get_critical(extension) ? " critical " : " ") +
            octets_of(X509_EXTENSION_get_data(extension));
  }
  return text;
}

inline std::string encoding_of(const support::crl &crl) {
  unsigned char *out = nullptr;
  int size = i2d_X509_CRL(crl.get(), &out);
  std::string octets(reinterpret_cast<char *>(out), size > 0 ? static_cast<size_t>(size) : 0);
  OPENSSL_free(out);
  return octets;
}

// What `work` writes to standard output.
template <class Work>
std::string output_of(const Work &work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

class crl_decoder_test : public support::store_test {
 protected:
  // Decodes with and without a length, whole and one by one, and holds the verdicts against each
  // other. The result with the length, whole.
  decoded decode_both_ways(const std::string &octets, const decode_options &options = {}) {
    decoded first;
    std::string out = output_of([&] { first = decode(octets, options); });
    for (delivery how : {whole, one_by_one})
      for (uint32_t length : {static_cast<uint32_t>(octets.size()), unknown_length}) {
        decode_options other = options;
        other.how = how;
        other.length = length;
        decoded again;
        std::string again_out = output_of([&] { again = decode(octets, other); });
        EXPECT_EQ(first.code, again.code) << length;
        EXPECT_EQ(out, again_out) << length;
        EXPECT_EQ(length > 10000, again.truncated);
        if (first.crl && again.crl) {
          EXPECT_EQ(frame_of(first.crl), frame_of(again.crl));
          EXPECT_EQ(first.digest, again.digest);
        }
      }
    return first;
  }
  // The code, both ways, of a CRL that fails within its tbsCertList, and so writes a stray line.
  void expect_refused(int code, const std::string &octets, const decode_options &options = {}) {
    decoded got;
    std::string out = output_of([&] { got = decode(octets, options); });
    EXPECT_EQ("c\n", out);
    EXPECT_EQ(code, got.code);
    decode_both_ways(octets, options);
  }
  // The same for a failure elsewhere.
  void expect_refused_silently(int code, const std::string &octets) {
    decoded got;
    std::string out = output_of([&] { got = decode(octets); });
    EXPECT_EQ("", out);
    EXPECT_EQ(code, got.code);
    decode_both_ways(octets);
  }
};

}  // namespace crl_support

#endif
