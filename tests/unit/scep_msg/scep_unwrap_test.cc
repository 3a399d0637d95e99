// Opening messages: each payload back out, and what is refused with which code.
#include "messages.h"

namespace {

using namespace scep;

std::string ias_der(const SCEP_ISSUER_AND_SUBJECT *pair) {
  std::string octets(static_cast<size_t>(i2d_SCEP_ISSUER_AND_SUBJECT(pair, nullptr)), '?');
  auto *out = reinterpret_cast<unsigned char *>(octets.data());
  i2d_SCEP_ISSUER_AND_SUBJECT(pair, &out);
  return octets;
}

struct ScepUnwrap : scep_test {
  support::key stranger_key = support::test_key(2);
  support::cert stranger = certificate("stranger", stranger_key, 66);
  ias names = make_ias();

  // A message from the device to the CA around that inner content.
  pkcs7 signed_around(PKCS7 *content, const support::cert &signer, const support::key &key) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(pkcs7_sign(signer.get(), key.get(), EVP_sha256(), content, nullptr, 0, &out), PKI_OK);
    pkcs7 made(out, PKCS7_free);
    return read_back(made);
  }
  pkcs7 signed_around(PKCS7 *content) { return signed_around(content, device, device_key); }
  pkcs7 signed_data(const std::string &octets) {
    return signed_around(PKCS7_dup(support::make_data(octets).get()));
  }
  pkcs7 enveloped(const std::string &plain, const support::cert &recipient) {
    return signed_data(support::der(support::make_envelope(plain, recipient)));
  }
  pkcs7 enveloped(const std::string &plain) { return enveloped(plain, ca); }
  pkcs7 poll() { return enveloped(ias_der(names.get())); }

  // parse_scep_get_cert_init for the CA: "" and a null output unless it gives names.
  int open(const pkcs7 &message, X509 **signer, const support::key &key,
           const support::cert &cert) {
    auto *out = untouched<void>();
    int code = parse_scep_get_cert_init(message.get(), signer, key.get(), cert.get(), &out);
    if (code != PKI_OK) {
      EXPECT_EQ(out, nullptr);
    } else {
      ias owner(static_cast<SCEP_ISSUER_AND_SUBJECT *>(out), SCEP_ISSUER_AND_SUBJECT_free);
      EXPECT_EQ(ias_der(owner.get()), ias_der(names.get()));
    }
    return code;
  }
  int open(const pkcs7 &message) {
    X509 *signer = nullptr;
    return open(message, &signer, ca_key, ca);
  }
};

// ---- payloads ----

TEST_F(ScepUnwrap, CertificateRequest) {
  PKCS7 *made = nullptr;
  support::name subject = support::common_name("gateway");
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), subject.get(), ca.get(), nullptr,
                              0, nullptr, nullptr, &made),
            PKI_OK);
  pkcs7 message = read_back(pkcs7(made, PKCS7_free));
  X509 *signer = nullptr;
  void *out = nullptr;
  ASSERT_EQ(parse_scep_cert_req(message.get(), &signer, ca_key.get(), ca.get(), &out), PKI_OK);
  auto *request = static_cast<X509_REQ *>(out);
  EXPECT_EQ(X509_NAME_cmp(X509_REQ_get_subject_name(request), subject.get()), 0);
  EXPECT_EQ(X509_REQ_verify(request, device_key.get()), 1);
  EXPECT_EQ(signer, sk_X509_value(message->d.sign->cert, 0));
  X509_REQ_free(request);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(ScepUnwrap, Poll) {
  PKCS7 *made = nullptr;
  pkcs7 earlier = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  ASSERT_EQ(gen_scep_get_cert_init(names.get(), device_key.get(), device.get(), ca.get(),
                                   earlier.get(), nullptr, nullptr, &made),
            PKI_OK);
  EXPECT_EQ(open(read_back(pkcs7(made, PKCS7_free))), PKI_OK) << log_dump();
}

