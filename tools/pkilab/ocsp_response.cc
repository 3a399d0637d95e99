#include "tools/pkilab/ocsp_response.h"

#include <openssl/asn1.h>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkilab/day.h"

namespace pkilab {

namespace {

using basic_ptr = std::unique_ptr<OCSP_BASICRESP, tools::free_with<OCSP_BASICRESP_free>>;
using time_ptr = std::unique_ptr<ASN1_TIME, tools::free_with<ASN1_STRING_free>>;
using object_ptr = std::unique_ptr<ASN1_OBJECT, tools::free_with<ASN1_OBJECT_free>>;

constexpr unsigned char sequence = 0x30;
constexpr unsigned char octet_string = 0x04;
constexpr unsigned char explicit_zero = 0xA0;

void require(bool done) {
  if (!done)
    throw tools::failure("cannot make the OCSP response: " + tools::openssl_reason());
}

// ---- the outside, by hand: OpenSSL makes none with another type, or of another status ----

template <class Encode, class Object>
std::string der_of(Encode encode, Object *object) {
  unsigned char *octets = nullptr;
  int length = encode(object, &octets);
  require(length >= 0);
  std::string der(octets, octets + length);
  OPENSSL_free(octets);
  return der;
}

std::string wrapped(unsigned char tag, const std::string &content) {
  std::string length;
  for (size_t rest = content.size(); rest > 0; rest >>= 8)
    length.insert(length.begin(), static_cast<char>(rest & 0xFF));
  if (content.size() < 0x80)
    length = static_cast<char>(content.size());
  else
    length.insert(length.begin(), static_cast<char>(0x80 | length.size()));
  return static_cast<char>(tag) + length + content;
}

std::string enumerated(long value) {
  std::unique_ptr<ASN1_ENUMERATED, tools::free_with<ASN1_STRING_free>> number(
      ASN1_ENUMERATED_new());
  require(number && ASN1_ENUMERATED_set(number.get(), value) == 1);
  return der_of(i2d_ASN1_ENUMERATED, number.get());
}

std::string with_bytes(const std::string &type, const std::string &bytes) {
  object_ptr oid(OBJ_txt2obj(type.c_str(), 1));
  require(oid != nullptr);
  std::string content = der_of(i2d_ASN1_OBJECT, oid.get()) + wrapped(octet_string, bytes);
  return wrapped(sequence, enumerated(0) + wrapped(explicit_zero, wrapped(sequence, content)));
}

// ---- times ----

time_ptr time_from_now(long long seconds) {
  time_ptr made(ASN1_GENERALIZEDTIME_adj(nullptr, time(nullptr), static_cast<int>(seconds / day),
                                         static_cast<long>(seconds % day)));
  require(made != nullptr);
  return made;
}

// A text is put in later: OpenSSL takes only times where it makes a response.
time_ptr time_or_stand_in(const answer_time &when) {
  const long long *seconds = std::get_if<long long>(&when);
  return time_from_now(seconds ? *seconds : 0);
}

void put_text(const answer_time &when, ASN1_GENERALIZEDTIME *time) {
  if (const std::string *text = std::get_if<std::string>(&when))
    require(ASN1_STRING_set(time, text->data(), static_cast<int>(text->size())) == 1);
}

// ---- single responses ----

void add_single(OCSP_BASICRESP *basic, OCSP_CERTID *id, int status, const revocation &how,
                const ocsp_options &options) {
  time_ptr this_update = time_or_stand_in(options.this_update);
  time_ptr next_update = options.next_update ? time_or_stand_in(*options.next_update) : nullptr;
  time_ptr revoked_at(ASN1_GENERALIZEDTIME_set(nullptr, how.at));
  require(revoked_at != nullptr);
  OCSP_SINGLERESP *single = OCSP_basic_add1_status(basic, id, status, how.reason, revoked_at.get(),
                                                   this_update.get(), next_update.get());
  require(single != nullptr);
  ASN1_GENERALIZEDTIME *this_place = nullptr;
  ASN1_GENERALIZEDTIME *next_place = nullptr;
  OCSP_single_get0_status(single, nullptr, nullptr, &this_place, &next_place);
  put_text(options.this_update, this_place);
  if (options.next_update)
    put_text(*options.next_update, next_place);
}

// Answers for the serial numbers 1, 2, 3 ...; the lab's own are longer.
void add_others(OCSP_BASICRESP *basic, const ocsp_finding &finding, const ocsp_options &options) {
  cert_id_ptr other(OCSP_CERTID_dup(finding.id.get()));
  ASN1_INTEGER *serial = nullptr;
  require(other && OCSP_id_get0_info(nullptr, nullptr, nullptr, &serial, other.get()) == 1);
  for (long number = 1; number <= options.others; number++) {
    require(ASN1_INTEGER_set(serial, number) == 1);
    if (OCSP_id_cmp(other.get(), finding.id.get()) != 0)
      add_single(basic, other.get(), V_OCSP_CERTSTATUS_GOOD, {}, options);
  }
}

void add_answers(OCSP_BASICRESP *basic, const std::vector<ocsp_finding> &findings,
                 const ocsp_options &options) {
  for (const ocsp_finding &finding : findings) {
    add_others(basic, finding, options);
    add_single(basic, finding.id.get(), finding.status, finding.how, options);
    if (options.second)
      add_single(basic, finding.id.get(), *options.second, {time(nullptr), -1}, options);
  }
}

// ---- the rest ----

void add_nonce(OCSP_BASICRESP *basic, OCSP_REQUEST *request, ocsp_nonce how) {
  std::string wrong = "a nonce nobody sent!";
  if (how == ocsp_nonce::mirror)
    require(OCSP_copy_nonce(basic, request) > 0);  // 2: there is none to mirror
  if (how == ocsp_nonce::wrong)
    require(OCSP_basic_add1_nonce(basic, reinterpret_cast<unsigned char *>(wrong.data()),
                                  static_cast<int>(wrong.size())) == 1);
}

// OpenSSL shows these parts of a response, but has no function that changes them.
void set_produced_at(OCSP_BASICRESP *basic, const answer_time &when) {
  auto *place = const_cast<ASN1_GENERALIZEDTIME *>(OCSP_resp_get0_produced_at(basic));
  time_ptr time = time_or_stand_in(when);
  require(ASN1_STRING_copy(place, time.get()) == 1);
  put_text(when, place);
}

void damage_signature(OCSP_BASICRESP *basic) {
  auto *signature = const_cast<ASN1_OCTET_STRING *>(OCSP_resp_get0_signature(basic));
  std::string octets(ASN1_STRING_get0_data(signature),
                     ASN1_STRING_get0_data(signature) + ASN1_STRING_length(signature));
  octets.back() = static_cast<char>(octets.back() ^ 1);
  require(ASN1_STRING_set(signature, octets.data(), static_cast<int>(octets.size())) == 1);
}

// The signer's certificate under a name that is not the signer's.
tools::cert_ptr renamed(X509 *cert) {
  static const char *nobody = "nobody";
  tools::cert_ptr copy(X509_dup(cert));
  std::unique_ptr<X509_NAME, tools::free_with<X509_NAME_free>> name(X509_NAME_new());
  require(copy && name &&
          X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char *>(nobody), -1, -1,
                                     0) == 1 &&
          X509_set_subject_name(copy.get(), name.get()) == 1);
  return copy;
}

void sign(OCSP_BASICRESP *basic, const ca::pair &signer, const ocsp_options &options) {
  tools::cert_ptr other_name;
  if (options.id == ocsp_responder_id::other_name)
    other_name = renamed(signer.cert.get());
  X509 *named = other_name ? other_name.get() : signer.cert.get();
  unsigned long flags = OCSP_NOCERTS | OCSP_NOTIME;
  if (options.id == ocsp_responder_id::key)
    flags |= OCSP_RESPID_KEY;
  require(OCSP_basic_sign(basic, named, signer.key.get(),
                          EVP_get_digestbyname(options.digest.c_str()), nullptr, flags) == 1);
  require(!options.with_cert || OCSP_basic_add1_cert(basic, signer.cert.get()) == 1);
  if (options.damaged_signature)
    damage_signature(basic);
}

}  // namespace

std::string make_ocsp_error(long response_status) {
  return wrapped(sequence, enumerated(response_status));
}

std::string make_ocsp_response(const std::vector<ocsp_finding> &findings, OCSP_REQUEST *request,
                               const ca::pair &signer, const ocsp_options &options) {
  if (options.body == ocsp_body::no_basic)
    return with_bytes(options.response_type, "these octets are no basic response");
  basic_ptr basic(OCSP_BASICRESP_new());
  require(basic != nullptr);
  if (options.answers)
    add_answers(basic.get(), findings, options);
  add_nonce(basic.get(), request, options.nonce);
  set_produced_at(basic.get(), options.produced_at);
  sign(basic.get(), signer, options);
  return with_bytes(options.response_type, der_of(i2d_OCSP_BASICRESP, basic.get()));
}

}  // namespace pkilab
