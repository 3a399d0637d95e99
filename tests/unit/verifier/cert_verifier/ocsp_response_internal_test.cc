// What the answer says: its status, its type, its nonce, its single responses, and the record that
// comes of it.
#include "fakes/failures.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;

namespace {

class OcspResponse : public ocsp_query_test {
 protected:
  // The device's CertID with one part replaced.
  std::string id_of(const support::cert &cert, const EVP_MD *digest = EVP_sha1()) const {
    return support::ocsp_cert_id(cert, issuer, digest);
  }
  ocsp_single single(const std::string &id, int status) const {
    ocsp_single made;
    made.id = id;
    made.status = status;
    return made;
  }
};

TEST_F(OcspResponse, GoodGivesARecordUntilTheNextUpdate) {
  ocsp_options options = by_issuer();
  options.single.next_update = start + 7200;
  record info = ask(options);
  ASSERT_NE(nullptr, info) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, info->status);
  EXPECT_EQ(device.get(), info->cert);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, start + 7200));
  EXPECT_EQ(1u, info->ref_count);
  EXPECT_EQ(0u, info->hits);
  EXPECT_EQ(nullptr, info->link.previous);
  EXPECT_EQ(accepted_from_issuer("ok"), judgement());
}

TEST_F(OcspResponse, RecordKeepsTheCertificateAlive) {
  record info = ask(by_issuer());
  ASSERT_NE(nullptr, info);
  std::string before = support::der(device);
  device.reset();
  support::cert kept(info->cert, [](X509 *) {});
  EXPECT_EQ(before, support::der(kept));
}

TEST_F(OcspResponse, RevokedGivesARecord) {
  record info = ask(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info));
  EXPECT_EQ(accepted_from_issuer("revoked"), judgement());
}

TEST_F(OcspResponse, UnknownGivesARecord) {
  record info = ask(by_issuer(V_OCSP_CERTSTATUS_UNKNOWN));
  ASSERT_NE(nullptr, info);
  EXPECT_EQ(PKI_CERT_UNKNOWN, status_of(info));
  EXPECT_EQ(device.get(), info->cert);
  EXPECT_EQ(accepted_from_issuer("unknown"), judgement());
}

TEST_F(OcspResponse, CertificateStatusOfNoKindDoesNotDecode) {
  for (int status : {3, 4, 30}) {
    clear_log();
    EXPECT_EQ(nullptr, ask(by_issuer(status)));
    EXPECT_EQ("3: Failed to decode basic-response in ocsp response\n", judgement()) << status;
  }
}

// A later OpenSSL may know more kinds.
TEST_F(OcspResponse, CertificateStatusOfAKindThatOnlyOpensslKnowsIsUnknown) {
  for (int status : {3, 4, -1, 1000}) {
    clear_log();
    fake_failures::change_single_status(status);
    record info = ask(by_issuer(V_OCSP_CERTSTATUS_GOOD));
    EXPECT_EQ(PKI_CERT_UNKNOWN, status_of(info)) << status;
    EXPECT_EQ(accepted_from_issuer("unknown"), judgement()) << status;
  }
}

TEST_F(OcspResponse, WithoutNextUpdateThereIsNoRecord) {
  for (int status :
       {V_OCSP_CERTSTATUS_GOOD, V_OCSP_CERTSTATUS_REVOKED, V_OCSP_CERTSTATUS_UNKNOWN}) {
    clear_log();
    ocsp_options options = by_issuer(status);
    options.single.next_update = support::ocsp_left_out;
    EXPECT_EQ(nullptr, ask(options));
    const char *texts[] = {"ok", "revoked", "unknown"};
    EXPECT_EQ(accepted_from_issuer(texts[status]) + no_next_update_line, judgement());
  }
}

TEST_F(OcspResponse, NothingIsCached) {
  record info = ask(by_issuer());
  ASSERT_NE(nullptr, info);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(device.get()));
}

// ---- response status ----

TEST_F(OcspResponse, DefinedFailuresAreUnexpectedCodes) {
  for (long status : {1L, 2L, 3L, 5L, 6L}) {
    clear_log();
    ocsp_options options;
    options.with_bytes = false;
    options.response_status = status;
    EXPECT_EQ(nullptr, ask(options));
    EXPECT_EQ(lookup_line() +
                  "3: Unexpected ocsp response code received: " + std::to_string(status) + "\n",
              log_dump());
  }
}

TEST_F(OcspResponse, OtherCodesAreUnknown) {
  for (long status : {4L, 7L, 9L, 127L, 128L, 255L, 65536L, -1L}) {
    clear_log();
    ocsp_options options;
    options.with_bytes = false;
    options.response_status = status;
    EXPECT_EQ(nullptr, ask(options));
    EXPECT_EQ(
        lookup_line() + "3: Unknown ocsp response code received: " + std::to_string(status) + "\n",
        log_dump());
  }
}