TEST_F(ScepUnwrap, Query) {
  PKCS7 *made = nullptr;
  issuer_and_serial asked = make_issuer_and_serial();
  ASSERT_EQ(gen_scep_get_cert(asked.get(), device_key.get(), nullptr, device_key.get(), ca.get(),
                              nullptr, nullptr, &made),
            PKI_OK);
  pkcs7 message = read_back(pkcs7(made, PKCS7_free));
  X509 *signer = nullptr;
  void *out = nullptr;
  ASSERT_EQ(parse_scep_get_cert(message.get(), &signer, ca_key.get(), ca.get(), &out), PKI_OK);
  auto *read = static_cast<PKCS7_ISSUER_AND_SERIAL *>(out);
  EXPECT_EQ(X509_NAME_cmp(read->issuer, asked->issuer), 0);
  EXPECT_EQ(ASN1_INTEGER_get(read->serial), 4711);
  PKCS7_ISSUER_AND_SERIAL_free(read);
}

TEST_F(ScepUnwrap, ReplyWithCertificates) {
  PKCS7 *made = nullptr;
  pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  support::cert issued = support::simple_cert("ca", "issued", 99);
  ASSERT_EQ(
      gen_scep_cert_rep(issued.get(), ca_key.get(), ca.get(), device.get(), request.get(), &made),
      PKI_OK);
  pkcs7 message = read_back(pkcs7(made, PKCS7_free));
  X509 *signer = ca.get();
  void *out = nullptr;
  ASSERT_EQ(parse_scep_cert_rep(message.get(), &signer, device_key.get(), device.get(), &out),
            PKI_OK);
  pkcs7 bag(static_cast<PKCS7 *>(out), PKCS7_free);
  EXPECT_EQ(signer, ca.get());
  ASSERT_TRUE(PKCS7_type_is_signed(bag.get()));
  ASSERT_EQ(sk_X509_num(bag->d.sign->cert), 2);
  EXPECT_EQ(X509_cmp(sk_X509_value(bag->d.sign->cert, 0), issued.get()), 0);
}

TEST_F(ScepUnwrap, EnvelopeMadeByOpenSslAlone) {
  EXPECT_EQ(open(poll()), PKI_OK) << log_dump();
}

TEST_F(ScepUnwrap, DecoderOfTheCallers) {
  pkcs7 message = enveloped(scep::encode<X509>(ca.get(), i2d_X509));
  X509 *signer = nullptr;
  void *out = nullptr;
  ASSERT_EQ(scep_unwrap_msg(message.get(), reinterpret_cast<d2i_fn *>(d2i_X509), &signer,
                            ca_key.get(), ca.get(), &out),
            PKI_OK);
  auto *read = static_cast<X509 *>(out);
  EXPECT_EQ(X509_cmp(read, ca.get()), 0);
  X509_free(read);
}

TEST_F(ScepUnwrap, BigKeysAndModernAlgorithms) {
  ca_key = device_key = big_key();
  ca = certificate("big ca", ca_key, 5);
  device = certificate("big device", device_key, 7);
  PKCS7 *made = nullptr;
  pkcs7 earlier = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  ASSERT_EQ(gen_scep_get_cert_init(names.get(), device_key.get(), device.get(), ca.get(),
                                   earlier.get(), EVP_sha256(), EVP_aes_128_cbc(), &made),
            PKI_OK);
  EXPECT_EQ(open(read_back(pkcs7(made, PKCS7_free))), PKI_OK) << log_dump();
}

// ---- signers ----

TEST_F(ScepUnwrap, SignerMayBeUnaskedForUnknownOrGiven) {
  pkcs7 message = poll();
  EXPECT_EQ(open(message, nullptr, ca_key, ca), PKI_OK);
  X509 *signer = nullptr;
  EXPECT_EQ(open(message, &signer, ca_key, ca), PKI_OK);
  EXPECT_EQ(signer, sk_X509_value(message->d.sign->cert, 0));
  signer = device.get();
  EXPECT_EQ(open(message, &signer, ca_key, ca), PKI_OK);
  EXPECT_EQ(signer, device.get());
}

