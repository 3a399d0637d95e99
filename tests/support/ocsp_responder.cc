#include "support/ocsp_responder.h"

#include <cstdlib>

#include "support/crl_der.h"
#include "support/need.h"

namespace support {

namespace {

// Context tags, constructed and not.
constexpr unsigned char context = 0x80, constructed = 0x20;
constexpr unsigned char sequence = V_ASN1_SEQUENCE | constructed;

unsigned char explicit_tag(int number) {
  return static_cast<unsigned char>(context | constructed | number);
}

std::string oid(const std::string &text) {
  ASN1_OBJECT *object = OBJ_txt2obj(text.c_str(), 0);
  need(object, "object identifier");
  std::string octets = encode<ASN1_OBJECT>(object, i2d_ASN1_OBJECT);
  ASN1_OBJECT_free(object);
  return octets;
}

// An INTEGER or ENUMERATED.
std::string number(unsigned char tag, long value) {
  std::string octets;
  for (;; value >>= 8) {
    octets.insert(octets.begin(), static_cast<char>(value & 0xFF));
    if (value >= -128 && value <= 127)
      return tlv(tag, octets);
  }
}

std::string any_time(const std::string &text, time_t when, time_t otherwise) {
  return tlv(V_ASN1_GENERALIZEDTIME,
             text.empty() ? generalized_time(when ? when : otherwise) : text);
}

std::string cert_status(int status) {
  if (status != V_OCSP_CERTSTATUS_REVOKED)
    return tlv(static_cast<unsigned char>(context | status), "");
  return tlv(explicit_tag(1), tlv(V_ASN1_GENERALIZEDTIME, "20200101000000Z"));
}

std::string first_id(const ocsp_request &request) {
  need(request && OCSP_request_onereq_count(request.get()) > 0, "request with a CertID");
  OCSP_ONEREQ *one = OCSP_request_onereq_get0(request.get(), 0);
  return encode<OCSP_CERTID>(OCSP_onereq_get0_id(one), i2d_OCSP_CERTID);
}

std::string single_response(const ocsp_single &single, const ocsp_request &request) {
  std::string content = single.id.empty() ? first_id(request) : single.id;
  content += cert_status(single.status);
  content += any_time(single.this_update_text, single.this_update, time(nullptr) - 60);
  if (single.next_update != ocsp_left_out || !single.next_update_text.empty())
    content += tlv(explicit_tag(0),
                   any_time(single.next_update_text, single.next_update, time(nullptr) + 3600));
  if (!single.extensions.empty())
    content += tlv(explicit_tag(1), tlv(sequence, single.extensions));
  return tlv(sequence, content);
}

std::string responder_id(const ocsp_options &options) {
  if (!options.responder_id.empty())
    return options.responder_id;
  need(options.signer != nullptr, "signer");
  if (!options.by_key)
    return tlv(explicit_tag(1),
               encode<X509_NAME>(X509_get_subject_name(options.signer.get()), i2d_X509_NAME));
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  need(X509_pubkey_digest(options.signer.get(), EVP_sha1(), hash, &length) == 1, "key hash");
  return tlv(explicit_tag(2),
             tlv(V_ASN1_OCTET_STRING, std::string(reinterpret_cast<char *>(hash), length)));
}

std::string extension(const std::string &type, const std::string &value, bool critical = false) {
  return tlv(sequence, oid(type) + (critical ? tlv(V_ASN1_BOOLEAN, "\xFF") : "") +
                           tlv(V_ASN1_OCTET_STRING, value));
}

std::string response_nonce(ocsp_nonce how, const ocsp_request &request) {
  std::string nonce = how == ocsp_nonce::none ? "" : ocsp_nonce_of(request);
  if (nonce.empty())
    return "";
  std::string octets = nonce.substr(2);
  if (how == ocsp_nonce::changed)
    octets.back() = static_cast<char>(octets.back() ^ 1);
  if (how == ocsp_nonce::longer)
    octets.push_back('x');
  if (how == ocsp_nonce::shorter)
    octets.pop_back();
  return extension("1.3.6.1.5.5.7.48.1.2", tlv(V_ASN1_OCTET_STRING, octets),
                   how == ocsp_nonce::critical);
}

std::string response_data(const ocsp_options &options, const ocsp_request &request) {
  std::string singles, extensions;
  for (const ocsp_single &single : options.in_front)
    singles += single_response(single, request);
  if (options.with_single)
    singles += single_response(options.single, request);
  extensions = response_nonce(options.nonce, request);
  if (options.padding)
    extensions += extension("1.3.6.1.4.1.32473.99", std::string(options.padding, 'x'));
  extensions += options.extensions;
  std::string content = responder_id(options);
  content += any_time(options.produced_at_text, options.produced_at, time(nullptr));
  content += tlv(sequence, singles);
  if (!extensions.empty())
    content += tlv(explicit_tag(1), tlv(sequence, extensions));
  return tlv(sequence, content);
}

std::string sign(const std::string &octets, const key &signing_key, const EVP_MD *digest) {
  EVP_MD_CTX *signing = EVP_MD_CTX_new();
  size_t length = static_cast<size_t>(EVP_PKEY_get_size(signing_key.get()));
  std::string signature(length, '\0');
  need(EVP_DigestSignInit(signing, nullptr, digest, nullptr, signing_key.get()) == 1 &&
           EVP_DigestSign(signing, reinterpret_cast<unsigned char *>(signature.data()), &length,
                          reinterpret_cast<const unsigned char *>(octets.data()),
                          octets.size()) == 1,
       "OCSP signature");
  EVP_MD_CTX_free(signing);
  signature.resize(length);
  return signature;
}

std::string signature_algorithm(const key &signing_key, const EVP_MD *digest) {
  int nid = NID_undef;
  int type = EVP_PKEY_get_base_id(signing_key.get());
  need(OBJ_find_sigid_by_algs(&nid, EVP_MD_get_type(digest), type) == 1, "signature algorithm");
  return tlv(sequence, encode<ASN1_OBJECT>(OBJ_nid2obj(nid), i2d_ASN1_OBJECT) +
                           (type == EVP_PKEY_RSA ? tlv(V_ASN1_NULL, "") : ""));
}

std::string basic_response(const ocsp_options &options, const ocsp_request &request) {
  key signing_key = options.signing_key ? options.signing_key : test_key(0);
  const EVP_MD *digest = options.digest ? options.digest : EVP_sha256();
  std::string data = response_data(options, request);
  std::string signature = sign(data, signing_key, digest);
  if (options.damaged_signature)
    signature.back() = static_cast<char>(signature.back() ^ 1);
  std::string content = data + signature_algorithm(signing_key, digest) +
                        tlv(V_ASN1_BIT_STRING, std::string(1, '\0') + signature);
  std::string certs;
  for (const cert &each : options.certs)
    certs += der(each);
  if (!certs.empty())
    content += tlv(explicit_tag(0), tlv(sequence, certs));
  return tlv(sequence, content);
}

}  // namespace

std::string tlv(unsigned char tag, const std::string &content) {
  return der_tlv(tag, content);
}

std::string ocsp_extension(const std::string &type, bool critical) {
  return extension(type, tlv(V_ASN1_NULL, ""), critical);
}

std::string generalized_time(time_t when) {
  tm parts = {};
  gmtime_r(&when, &parts);
  char text[40];
  size_t length = strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts);
  return std::string(text, length);
}