TEST_F(OcspResponse, FailureCodeCountsAlsoWithAGoodAnswerBehindIt) {
  ocsp_options options = by_issuer();
  options.response_status = 3;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(lookup_line() + "3: Unexpected ocsp response code received: 3\n", log_dump());
}

// ---- response bytes ----

TEST_F(OcspResponse, SuccessWithoutResponseBytesIsNone) {
  ocsp_options options;
  options.with_bytes = false;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(lookup_line() + "3: No response-bytes found in ocsp response\n", own_log());
}

TEST_F(OcspResponse, OtherResponseTypesAreRefused) {
  ocsp_options options = by_issuer();
  options.type = "1.2.3.4.5";
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(lookup_line() + "3: Unexpected response type found in ocsp response: 1.2.3.4.5\n",
            own_log());
}

TEST_F(OcspResponse, LongResponseTypeIsCut) {
  ocsp_options options = by_issuer();
  options.type = "1.2.30000.40000.50000.60000.70000.80000.90000.10000.11000.12000";
  EXPECT_EQ(nullptr, ask(options));
  const std::string text = "Unexpected response type found in ocsp response: ";
  ASSERT_EQ(2u, captured_log().size()) << log_dump();
  log_entry last = captured_log().back();
  EXPECT_EQ(3, last.level);
  ASSERT_EQ(0u, last.text.rfind(text, 0)) << last.text;
  std::string type = last.text.substr(text.size());
  EXPECT_LE(type.size(), 50u);
  EXPECT_GE(type.size(), 49u);
  EXPECT_EQ(options.type.substr(0, type.size()), type);
}

TEST_F(OcspResponse, BasicResponseThatIsNoneIsRefused) {
  ocsp_options options;
  options.basic = "no DER at all";
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(lookup_line() + "7: basic-rsp len: 13\n" +
                "3: Failed to decode basic-response in ocsp response\n",
            own_log());
}

TEST_F(OcspResponse, EmptyBasicResponseIsRefused) {
  ocsp_options options = by_issuer();
  options.basic = support::tlv(0x30, "");
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(lookup_line() + "7: basic-rsp len: 2\n" +
                "3: Failed to decode basic-response in ocsp response\n",
            own_log());
}

// ---- nonce ----

TEST_F(OcspResponse, MirroredNonceIsAccepted) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
}

TEST_F(OcspResponse, AnswerWithoutNonceIsAccepted) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::none;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspResponse, OtherNoncesAreRefused) {
  for (ocsp_nonce nonce : {ocsp_nonce::changed, ocsp_nonce::longer, ocsp_nonce::shorter}) {
    clear_log();
    ocsp_options options = by_issuer();
    options.nonce = nonce;
    EXPECT_EQ(nullptr, ask(options));
    EXPECT_EQ("3: Nonce returned in ocsp response did not match nonce sent in request\n",
              judgement());
  }
}

TEST_F(OcspResponse, AnswerOfAnEarlierQueryIsRefused) {
  ocsp_responder honest(by_issuer());
  ASSERT_EQ(PKI_CERT_OK, status_of(ask(honest)));
  support::ocsp_request earlier = support::decode_ocsp_request(honest.requests().at(0));
  ocsp_responder replaying(support::make_ocsp_response(by_issuer(), earlier));
  clear_log();
  EXPECT_EQ(nullptr, ask(replaying));
  EXPECT_EQ("3: Nonce returned in ocsp response did not match nonce sent in request\n",
            judgement());
}

TEST_F(OcspResponse, CriticalNonceIsANonce) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::critical;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

// ---- extensions (RFC 6960 4.4) ----

TEST_F(OcspResponse, UnknownCriticalExtensionOfTheAnswerIsRefused) {
  ocsp_options options = by_issuer();
  options.extensions =
      support::ocsp_extension("1.2.3.4.4", false) + support::ocsp_extension("1.2.3.4.5", true);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("4: Found unknown critical ocsp extension: 1.2.3.4.5\n", judgement());
}

TEST_F(OcspResponse, UnknownCriticalExtensionOfTheSingleResponseIsRefused) {
  ocsp_options options = by_issuer();
  options.single.extensions =
      support::ocsp_extension("1.2.3.4.4", false) + support::ocsp_extension("1.2.3.4.5", true);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("4: Found unknown critical ocsp extension: 1.2.3.4.5\n", judgement());
}

