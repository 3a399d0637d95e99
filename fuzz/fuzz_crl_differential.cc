// The verdict on a complete list, and what is kept of it, against OpenSSL's decoder of whole CRLs.
//
// Where the two differ, and why:
//
// - The tags around tbsCertList and around the whole are not looked at, octets left over at the
//   ends of the two are no error (at the end of the whole they need not even come), and of the
//   lengths around elements only the last four octets count: the decoder goes forward only and
//   passes over what says nothing. crl_model.h reads that structure a second time, and OpenSSL gets
//   it in plain DER.
// - Indefinite lengths are refused around elements, and so is a list that says it is primitive:
//   neither is DER. OpenSSL reads both.
// - A signature algorithm without a digest ends with 84: nobody could check the signature.
// - An entry with a critical extension that is not known ends with 86, and one whose
//   certificateIssuer cannot be read with 15: nobody could say whom it concerns. OpenSSL leaves
//   that to those who look the entry up.
// - Of a list without announced length, more than 64 entries about one certificate end with 15.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "crl_case.h"
#include "crl_entries.h"
#include "crl_model.h"
#include "der_mutator.h"
#include "invariant.h"
#include "verifier/crl_cache/decoder.h"

namespace {

using namespace fuzz;

constexpr size_t longest_whole = 10000;
constexpr size_t most_kept = 64;
constexpr uint32_t unannounced = 0x7fffffff;
// Of the choices: the target, and how octets are cut.
constexpr size_t choices_size = 4;

struct free_crl {
  void operator()(X509_CRL *crl) const { X509_CRL_free(crl); }
};
using crl_ptr = std::unique_ptr<X509_CRL, free_crl>;

crl_ptr openssl_decoded(const std::string &octets) {
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  crl_ptr crl(d2i_X509_CRL(nullptr, &in, static_cast<long>(octets.size())));
  ERR_clear_error();
  return crl;
}

struct decoded {
  int code = 0;
  crl_ptr crl;
  std::string digest;
};

std::string finished(const EVP_MD_CTX *digest) {
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_MD_CTX *copy = EVP_MD_CTX_new();
  if (EVP_MD_CTX_copy_ex(copy, digest) == 1)
    EVP_DigestFinal_ex(copy, value, &size);
  EVP_MD_CTX_free(copy);
  return std::string(reinterpret_cast<char *>(value), size);
}

decoded decode(const crl_case &now, uint32_t length) {
  unsigned char buffer[2000];
  EVP_MD_CTX *running = EVP_MD_CTX_new(), *digest = EVP_MD_CTX_new();
  pki::crl_stream stream = {-1, buffer, sizeof buffer, buffer, 0, nullptr, running};
  pki::crl_request request = {};
  request.tbs_digest = digest;
  request.target_cert = target_of(now);
  request.entries_may_start_at_target = now.start_at_target;
  play(now.script);
  decoded result;
  result.code = pki::cv_crl_decode_crl(&request, &stream, length, nullptr);
  require((result.code == PKI_OK) == (request.crl != nullptr), "a CRL or an error", result.code);
  require(request.truncated == (length > longest_whole), "truncated above 10000 octets");
  if (result.code == PKI_OK)
    result.digest = finished(digest);
  result.crl.reset(request.crl);
  EVP_MD_CTX_free(running);
  EVP_MD_CTX_free(digest);
  ERR_clear_error();
  return result;
}

// Null: none is known.
const EVP_MD *digest_for(const std::string &algorithm) {
  const auto *in = reinterpret_cast<const unsigned char *>(algorithm.data());
  X509_ALGOR *decoded = d2i_X509_ALGOR(nullptr, &in, static_cast<long>(algorithm.size()));
  require(decoded != nullptr, "OpenSSL read it before");
  const ASN1_OBJECT *object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, decoded);
  int nid = OBJ_obj2nid(object), digest = NID_undef;
  const EVP_MD *md = nid == NID_undef ? nullptr : EVP_get_digestbyname(OBJ_nid2sn(nid));
  if (!md && OBJ_find_sigid_algs(nid, &digest, nullptr) == 1 && digest != NID_undef)
    md = EVP_get_digestbynid(digest);
  X509_ALGOR_free(decoded);
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  bool usable = md && EVP_Digest("", 0, value, &size, md, nullptr) == 1;
  ERR_clear_error();
  return usable ? md : nullptr;
}

