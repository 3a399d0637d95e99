#include "support/scep_ca.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "support/need.h"

namespace support {

namespace {

// The attribute's value octets, "" when it is absent.
std::string attribute_octets(PKCS7 *message, int row) {
  ASN1_TYPE *value = nullptr;
  if (get_attr(message, pki_nid_list[row], &value) != PKI_OK || !value->value.asn1_string)
    return "";
  const ASN1_STRING *text = value->value.asn1_string;
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(text)),
                     static_cast<size_t>(ASN1_STRING_length(text)));
}

std::string data_octets(PKCS7 *content) {
  if (!content || !PKCS7_type_is_data(content) || !content->d.data)
    return "";
  return std::string(reinterpret_cast<const char *>(content->d.data->data),
                     static_cast<size_t>(content->d.data->length));
}

pkcs7 try_read_message(const std::string &octets) {
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  return pkcs7(d2i_PKCS7(nullptr, &in, static_cast<long>(octets.size())), PKCS7_free);
}

std::string open_envelope(const std::string &envelope, const key &private_key,
                          const cert &recipient) {
  pkcs7 enveloped = try_read_message(envelope);
  unsigned char *data = nullptr;
  int length = 0;
  if (!enveloped ||
      pkcs7_decrypt(enveloped.get(), private_key.get(), recipient.get(), &data, &length) != PKI_OK)
    return "";
  std::string plain(reinterpret_cast<char *>(data), static_cast<size_t>(length));
  free(data);
  return plain;
}

// The requester's certificate, which its message carries.
cert carried_certificate(PKCS7 *message) {
  need(PKCS7_type_is_signed(message) && sk_X509_num(message->d.sign->cert) > 0,
       "a request's certificate");
  return cert(X509_dup(sk_X509_value(message->d.sign->cert, 0)), X509_free);
}

PKCS7 *new_certificate_list(STACK_OF(X509) * certs) {
  PKCS7 *made = PKCS7_new();
  need(PKCS7_set_type(made, NID_pkcs7_signed) == 1, "PKCS7_set_type");
  need(PKCS7_content_new(made, NID_pkcs7_data) == 1, "PKCS7_content_new");
  sk_X509_pop_free(made->d.sign->cert, X509_free);
  made->d.sign->cert = certs;
  return made;
}

std::string list_der(STACK_OF(X509) * certs) {
  return der(pkcs7(new_certificate_list(certs), PKCS7_free));
}

void add_attribute(STACK_OF(X509_ATTRIBUTE) * all, const scep_attribute &wanted) {
  X509_ATTRIBUTE *made =
      X509_ATTRIBUTE_create_by_NID(nullptr, pki_nid_list[wanted.row], wanted.asn1_type,
                                   reinterpret_cast<const unsigned char *>(wanted.octets.data()),
                                   static_cast<int>(wanted.octets.size()));
  for (const std::string &value : wanted.more)
    need(X509_ATTRIBUTE_set1_data(made, wanted.asn1_type, value.data(),
                                  static_cast<int>(value.size())) == 1,
         "attribute's value");
  need(made && sk_X509_ATTRIBUTE_push(all, made) > 0, "attribute");
}

void add_content_type(STACK_OF(X509_ATTRIBUTE) * all) {
  X509_ATTRIBUTE *made =
      X509_ATTRIBUTE_create(NID_pkcs9_contentType, V_ASN1_OBJECT, OBJ_nid2obj(NID_pkcs7_data));
  need(made && sk_X509_ATTRIBUTE_push(all, made) > 0, "contentType");
}

std::string sign(const std::string &content, const key &signing_key, const cert &signer,
                 STACK_OF(X509_ATTRIBUTE) * attributes) {
  pkcs7 message(PKCS7_new(), PKCS7_free);
  need(PKCS7_set_type(message.get(), NID_pkcs7_signed) == 1, "PKCS7_set_type");
  need(PKCS7_content_new(message.get(), NID_pkcs7_data) == 1, "PKCS7_content_new");
  PKCS7_SIGNER_INFO *info =
      PKCS7_add_signature(message.get(), signer.get(), signing_key.get(), EVP_sha256());
  need(info && PKCS7_add_certificate(message.get(), signer.get()) == 1, "signer");
  need(PKCS7_set_signed_attributes(info, attributes) == 1, "attributes");
  BIO *writer = PKCS7_dataInit(message.get(), nullptr);
  need(writer, "PKCS7_dataInit");
  if (!content.empty())
    need(BIO_write(writer, content.data(), static_cast<int>(content.size())) > 0, "content");
  (void)BIO_flush(writer);
  need(PKCS7_dataFinal(message.get(), writer) == 1, "PKCS7_dataFinal");
  BIO_free_all(writer);
  return der(message);
}