std::string ocsp_cert_id(const cert &subject, const cert &issuer, const EVP_MD *digest) {
  OCSP_CERTID *id = OCSP_cert_to_id(digest, subject.get(), issuer.get());
  need(id, "CertID");
  std::string octets = encode<OCSP_CERTID>(id, i2d_OCSP_CERTID);
  OCSP_CERTID_free(id);
  return octets;
}

ocsp_request decode_ocsp_request(const std::string &http_request) {
  size_t head = http_request.find("\r\n\r\n");
  if (head == std::string::npos)
    return nullptr;
  std::string body = http_request.substr(head + 4);
  const auto *in = reinterpret_cast<const unsigned char *>(body.data());
  return ocsp_request(d2i_OCSP_REQUEST(nullptr, &in, static_cast<long>(body.size())),
                      OCSP_REQUEST_free);
}

std::string ocsp_nonce_of(const ocsp_request &request) {
  int at = request ? OCSP_REQUEST_get_ext_by_NID(request.get(), NID_id_pkix_OCSP_Nonce, -1) : -1;
  if (at < 0)
    return "";
  ASN1_OCTET_STRING *value = X509_EXTENSION_get_data(OCSP_REQUEST_get_ext(request.get(), at));
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(value)),
                     static_cast<size_t>(ASN1_STRING_length(value)));
}

std::string make_ocsp_response(const ocsp_options &options, const ocsp_request &request) {
  std::string content = number(V_ASN1_ENUMERATED, options.response_status);
  if (options.with_bytes) {
    std::string basic = options.basic.empty() ? basic_response(options, request) : options.basic;
    content +=
        tlv(explicit_tag(0), tlv(sequence, oid(options.type) + tlv(V_ASN1_OCTET_STRING, basic)));
  }
  return tlv(sequence, content);
}

answer ocsp_answer(const std::string &der) {
  return ok(der, "application/ocsp-response");
}

ocsp_responder::ocsp_responder(const ocsp_options &options)
    : server_([this](const std::string &request) { return respond(request); }) {
  answer_with(options);
}

ocsp_responder::ocsp_responder(const std::string &der)
    : server_([this](const std::string &request) { return respond(request); }) {
  answer_with(der);
}

void ocsp_responder::answer_with(const ocsp_options &options) {
  std::lock_guard lock(mutex_);
  make_ = [options](const ocsp_request &request) { return make_ocsp_response(options, request); };
}

void ocsp_responder::answer_with(const std::string &der) {
  std::lock_guard lock(mutex_);
  make_ = [der](const ocsp_request &) { return der; };
}

void ocsp_responder::answer_with(std::function<ocsp_options(long serial)> choose) {
  std::lock_guard lock(mutex_);
  make_ = [choose = std::move(choose)](const ocsp_request &request) {
    ASN1_INTEGER *serial = nullptr;
    OCSP_ONEREQ *one = OCSP_request_onereq_get0(request.get(), 0);
    OCSP_id_get0_info(nullptr, nullptr, nullptr, &serial, OCSP_onereq_get0_id(one));
    return make_ocsp_response(choose(ASN1_INTEGER_get(serial)), request);
  };
}

answer ocsp_responder::respond(const std::string &http_request) {
  ocsp_request request = decode_ocsp_request(http_request);
  if (!request || OCSP_request_onereq_count(request.get()) < 1)
    return status(400);
  std::lock_guard lock(mutex_);
  return ocsp_answer(make_(request));
}

}  // namespace support
