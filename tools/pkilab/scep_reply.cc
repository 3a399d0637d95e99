#include "tools/pkilab/scep_reply.h"

#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libpki/scep_msg.h>

#include <cstdlib>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/pkilab/ca_certs.h"

namespace pkilab {

namespace {

void require_ok(int code) {
  if (code != PKI_OK)
    throw tools::failure("cannot make the SCEP answer: " +
                         std::string(pki_strerror(static_cast<unsigned>(code))));
}

// Whoever signs.
struct signer {
  EVP_PKEY *key;
  tools::cert_ptr cert;
};

tools::cert_ptr impostor_cert(const ca &keys) {
  tools::cert_ptr cert(X509_dup(keys.issuing().cert.get()));
  if (!cert || X509_set_pubkey(cert.get(), keys.stranger_key()) != 1 ||
      X509_sign(cert.get(), keys.stranger_key(), EVP_sha256()) < 1)
    throw tools::failure("cannot make an impostor: " + tools::openssl_reason());
  return cert;
}

tools::cert_ptr stranger_cert(const ca &keys) {
  return make_ca_cert(keys.stranger_key(), "a stranger", nullptr, nullptr);
}

signer choose_signer(const ca &keys, const std::set<misdeed> &misdeeds) {
  if (misdeeds.contains(misdeed::impostor_signs))
    return {keys.stranger_key(), impostor_cert(keys)};
  if (misdeeds.contains(misdeed::stranger_signs))
    return {keys.stranger_key(), stranger_cert(keys)};
  return {keys.issuing().key.get(), tools::cert_ptr(X509_dup(keys.issuing().cert.get()))};
}

tools::pkcs7_ptr seal_well(const ca &keys, const scep_reply &reply, PKCS7 *request) {
  const ca::pair &issuing = keys.issuing();
  PKCS7 *sealed = nullptr;
  require_ok(reply.issued ? gen_scep_cert_rep(reply.issued, issuing.key.get(), issuing.cert.get(),
                                              reply.recipient, request, &sealed)
                          : gen_scep_sts_rep(reply.status, reply.fail_info, issuing.key.get(),
                                             issuing.cert.get(), request, &sealed));
  return tools::pkcs7_ptr(sealed);
}

// ---- by hand ----

// What a bad answer says of itself.
struct claims {
  int type;
  int status;
  int fail_info;
  std::string transaction_id;
  std::string nonce;  // "": none
  const EVP_MD *digest;
  const EVP_CIPHER *cipher;