TEST_F(ScepUnwrap, StrangersMessageIsNotTheGivenSigners) {
  const std::string envelope = support::der(support::make_envelope(ias_der(names.get()), ca));
  pkcs7 message =
      signed_around(PKCS7_dup(support::make_data(envelope).get()), stranger, stranger_key);
  X509 *signer = device.get();
  EXPECT_EQ(open(message, &signer, ca_key, ca), PKI_SIGNER_NOT_FOUND);
  EXPECT_EQ(signer, device.get());
}

TEST_F(ScepUnwrap, StrangerUnderTheSignersNameDoesNotVerify) {
  const std::string envelope = support::der(support::make_envelope(ias_der(names.get()), ca));
  support::cert impostor = certificate("device", stranger_key, 7);
  pkcs7 message =
      signed_around(PKCS7_dup(support::make_data(envelope).get()), impostor, stranger_key);
  X509 *signer = device.get();
  EXPECT_EQ(open(message, &signer, ca_key, ca), PKI_P7_VERIFY_FAILED);
}

TEST_F(ScepUnwrap, StrangerWhoseCertificateRidesAlongIsStillRefused) {
  pkcs7 message = poll();
  ASSERT_EQ(PKCS7_add_certificate(message.get(), stranger.get()), 1);
  X509 *signer = stranger.get();
  EXPECT_EQ(open(read_back(message), &signer, ca_key, ca), PKI_SIGNER_NOT_FOUND);
}