bool is_honest(const scep_reply &reply) {
  return !reply.type && !reply.status_text && !reply.fail_text && !reply.tx_id &&
         !reply.recipient_nonce && !reply.sender_nonce && reply.more.empty() &&
         !reply.signing_key && !reply.payload && !reply.inner;
}

std::string or_default(const std::optional<std::string> &text, const std::string &standard) {
  return text.value_or(standard);
}

}  // namespace

scep_reply pending() {
  scep_reply reply;
  reply.status = SCEP_STATUS_PENDING;
  return reply;
}

scep_reply refusal(int fail_info) {
  scep_reply reply;
  reply.status = SCEP_STATUS_FAILURE;
  reply.fail_info = fail_info;
  return reply;
}

std::vector<scep_reply> pending_then(size_t times, const scep_reply &last) {
  std::vector<scep_reply> script(times, pending());
  script.push_back(last);
  return script;
}

std::string certificate_list(const std::vector<cert> &certs) {
  STACK_OF(X509) *list = sk_X509_new_null();
  for (const cert &each : certs)
    sk_X509_push(list, X509_dup(each.get()));
  return list_der(list);
}

std::string empty_certificate_list() {
  return list_der(sk_X509_new_null());
}

std::string no_certificate_list() {
  return list_der(nullptr);
}

scep_ca::scep_ca(std::vector<scep_reply> script)
    : script_(std::move(script)),
      key_(EVP_PKEY_dup(test_key(7).get()), EVP_PKEY_free),
      certificate_(make_ca("scep ca", 7, 70)),
      own_copy_(X509_dup(certificate_.get()), X509_free),
      server_([this](const std::string &head) { return respond(head); }) {}

std::vector<scep_request> scep_ca::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<std::string> scep_ca::answers() const {
  std::lock_guard lock(mutex_);
  return answers_;
}

std::vector<cert> scep_ca::issued() const {
  std::lock_guard lock(mutex_);
  return issued_;
}

void scep_ca::forget() {
  std::lock_guard lock(mutex_);
  requests_.clear();
  answers_.clear();
  issued_.clear();
}

void scep_ca::rewind(std::vector<scep_reply> script) {
  std::lock_guard lock(mutex_);
  script_ = std::move(script);
  next_ = 0;
}

answer scep_ca::respond(const std::string &head) {
  static const std::string marker = "operation=PKIOperation&message=";
  scep_request request;
  size_t end = head.find(" HTTP/1.0\r\n");
  if (head.rfind("GET ", 0) == 0 && end != std::string::npos)
    request.target = head.substr(4, end - 4);
  size_t at = request.target.find(marker);
  if (at != std::string::npos)
    request.base64 = request.target.substr(at + marker.size());
  request.der = decode_base64(request.base64);
  request.at = time(nullptr);
  read_message_of(request);

  std::lock_guard lock(mutex_);
  requests_.push_back(request);
  const scep_reply reply = script_[std::min(next_++, script_.size() - 1)];
  if (reply.http) {
    answers_.push_back("");
    return *reply.http;
  }
  if (!request.message || request.type < 0) {
    answers_.push_back("");
    return status(400);
  }
  answers_.push_back(reply_to(request, reply));
  return ok(answers_.back(), "application/x-pki-message");
}

void scep_ca::read_message_of(scep_request &request) {
  request.message = try_read_message(request.der);
  if (!request.message || !PKCS7_type_is_signed(request.message.get()))
    return;
  PKCS7 *message = request.message.get();
  std::string type = attribute_octets(message, PKI_OID_SCEP_MESSAGE_TYPE);
  request.type = type.empty() ? -1 : atoi(type.c_str());
  request.tx_id = attribute_octets(message, PKI_OID_SCEP_TRANSACTION_ID);
  request.sender_nonce = attribute_octets(message, PKI_OID_SCEP_SENDER_NONCE);
  request.recipient_nonce = attribute_octets(message, PKI_OID_SCEP_RECIPIENT_NONCE);
  request.payload = open_envelope(data_octets(message->d.sign->contents), key_, own_copy_);
}

std::string scep_ca::reply_to(const scep_request &request, const scep_reply &reply) {
  cert requester = carried_certificate(request.message.get());
  cert recipient = reply.recipient ? reply.recipient : requester;
  std::string made = is_honest(reply) ? library_reply(request, reply, recipient)
                                      : hand_made(request, reply, recipient);
  return reply.change ? reply.change(made) : made;
}

