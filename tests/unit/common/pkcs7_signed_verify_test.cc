#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;

struct Pkcs7Verify : testing::Test {
  Pkcs7Verify() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~Pkcs7Verify() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  support::key ours = support::test_key(0);
  support::key theirs = support::test_key(1);
  support::cert signer_cert = certificate(ours, "signer", "signer", 7);

  support::cert certificate(const support::key &key, const std::string &subject,
                            const std::string &issuer, long serial) {
    support::cert_options options;
    options.subject = support::common_name(subject);
    options.issuer = support::common_name(issuer);
    options.serial = serial;
    options.public_key = key;
    return support::make_cert(options);
  }
  support::message_signer named(const support::key &key, const std::string &issuer, long serial) {
    return {key, support::common_name(issuer), serial};
  }

  // A message of pkcs7_sign's around `content`, as its receiver reads it.
  pkcs7 honest(const pkcs7 &content) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(pkcs7_sign(signer_cert.get(), ours.get(), EVP_sha1(), PKCS7_dup(content.get()),
                         nullptr, 0, &out),
              PKI_OK);
    pkcs7 owner(out, PKCS7_free);
    return support::read_message(support::der(owner));
  }
  pkcs7 honest() { return honest(support::make_data("inner")); }

  // pkcs7_verify with a given signer; the outputs must stay or be as documented.
  int verify(const pkcs7 &message, const support::cert &signer) {
    X509 *given = signer.get();
    auto *content = reinterpret_cast<PKCS7 *>(this);
    int code = pkcs7_verify(message.get(), &given, &content);
    EXPECT_EQ(given, signer.get());
    EXPECT_EQ(content,
              code == PKI_OK ? message->d.sign->contents : reinterpret_cast<PKCS7 *>(this));
    return code;
  }
  // The same with no signer known.
  int verify(const pkcs7 &message, X509 **found = nullptr) {
    X509 *signer = nullptr;
    auto *content = reinterpret_cast<PKCS7 *>(this);
    int code = pkcs7_verify(message.get(), &signer, &content);
    if (code == PKI_OK) {
      EXPECT_EQ(content, message->d.sign->contents);
    } else {
      EXPECT_EQ(signer, nullptr);
      EXPECT_EQ(content, reinterpret_cast<PKCS7 *>(this));
    }
    if (found)
      *found = signer;
    return code;
  }
};

TEST_F(Pkcs7Verify, AcceptsEveryContentThatPkcs7SignTakes) {
  support::cert recipient = certificate(theirs, "recipient", "recipient", 2);
  const pkcs7 contents[] = {
      support::make_data("inner"),
      support::make_data(""),
      support::make_envelope("inner", recipient),
      support::make_message({.signers = {{theirs, nullptr, 1}}}),
      support::make_signed_and_enveloped("inner", theirs, recipient),
  };
  for (const pkcs7 &content : contents) {
    pkcs7 message = honest(content);
    EXPECT_EQ(verify(message), PKI_OK) << log_dump();
    EXPECT_EQ(verify(message, signer_cert), PKI_OK) << log_dump();
  }
}

TEST_F(Pkcs7Verify, FindsTheSignerAmongTheMessagesCertificates) {
  pkcs7 message = honest();
  X509 *found = nullptr;
  ASSERT_EQ(verify(message, &found), PKI_OK);
  EXPECT_EQ(found, sk_X509_value(message->d.sign->cert, 0));
}

TEST_F(Pkcs7Verify, FindsTheCertificateThatTheFirstSignerInfoNames) {
  support::cert first = certificate(theirs, "first", "first", 1);
  pkcs7 message =
      support::make_message({.signers = {named(theirs, "first", 1), named(ours, "signer", 7)},
                             .carried = {signer_cert, first}});
  PKCS7_ISSUER_AND_SERIAL *head =
      sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0)->issuer_and_serial;
  X509 *found = nullptr;
  ASSERT_EQ(verify(message, &found), PKI_OK);
  EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(found), head->issuer), 0);
  EXPECT_EQ(ASN1_INTEGER_cmp(X509_get0_serialNumber(found), head->serial), 0);
}

TEST_F(Pkcs7Verify, SignerAndContentNeedNotBeAskedFor) {
  EXPECT_EQ(pkcs7_verify(honest().get(), nullptr, nullptr), PKI_OK);
  X509 *given = signer_cert.get();
  EXPECT_EQ(pkcs7_verify(honest().get(), &given, nullptr), PKI_OK);
}