TEST_F(OcspResponse, CriticalExtensionThatOnlyOpensslKnowsIsRefused) {
  ocsp_options options = by_issuer();
  options.single.extensions = support::ocsp_extension("1.3.6.1.5.5.7.48.1.6", true);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("4: Found unknown critical ocsp extension: OCSP Archive Cutoff\n", judgement());
}

TEST_F(OcspResponse, OtherExtensionsAreIgnored) {
  ocsp_options options = by_issuer();
  options.extensions = support::ocsp_extension("1.2.3.4.5", false);
  options.single.extensions = support::ocsp_extension("1.3.6.1.5.5.7.48.1.6", false);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspResponse, CriticalExtensionsOfOtherSingleResponsesAreIgnored) {
  ocsp_options options = by_issuer();
  options.in_front = {single(id_of(issue("other", 100, device_key)), V_OCSP_CERTSTATUS_GOOD)};
  options.in_front[0].extensions = support::ocsp_extension("1.2.3.4.5", true);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

// ---- single responses ----

TEST_F(OcspResponse, WithoutSingleResponsesItIsRefused) {
  ocsp_options options = by_issuer();
  options.with_single = false;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("3: No single-responses found in ocsp response\n", judgement());
}

TEST_F(OcspResponse, AnswersAboutOtherCertificatesAreNone) {
  support::cert other = issue("device", device_serial + 1, device_key);
  support::cert namesake = make_issuer("issuer", stranger_key);
  support::cert other_name = make_issuer("other", issuer_key);
  const std::string ids[] = {id_of(other), support::ocsp_cert_id(device, namesake),
                             // The name hash comes from the certificate that is asked for.
                             support::ocsp_cert_id(
                                 [&] {
                                   support::cert_options made =
                                       valid_options("device", device_serial, device_key);
                                   made.issuer = support::common_name("other");
                                   return support::make_cert(made);
                                 }(),
                                 other_name),
                             id_of(device, EVP_sha256())};
  for (const std::string &id : ids) {
    clear_log();
    ocsp_options options = by_issuer();
    options.single.id = id;
    EXPECT_EQ(nullptr, ask(options));
    EXPECT_EQ("3: No single-responses found in ocsp response which match the requested cert-id\n",
              judgement());
  }
}

TEST_F(OcspResponse, AnswersAboutOthersAreSkipped) {
  ocsp_options options = by_issuer(V_OCSP_CERTSTATUS_REVOKED);
  for (long serial = 100; serial < 105; serial++)
    options.in_front.push_back(
        single(id_of(issue("other", serial, device_key)), V_OCSP_CERTSTATUS_GOOD));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask(options)));
}

TEST_F(OcspResponse, FirstMatchingAnswerCounts) {
  ocsp_options options = by_issuer(V_OCSP_CERTSTATUS_GOOD);
  options.in_front = {single("", V_OCSP_CERTSTATUS_REVOKED)};
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask(options)));
  options = by_issuer(V_OCSP_CERTSTATUS_REVOKED);
  options.in_front = {single("", V_OCSP_CERTSTATUS_GOOD)};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
}

TEST_F(OcspResponse, FirstMatchingAnswerCountsAlsoWhenItIsTooOld) {
  ocsp_options options = by_issuer();
  ocsp_single old = single("", V_OCSP_CERTSTATUS_GOOD);
  old.next_update = start - 1000;
  options.in_front = {old};
  EXPECT_EQ(nullptr, ask(options));
}

// ---- order of the checks ----

TEST_F(OcspResponse, NonceIsCheckedBeforeTheSingleResponses) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::changed;
  options.with_single = false;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("3: Nonce returned in ocsp response did not match nonce sent in request\n",
            judgement());
}

TEST_F(OcspResponse, ExtensionsAreCheckedBetweenTheSingleResponsesAndTheTimes) {
  ocsp_options options = by_issuer();
  options.extensions = support::ocsp_extension("1.2.3.4.5", true);
  options.produced_at = start + 1000;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("4: Found unknown critical ocsp extension: 1.2.3.4.5\n", judgement());
  clear_log();
  options.with_single = false;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("3: No single-responses found in ocsp response\n", judgement());
}

TEST_F(OcspResponse, SingleResponsesAreCheckedBeforeTheTimes) {
  ocsp_options options = by_issuer();
  options.with_single = false;
  options.produced_at = start + 1000;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("3: No single-responses found in ocsp response\n", judgement());
}

TEST_F(OcspResponse, TimesAreCheckedBeforeTheSignature) {
  ocsp_options options = by_issuer();
  options.produced_at = start + 1000;
  options.damaged_signature = true;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ("3: The ocsp response was produced in the future (Nov 14 22:30:00 2023 GMT)!\n",
            judgement());
}

}  // namespace