cert scep_ca::find_or_issue(const scep_request &request, const scep_reply &reply,
                            const cert &requester) {
  if (reply.issued)
    return reply.issued;
  if (request.type == SCEP_GET_CERT)
    return issued_.empty() ? certificate_ : issued_.back();
  cert_options options;
  options.subject = name(X509_NAME_dup(X509_get_subject_name(requester.get())), X509_NAME_free);
  options.issuer = common_name("scep ca");
  options.serial = next_serial_++;
  options.public_key = key(X509_get_pubkey(requester.get()), EVP_PKEY_free);
  options.signing_key = key_;
  issued_.push_back(make_cert(options));
  return issued_.back();
}

std::string scep_ca::library_reply(const scep_request &request, const scep_reply &reply,
                                   const cert &recipient) {
  PKCS7 *made = nullptr;
  int code;
  if (reply.status == SCEP_STATUS_SUCCESS) {
    cert issued = find_or_issue(request, reply, carried_certificate(request.message.get()));
    code = gen_scep_cert_rep(issued.get(), key_.get(), own_copy_.get(), recipient.get(),
                             request.message.get(), &made);
  } else {
    code = gen_scep_sts_rep(reply.status, reply.fail_info, key_.get(), own_copy_.get(),
                            request.message.get(), &made);
  }
  need(code == PKI_OK, "making a reply with the library");
  return der(pkcs7(made, PKCS7_free));
}

std::string scep_ca::hand_made(const scep_request &request, const scep_reply &reply,
                               const cert &recipient) {
  STACK_OF(X509_ATTRIBUTE) *attributes = sk_X509_ATTRIBUTE_new_null();
  add_content_type(attributes);
  auto add = [&](int row, const std::string &text, int type) {
    if (!text.empty())
      add_attribute(attributes, {row, text, type});
  };
  add(PKI_OID_SCEP_MESSAGE_TYPE, or_default(reply.type, "3"), V_ASN1_PRINTABLESTRING);
  add(PKI_OID_SCEP_TRANSACTION_ID, or_default(reply.tx_id, request.tx_id), V_ASN1_PRINTABLESTRING);
  add(PKI_OID_SCEP_SENDER_NONCE, or_default(reply.sender_nonce, "ca's own nonce!!"),
      V_ASN1_OCTET_STRING);
  add(PKI_OID_SCEP_RECIPIENT_NONCE, or_default(reply.recipient_nonce, request.sender_nonce),
      V_ASN1_OCTET_STRING);
  add(PKI_OID_SCEP_PKI_STATUS, or_default(reply.status_text, std::to_string(reply.status)),
      V_ASN1_PRINTABLESTRING);
  add(PKI_OID_SCEP_FAIL_INFO,
      or_default(reply.fail_text, reply.fail_info < 0 ? "" : std::to_string(reply.fail_info)),
      V_ASN1_PRINTABLESTRING);
  for (const scep_attribute &each : reply.more)
    add_attribute(attributes, each);

  std::string content;
  if (reply.inner) {
    content = *reply.inner;
  } else if (reply.payload) {
    content = der(make_envelope(*reply.payload, recipient));
  } else if (reply.status == SCEP_STATUS_SUCCESS) {
    cert issued = find_or_issue(request, reply, carried_certificate(request.message.get()));
    content = der(make_envelope(certificate_list({issued, own_copy_}), recipient));
  }
  std::string made = sign(content, reply.signing_key ? reply.signing_key : key_,
                          reply.signer_cert ? reply.signer_cert : own_copy_, attributes);
  sk_X509_ATTRIBUTE_pop_free(attributes, X509_ATTRIBUTE_free);
  return made;
}

scep_info make_scep_info(const std::string &url, const cert &ca_cert, const char *digest,
                         const char *cipher) {
  scep_req_info *made = alloc_scep_req_info();
  made->url = pki_strdup(url.c_str());
  if (ca_cert) {
    X509_up_ref(ca_cert.get());
    made->ca_cert = ca_cert.get();
  }
  made->digest = pki_strdup(digest);
  made->cipher = pki_strdup(cipher);
  return scep_info(made, free_scep_req_info);
}

std::string decode_base64(const std::string &text) {
  std::string packed;
  std::copy_if(text.begin(), text.end(), std::back_inserter(packed),
               [](char each) { return each != '\n'; });
  if (packed.size() % 4 != 0)
    return "";
  std::string octets(packed.size() / 4 * 3 + 1, '\0');
  int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(octets.data()),
                               reinterpret_cast<const unsigned char *>(packed.data()),
                               static_cast<int>(packed.size()));
  if (length < 0)
    return "";
  size_t padding = packed.empty() ? 0 : packed.size() - (packed.find_last_not_of('=') + 1);
  octets.resize(static_cast<size_t>(length) - padding);
  return octets;
}

std::string upper_hex(const std::string &octets) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (char each : octets) {
    const auto octet = static_cast<unsigned char>(each);
    text += digits[octet >> 4];
    text += digits[octet & 15];
  }
  return text;
}

}  // namespace support