TEST_F(Pkcs7Verify, LogsNothingWhenItSucceeds) {
  pkcs7 message = honest();
  verify(message, signer_cert);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(Pkcs7Verify, GivenSignerNeedNotBeInTheMessage) {
  EXPECT_EQ(verify(support::make_message({.signers = {named(ours, "signer", 7)}}), signer_cert),
            PKI_OK);
}

TEST_F(Pkcs7Verify, SignerThatIsNowhereToBeFoundIsAFailedVerification) {
  EXPECT_EQ(verify(support::make_message({.signers = {named(ours, "signer", 7)}})),
            PKI_P7_VERIFY_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(Pkcs7Verify, ChangedContentIsAFailedVerification) {
  pkcs7 message = honest();
  ASN1_OCTET_STRING_set(message->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>("other"), 5);
  EXPECT_EQ(verify(message), PKI_P7_VERIFY_FAILED);
  EXPECT_EQ(verify(message, signer_cert), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, AnotherEnvelopeInItsPlaceIsAFailedVerification) {
  support::cert recipient = certificate(theirs, "recipient", "recipient", 2);
  pkcs7 message = honest(support::make_envelope("inner", recipient));
  pkcs7 other = support::make_envelope("inner", recipient);
  ASSERT_EQ(PKCS7_set_content(message.get(), PKCS7_dup(other.get())), 1);
  EXPECT_EQ(verify(message, signer_cert), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, MissingContentIsAFailedVerification) {
  EXPECT_EQ(
      verify(support::make_message(
          {.signers = {named(ours, "signer", 7)}, .carried = {signer_cert}, .detached = true})),
      PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, ChangedSignatureIsAFailedVerification) {
  pkcs7 message = honest();
  ASN1_OCTET_STRING *signature =
      sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0)->enc_digest;
  signature->data[5] = static_cast<unsigned char>(signature->data[5] ^ 1);
  EXPECT_EQ(verify(message), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, AllocationFailureInTheQueueIsOutOfMemory) {
  pkcs7 message = support::make_message({.signers = {named(ours, "signer", 7)}});
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(verify(message), PKI_OUT_OF_MEMORY);
}

TEST_F(Pkcs7Verify, GivenSignerWithAnotherKeyIsAFailedVerification) {
  support::cert impostor = certificate(theirs, "signer", "signer", 7);
  EXPECT_EQ(verify(honest(), impostor), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, GivenSignerIsComparedBySubjectEvenWhenTheSignatureIsGood) {
  support::cert other_subject = certificate(ours, "another", "signer", 7);
  EXPECT_EQ(verify(honest(), other_subject), PKI_SIGNER_NOT_FOUND);
}

TEST_F(Pkcs7Verify, GivenSignerIsComparedBySerialNumber) {
  support::cert other_serial = certificate(ours, "signer", "signer", 8);
  EXPECT_EQ(verify(honest(), other_serial), PKI_SIGNER_NOT_FOUND);
}

TEST_F(Pkcs7Verify, UnrelatedSignerIsNotFound) {
  EXPECT_EQ(verify(honest(), certificate(theirs, "another", "another", 9)), PKI_SIGNER_NOT_FOUND);
}

TEST_F(Pkcs7Verify, FailedVerificationIsToldBeforeAMissingSigner) {
  pkcs7 message = honest();
  ASN1_OCTET_STRING_set(message->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>("other"), 5);
  EXPECT_EQ(verify(message, certificate(theirs, "another", "another", 9)), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, IssuedCertificateOfTheSelfSignedSignersKeyIsAccepted) {
  support::cert issued = certificate(ours, "signer", "some CA", 7);
  EXPECT_EQ(verify(honest(), issued), PKI_OK) << log_dump();
}

TEST_F(Pkcs7Verify, StrangersCertificateUnderTheSignersNameIsNotTheSigner) {
  // The stranger carries a certificate whose issuer is the signer's subject; only its key signed.
  support::cert signer = certificate(ours, "signer", "some CA", 7);
  support::cert decoy = certificate(theirs, "decoy", "signer", 7);
  pkcs7 message =
      support::make_message({.signers = {named(theirs, "signer", 7)}, .carried = {decoy}});
  ASSERT_EQ(verify(message), PKI_OK);
  EXPECT_EQ(verify(message, signer), PKI_SIGNER_NOT_FOUND);
}

TEST_F(Pkcs7Verify, AlgorithmOfAnotherKeyTypeUnderTheSignersNameIsNotTheSigner) {
  support::key elliptic = support::make_ec_key();
  support::cert signer = certificate(ours, "signer", "some CA", 7);
  support::cert decoy = certificate(elliptic, "decoy", "signer", 7);
  pkcs7 message =
      support::make_message({.signers = {named(elliptic, "signer", 7)}, .carried = {decoy}});
  EXPECT_EQ(verify(message, signer), PKI_SIGNER_NOT_FOUND);
}

// SignerInfos are a SET, which OpenSSL writes as they stand; these tests put them in order.
TEST_F(Pkcs7Verify, FirstSignerInfoMustBeTheGivenSigners) {
  support::cert stranger = certificate(theirs, "stranger", "stranger", 1);
  pkcs7 message =
      support::make_message({.signers = {named(ours, "signer", 7), named(theirs, "stranger", 1)},
                             .carried = {signer_cert, stranger}});
  STACK_OF(PKCS7_SIGNER_INFO) *signers = message->d.sign->signer_info;
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(signers), 2);
  bool ours_first =
      ASN1_INTEGER_get(sk_PKCS7_SIGNER_INFO_value(signers, 0)->issuer_and_serial->serial) == 7;
  EXPECT_EQ(verify(message, signer_cert), ours_first ? PKI_OK : PKI_SIGNER_NOT_FOUND);
  sk_PKCS7_SIGNER_INFO_push(signers, sk_PKCS7_SIGNER_INFO_shift(signers));
  EXPECT_EQ(verify(message, signer_cert), ours_first ? PKI_SIGNER_NOT_FOUND : PKI_OK);
}

TEST_F(Pkcs7Verify, OneOfTwoSignaturesThatFailsIsAFailedVerification) {
  support::cert stranger = certificate(theirs, "stranger", "stranger", 1);
  pkcs7 message =
      support::make_message({.signers = {named(ours, "signer", 7), named(ours, "stranger", 1)},
                             .carried = {signer_cert, stranger}});
  EXPECT_EQ(verify(message, signer_cert), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, StrangerWhoSignsSecondUnderTheSignersNameIsRefused) {
  support::cert copy = certificate(theirs, "signer", "signer", 7);
  pkcs7 message =
      support::make_message({.signers = {named(ours, "signer", 7), named(theirs, "signer", 7)},
                             .carried = {signer_cert, copy}});
  EXPECT_EQ(verify(message, signer_cert), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7Verify, OtherTypesAreNotSignedData) {
  support::cert recipient = certificate(theirs, "recipient", "recipient", 2);
  for (const pkcs7 &message :
       {support::make_data("inner"), support::make_envelope("inner", recipient),
        support::make_signed_and_enveloped("inner", theirs, recipient)}) {
    EXPECT_EQ(verify(message), PKI_NOT_SIGNED_DATA);
    EXPECT_EQ(verify(message, signer_cert), PKI_NOT_SIGNED_DATA);
  }
}

TEST_F(Pkcs7Verify, TypesWithoutContentAreNotSignedData) {
  for (int nid : {NID_pkcs7_data, NID_pkcs7_signed, NID_pkcs7_enveloped,
                  NID_pkcs7_signedAndEnveloped, NID_pkcs7_digest, NID_pkcs7_encrypted})
    EXPECT_EQ(verify(support::make_bare_message(nid)), PKI_NOT_SIGNED_DATA) << OBJ_nid2ln(nid);
  EXPECT_EQ(verify(pkcs7(PKCS7_new(), PKCS7_free)), PKI_NOT_SIGNED_DATA);
}

TEST_F(Pkcs7Verify, NoSignersIsToldAsSuch) {
  pkcs7 message = support::make_message({});
  EXPECT_EQ(verify(message), PKI_NO_SIGNERS);
  EXPECT_EQ(verify(message, signer_cert), PKI_NO_SIGNERS);
}

TEST_F(Pkcs7Verify, NullListOfSignersIsNoSigners) {
  pkcs7 message = support::make_message({});
  sk_PKCS7_SIGNER_INFO_free(message->d.sign->signer_info);
  message->d.sign->signer_info = nullptr;
  EXPECT_EQ(verify(message), PKI_NO_SIGNERS);
  EXPECT_EQ(verify(message, signer_cert), PKI_NO_SIGNERS);
  EXPECT_EQ(pkcs7_verify(message.get(), nullptr, nullptr), PKI_NO_SIGNERS);
}

TEST_F(Pkcs7Verify, InnerTypesThatCannotBeDigestedArePassedOn) {
  support::message_options options;
  options.signers = {named(ours, "signer", 7)};
  options.carried = {signer_cert};
  for (int nid : {NID_pkcs7_signed, NID_pkcs7_enveloped, NID_pkcs7_signedAndEnveloped}) {
    options.inner = support::make_bare_message(nid);
    EXPECT_EQ(verify(support::make_message(options)), PKI_INVALID_DER) << OBJ_nid2ln(nid);
  }
  for (int nid : {NID_pkcs7_digest, NID_pkcs7_encrypted}) {
    options.inner = support::make_bare_message(nid);
    EXPECT_EQ(verify(support::make_message(options)), PKI_UNKNOWN_P7_CONTENT_TYPE)
        << OBJ_nid2ln(nid);
  }
}

TEST_F(Pkcs7Verify, NullInnerContentIsInvalid) {
  pkcs7 message = honest();
  PKCS7_free(message->d.sign->contents);
  message->d.sign->contents = nullptr;
  EXPECT_EQ(verify(message), PKI_INVALID_DER);
}

TEST_F(Pkcs7Verify, NullMessageIsRefused) {
  X509 *signer = nullptr;
  PKCS7 *content = nullptr;
  EXPECT_EQ(pkcs7_verify(nullptr, &signer, &content), PKI_INVALID_ARGS);
}

}  // namespace