  const void *nonce_octets() const { return nonce.empty() ? nullptr : nonce.data(); }
  int nonce_length() const { return static_cast<int>(nonce.size()); }
};

claims make_claims(const std::set<misdeed> &misdeeds, const scep_reply &reply, PKCS7 *request) {
  tools::scep_outside asked = tools::read_outside(request);
  claims made = {
      SCEP_CERT_REP,
      reply.status,
      reply.fail_info,
      asked.transaction_id.value_or(""),
      asked.sender_nonce.value_or(""),
      EVP_get_digestbyname(tools::digest_name(request).c_str()),
      EVP_get_cipherbyname(tools::cipher_name(tools::read_envelope(request).get()).c_str())};
  if (misdeeds.contains(misdeed::wrong_type))
    made.type = SCEP_PKCS_REQ;
  if (misdeeds.contains(misdeed::no_status))
    made.status = -1;
  if (misdeeds.contains(misdeed::wrong_transaction_id))
    made.transaction_id = "0123456789ABCDEF0123456789ABCDEF";
  if (misdeeds.contains(misdeed::wrong_nonce))
    made.nonce = "sixteen octets!!";
  if (misdeeds.contains(misdeed::no_nonce))
    made.nonce.clear();
  return made;
}

// A SignedData without signers, with the given certificates in it.
tools::pkcs7_ptr certificate_list(std::initializer_list<X509 *> certs) {
  tools::pkcs7_ptr list(PKCS7_new());
  bool made = list && PKCS7_set_type(list.get(), NID_pkcs7_signed) == 1 &&
              PKCS7_content_new(list.get(), NID_pkcs7_data) == 1;
  for (X509 *cert : certs)
    made = made && PKCS7_add_certificate(list.get(), cert) == 1;
  if (!made)
    throw tools::failure("cannot make a list of certificates: " + tools::openssl_reason());
  return list;
}

tools::pkcs7_ptr bad_payload(const ca &keys, const std::set<misdeed> &misdeeds, X509 *issued) {
  if (misdeeds.contains(misdeed::no_certificates))
    return certificate_list({});
  if (misdeeds.contains(misdeed::other_certificate))
    return certificate_list({keys.root().cert.get()});
  return certificate_list({issued, keys.issuing().cert.get()});
}

PKCS7 *sign_with_payload(const claims &said, const signer &by, PKCS7 *payload, X509 *recipient) {
  PKCS7 *sealed = nullptr;
  require_ok(gen_scep_msg(said.type, payload, reinterpret_cast<i2d_fn *>(i2d_PKCS7), by.key,
                          by.cert.get(), recipient, said.status, said.transaction_id.c_str(),
                          said.nonce_octets(), said.nonce_length(), said.digest, said.cipher,
                          &sealed));
  return sealed;
}

// The attributes of a message without a payload, freed with their array.
class attribute_array {
 public:
  explicit attribute_array(const claims &said) {
    static constexpr char sender_nonce[] = "a nonce of pkilab";
    attributes_ =
        gen_tx_attrs(said.type, said.transaction_id.c_str(), sender_nonce, 16, said.nonce_octets(),
                     said.nonce_length(), said.status, said.fail_info, &count_);
    if (!attributes_)
      throw tools::failure("out of memory");
  }
  ~attribute_array() {
    for (int i = 0; i < count_; i++)
      X509_ATTRIBUTE_free(attributes_[i]);
    free(attributes_);
  }
  attribute_array(const attribute_array &) = delete;
  attribute_array &operator=(const attribute_array &) = delete;

  X509_ATTRIBUTE **get() const { return attributes_; }
  int count() const { return count_; }

 private:
  X509_ATTRIBUTE **attributes_ = nullptr;
  int count_ = 0;
};

PKCS7 *sign_without_payload(const claims &said, const signer &by) {
  attribute_array attributes(said);
  tools::pkcs7_ptr empty(PKCS7_new());
  if (!empty || PKCS7_set_type(empty.get(), NID_pkcs7_data) != 1)
    throw tools::failure("out of memory");
  PKCS7 *sealed = nullptr;
  require_ok(pkcs7_sign(by.cert.get(), by.key, said.digest ? said.digest : EVP_sha256(),
                        empty.get(), attributes.get(), attributes.count(), &sealed));
  (void)empty.release();  // the message owns it now
  return sealed;
}

tools::pkcs7_ptr seal_badly(const ca &keys, const std::set<misdeed> &misdeeds,
                            const scep_reply &reply, PKCS7 *request) {
  claims said = make_claims(misdeeds, reply, request);
  signer by = choose_signer(keys, misdeeds);
  if (!reply.issued)
    return tools::pkcs7_ptr(sign_without_payload(said, by));
  tools::pkcs7_ptr payload = bad_payload(keys, misdeeds, reply.issued);
  tools::cert_ptr stranger;
  if (misdeeds.contains(misdeed::stranger_envelope))
    stranger = stranger_cert(keys);
  X509 *recipient = stranger ? stranger.get() : reply.recipient;
  return tools::pkcs7_ptr(sign_with_payload(said, by, payload.get(), recipient));
}

}  // namespace

std::string seal_reply(const ca &keys, const std::set<misdeed> &misdeeds, const scep_reply &reply,
                       PKCS7 *request) {
  tools::pkcs7_ptr sealed = misdeeds.empty() ? seal_well(keys, reply, request)
                                             : seal_badly(keys, misdeeds, reply, request);
  return tools::pkcs7_der(sealed.get());
}

}  // namespace pkilab