TEST_F(ScepUnwrap, ChangedContentDoesNotVerify) {
  pkcs7 message = poll();
  ASN1_OCTET_STRING *octets = message->d.sign->contents->d.data;
  octets->data[octets->length - 1] =
      static_cast<unsigned char>(octets->data[octets->length - 1] ^ 1);
  EXPECT_EQ(open(message), PKI_P7_VERIFY_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(ScepUnwrap, MessagesThatAreNotSignedAreRefused) {
  EXPECT_EQ(open(support::make_envelope("x", ca)), PKI_NOT_SIGNED_DATA);
  EXPECT_EQ(open(message_of_signers({})), PKI_NO_SIGNERS);
}

// ---- envelopes ----

TEST_F(ScepUnwrap, EnvelopeForAnotherIsRefused) {
  EXPECT_EQ(open(enveloped(ias_der(names.get()), stranger)), PKI_P7_DECRYPT_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(ScepUnwrap, EnvelopeForTheRightNameButAnotherKeyIsRefused) {
  support::cert impostor = certificate("ca", stranger_key, 5);
  EXPECT_EQ(open(enveloped(ias_der(names.get()), impostor)), PKI_P7_DECRYPT_FAILED);
}

TEST_F(ScepUnwrap, CorrectlySignedReplyForAnotherRecipientIsRefused) {
  PKCS7 *made = nullptr;
  pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  ASSERT_EQ(
      gen_scep_cert_rep(device.get(), ca_key.get(), ca.get(), stranger.get(), request.get(), &made),
      PKI_OK);
  pkcs7 message = read_back(pkcs7(made, PKCS7_free));
  X509 *signer = ca.get();
  auto *out = untouched<void>();
  EXPECT_EQ(parse_scep_cert_rep(message.get(), &signer, device_key.get(), device.get(), &out),
            PKI_P7_DECRYPT_FAILED);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(parse_scep_sts_rep(message.get(), &signer), PKI_OK) << "the signature is good";
}

TEST_F(ScepUnwrap, InnerContentThatIsNotDataIsRefused) {
  EXPECT_EQ(open(signed_around(PKCS7_dup(support::make_envelope("x", ca).get()))), PKI_INVALID_DER);
  EXPECT_EQ(open(signed_around(PKCS7_dup(message_with({}).get()))), PKI_INVALID_DER);
}

TEST_F(ScepUnwrap, EmptyInnerContentIsRefused) {
  EXPECT_EQ(open(signed_data("")), PKI_INVALID_DER);
}

TEST_F(ScepUnwrap, InnerContentThatIsNoDerIsRefused) {
  const std::string envelope = support::der(support::make_envelope("x", ca));
  for (const std::string &octets :
       {std::string("garbage"), std::string(1, '\0'), envelope.substr(0, envelope.size() - 1),
        envelope.substr(1), tlv(0x30, ""), std::string(5000, '\x30')}) {
    EXPECT_EQ(open(signed_data(octets)), PKI_INVALID_DER);
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(ScepUnwrap, InnerMessageThatIsNoEnvelopeIsRefused) {
  for (const pkcs7 &inner : {support::make_data(ias_der(names.get())), message_with({}),
                             support::make_signed_and_enveloped("x", device_key, ca)}) {
    int code = open(signed_data(support::der(inner)));
    EXPECT_TRUE(code == PKI_INVALID_DER || code == PKI_P7_DECRYPT_FAILED) << code;
  }
}

TEST_F(ScepUnwrap, EnvelopeWithNothingInItIsRefused) {
  EXPECT_EQ(open(signed_data(support::der(support::make_bare_message(NID_pkcs7_enveloped)))),
            PKI_INVALID_DER);
}

// ---- payloads that are none ----

TEST_F(ScepUnwrap, GarbageAsPayloadIsRefused) {
  const std::string whole = ias_der(names.get());
  for (const std::string &plain : {std::string(), std::string("garbage"), std::string(100, '\0'),
                                   whole.substr(0, whole.size() - 1), tlv(0x30, "")}) {
    EXPECT_EQ(open(enveloped(plain)), PKI_INVALID_DER) << plain.size();
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
}

TEST_F(ScepUnwrap, PayloadOfAnotherMessageIsRefusedByEachParser) {
  pkcs7 message = enveloped(encode<X509>(ca.get(), i2d_X509));
  X509 *signer = nullptr;
  for (auto *parser :
       {parse_scep_cert_rep, parse_scep_get_cert, parse_scep_get_cert_init, parse_scep_cert_req}) {
    auto *out = untouched<void>();
    EXPECT_EQ(parser(message.get(), &signer, ca_key.get(), ca.get(), &out), PKI_INVALID_DER);
    EXPECT_EQ(out, nullptr);
  }
}

TEST_F(ScepUnwrap, FailuresAreReportedFromOutsideIn) {
  // A bad signature hides a bad envelope, a bad envelope a bad payload.
  pkcs7 message = signed_data("garbage");
  PKCS7_SIGNER_INFO *info = first_signer(message);
  info->enc_digest->data[0] = static_cast<unsigned char>(info->enc_digest->data[0] ^ 1);
  EXPECT_EQ(open(message), PKI_P7_VERIFY_FAILED);
  EXPECT_EQ(open(enveloped("garbage", stranger)), PKI_P7_DECRYPT_FAILED);
}

TEST_F(ScepUnwrap, FailedOpeningLeavesTheMessageAsItWas) {
  pkcs7 message = enveloped("garbage");
  std::string before = support::der(message);
  open(message);
  EXPECT_EQ(support::der(message), before);
}

// ---- arguments ----

TEST_F(ScepUnwrap, EachMissingArgumentIsRefused) {
  pkcs7 message = poll();
  X509 *signer = nullptr;
  for (auto *parser :
       {parse_scep_cert_rep, parse_scep_get_cert, parse_scep_get_cert_init, parse_scep_cert_req}) {
    auto *out = untouched<void>();
    EXPECT_EQ(parser(nullptr, &signer, ca_key.get(), ca.get(), &out), PKI_INVALID_ARGS);
    EXPECT_EQ(out, nullptr);
    out = untouched<void>();
    EXPECT_EQ(parser(message.get(), &signer, nullptr, ca.get(), &out), PKI_INVALID_ARGS);
    EXPECT_EQ(out, nullptr);
    out = untouched<void>();
    EXPECT_EQ(parser(message.get(), &signer, ca_key.get(), nullptr, &out), PKI_INVALID_ARGS);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(parser(message.get(), &signer, ca_key.get(), ca.get(), nullptr), PKI_INVALID_ARGS);
  }
  auto *out = untouched<void>();
  EXPECT_EQ(scep_unwrap_msg(message.get(), nullptr, &signer, ca_key.get(), ca.get(), &out),
            PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(parse_scep_sts_rep(nullptr, &signer), PKI_INVALID_ARGS);
}

// ---- a status alone ----

struct ParseScepStsRep : ScepUnwrap {
  pkcs7 reply() {
    PKCS7 *made = nullptr;
    pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                                  attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
    EXPECT_EQ(gen_scep_sts_rep(3, -1, ca_key.get(), ca.get(), request.get(), &made), PKI_OK);
    pkcs7 owner(made, PKCS7_free);
    return read_back(owner);
  }
};

TEST_F(ParseScepStsRep, TakesAReplyOfTheGivenSigner) {
  X509 *signer = ca.get();
  EXPECT_EQ(parse_scep_sts_rep(reply().get(), &signer), PKI_OK);
  EXPECT_EQ(signer, ca.get());
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(ParseScepStsRep, FindsTheSigner) {
  pkcs7 message = reply();
  X509 *signer = nullptr;
  EXPECT_EQ(parse_scep_sts_rep(message.get(), &signer), PKI_OK);
  EXPECT_EQ(signer, sk_X509_value(message->d.sign->cert, 0));
  EXPECT_EQ(parse_scep_sts_rep(message.get(), nullptr), PKI_OK);
}

TEST_F(ParseScepStsRep, IgnoresTheContent) {
  X509 *signer = device.get();
  EXPECT_EQ(parse_scep_sts_rep(signed_data("garbage").get(), &signer), PKI_OK);
  EXPECT_EQ(parse_scep_sts_rep(poll().get(), &signer), PKI_OK);
}

TEST_F(ParseScepStsRep, RefusesStrangersAndChangedMessages) {
  X509 *signer = stranger.get();
  EXPECT_EQ(parse_scep_sts_rep(reply().get(), &signer), PKI_SIGNER_NOT_FOUND);
  support::cert impostor = certificate("ca", stranger_key, 5);
  signer = impostor.get();
  EXPECT_EQ(parse_scep_sts_rep(reply().get(), &signer), PKI_P7_VERIFY_FAILED);
  pkcs7 changed = reply();
  ASN1_OCTET_STRING_set(changed->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>("x"), 1);
  signer = ca.get();
  EXPECT_EQ(parse_scep_sts_rep(changed.get(), &signer), PKI_P7_VERIFY_FAILED);
  EXPECT_EQ(parse_scep_sts_rep(support::make_data("x").get(), &signer), PKI_NOT_SIGNED_DATA);
  EXPECT_EQ(parse_scep_sts_rep(message_of_signers({}).get(), &signer), PKI_NO_SIGNERS);
}

TEST_F(ParseScepStsRep, StatusThatWasChangedDoesNotVerify) {
  pkcs7 changed = reply();
  ASN1_STRING *status =
      PKCS7_get_signed_attribute(first_signer(changed), pki_nid_list[PKI_OID_SCEP_PKI_STATUS])
          ->value.asn1_string;
  ASN1_STRING_set(status, "0", 1);
  X509 *signer = ca.get();
  EXPECT_EQ(parse_scep_sts_rep(read_back(changed).get(), &signer), PKI_P7_VERIFY_FAILED);
}

}  // namespace