int expected_code(const crl_case &now, const crl_reading &read, const X509_CRL *theirs,
                  bool truncated) {
  if (!digest_for(read.algorithm))
    return PKI_UNKNOWN_DIGEST_ALG;
  if (!now.has_target && X509_CRL_get_REVOKED(const_cast<X509_CRL *>(theirs)))
    return PKI_INVALID_ARGS;
  if (int code = code_of_entries(theirs))
    return code;
  bool too_many = truncated && now.has_target &&
                  entries_about(theirs, target_of(now), now.start_at_target).size() > most_kept;
  return too_many ? PKI_ASN1_DECODE_ERROR : PKI_OK;
}

void check_whole(const decoded &ours, const X509_CRL *theirs) {
  require(frame_of(ours.crl.get()) == frame_of(theirs), "the same frame");
  std::vector<std::string> kept = all_entries(ours.crl.get()), listed = all_entries(theirs);
  // Where entries inherit their issuer, they stay in their order.
  if (!names_issuers(theirs)) {
    std::sort(kept.begin(), kept.end());
    std::sort(listed.begin(), listed.end());
  }
  require(kept == listed, "the same entries");
}

void check_truncated(const crl_case &now, const decoded &ours, const X509_CRL *theirs) {
  require(frame_of(ours.crl.get()) == frame_of(theirs), "the same frame without a length");
  if (!now.has_target)
    return;
  std::vector<std::string> about = entries_about(theirs, target_of(now), now.start_at_target);
  require(all_entries(ours.crl.get()).size() == about.size(), "the target's entries and no more");
  require(entries_about(ours.crl.get(), target_of(now), now.start_at_target) == about,
          "the target's entries are kept under their issuer");
}

void check_digest(const crl_reading &read, const decoded &ours) {
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(read.digested.data(), read.digested.size(), value, &size, digest_for(read.algorithm),
             nullptr);
  require(ours.digest == std::string(reinterpret_cast<char *>(value), size), "the digest");
}

void compare(const crl_case &now, uint32_t announced) {
  decoded ours = decode(now, announced);
  auto read = read_crl(now.script.body, announced);
  crl_ptr theirs = read ? openssl_decoded(read->strict) : nullptr;
  if (!theirs) {
    require(ours.code != PKI_OK, "what OpenSSL refuses is refused", announced);
    require(!openssl_decoded(now.script.body) || has_ber_frame(now.script.body),
            "OpenSSL refuses it as it is, too");
    return;
  }
  bool truncated = announced > longest_whole;
  require(ours.code == expected_code(now, *read, theirs.get(), truncated), "the code", ours.code);
  if (ours.code)
    return;
  check_digest(*read, ours);
  if (truncated)
    check_truncated(now, ours, theirs.get());
  else
    check_whole(ours, theirs.get());
}

const der_input form = {choices_size, crl_elements()};

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  // The decoder writes lines to standard output.
  return std::freopen("/dev/null", "w", stdout) && libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < choices_size || size - choices_size > longest_whole)
    return -1;
  crl_choices choices;
  choices.target = data[0];
  choices.delivery = data[1];
  choices.seed[0] = data[2];
  choices.seed[1] = data[3];
  std::string input = write_crl_case(choices, std::string(data + choices_size, data + size));
  crl_case now = read_crl_case(reinterpret_cast<const uint8_t *>(input.data()), input.size());
  compare(now, static_cast<uint32_t>(now.script.body.size()));
  compare(now, unannounced);
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
  return mutate_der_input(form, data, size, max_size, seed);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t *one, size_t one_size, const uint8_t *other,
                                 size_t other_size, uint8_t *out, size_t max_size, unsigned seed) {
  return cross_der_inputs(form, one, one_size, other, other_size, out, max_size, seed);
}
}
