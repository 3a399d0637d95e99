// Answers that are cut, changed, huge or hostile.
#include <set>

#include "fakes/allocator.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;
using support::tlv;

namespace {

constexpr unsigned char sequence = 0x30;

// The elements that `der`'s content consists of, each with its tag and length.
std::vector<std::string> parts(const std::string &der) {
  auto header = [](const std::string &octets, size_t at, size_t *length) {
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data()) + at;
    const unsigned char *content = in;
    long size = 0;
    int tag, tag_class;
    ASN1_get_object(&content, &size, &tag, &tag_class, static_cast<long>(octets.size() - at));
    *length = static_cast<size_t>(size);
    return static_cast<size_t>(content - in);
  };
  std::vector<std::string> found;
  size_t length = 0;
  size_t at = header(der, 0, &length);
  while (at < der.size()) {
    size_t head = header(der, at, &length);
    found.push_back(der.substr(at, head + length));
    at += head + length;
  }
  return found;
}

// The content of a DER element.
std::string content_of(const std::string &der) {
  std::string content;
  for (const std::string &each : parts(der))
    content += each;
  return content;
}

// The basic response in a response.
std::string basic_of(const std::string &response) {
  return content_of(parts(parts(parts(response).at(1)).at(0)).at(1));
}

std::string join(unsigned char tag, const std::vector<std::string> &elements) {
  std::string content;
  for (const std::string &each : elements)
    content += each;
  return tlv(tag, content);
}

// `deep` SEQUENCEs in each other.
std::string nested(size_t deep) {
  // From the inside: lengths first, heads then.
  std::vector<std::string> heads;
  size_t size = 0;
  for (size_t i = 0; i < deep; i++) {
    std::string head = tlv(sequence, std::string(size < 0x80 ? size : 0x80, 'x')).substr(0, 2);
    if (size >= 0x80) {
      std::string digits;
      for (size_t rest = size; rest; rest >>= 8)
        digits.insert(digits.begin(), static_cast<char>(rest & 0xFF));
      head = std::string(1, sequence) + static_cast<char>(0x80 | digits.size()) + digits;
    }
    size += head.size();
    heads.push_back(head);
  }
  std::string octets;
  for (size_t i = deep; i-- > 0;)
    octets += heads[i];
  return octets;
}

std::string nested_indefinite(size_t deep) {
  std::string octets;
  for (size_t i = 0; i < deep; i++)
    octets += std::string("\x30\x80", 2);
  return octets + std::string(2 * deep, '\0');
}

const std::string hostile[] = {
    std::string("\x30\x84\xFF\xFF\xFF\xFF", 6),
    std::string("\x30\x84\x7F\xFF\xFF\xFF", 6),
    std::string("\x30\x88\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10),
    std::string("\x30\x88\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10),
    std::string("\x30\xFF", 2) + std::string(127, '\xFF'),
    std::string("\x30\x80", 2),
    std::string("\x30\x80\x0A\x01\x00\x00\x00", 7),
    std::string("\x30\x80\x0A\x01\x00\xA0\x80\x30\x80", 9),
    std::string("\x30\x03\x0A\x81\x00", 5),
    std::string("\x30\x02\x0A\x00", 4),
    std::string("\x3F\xFF\xFF\xFF\xFF\xFF\x7F\x00", 8),
};

class OcspBadInput : public ocsp_query_test {
 protected:
  // The constant answer to every query for the device.
  ocsp_options constant(ocsp_options options) const {
    options.nonce = ocsp_nonce::none;
    options.single.id = support::ocsp_cert_id(device, issuer);
    return options;
  }
  std::string issuers_answer(int status = V_OCSP_CERTSTATUS_GOOD) const {
    return support::make_ocsp_response(constant(by_issuer(status)));
  }
  std::string delegated_answer() const {
    return support::make_ocsp_response(constant(by(issue_responder())));
  }
  int outcome(const std::string &der) {
    responder.answer_with(der);
    clear_log();
    support::empty_store();
    return status_of(ask(responder));
  }
  // Where one octet can be changed without a change of the outcome.
  std::set<size_t> harmless_places(const std::string &der, int right_status) {
    std::set<size_t> places;
    for (size_t at = 0; at < der.size(); at++) {
      const auto old = static_cast<unsigned char>(der[at]);
      for (int value : std::set<int>{old ^ 0x01, old ^ 0x20, old ^ 0x80, 0x00, 0xFF}) {
        if (value == old)
          continue;
        std::string changed = der;
        changed[at] = static_cast<char>(value);
        int status = outcome(changed);
        EXPECT_TRUE(status == -1 || status == right_status) << at << " " << value << ": " << status;
        if (status != -1)
          places.insert(at);
      }
    }
    return places;
  }
  // OpenSSL reads a SEQUENCE OF also when its head does not say that it is constructed, and RSA
  // signatures whatever their algorithm's parameters are: neither changes what is said or signed.
  std::set<size_t> expected_places(const std::string &der) const {
    size_t id = der.find(support::ocsp_cert_id(device, issuer));
    EXPECT_NE(std::string::npos, id);
    const std::string algorithm("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b", 9);
    size_t signature = der.find(algorithm, id);
    EXPECT_NE(std::string::npos, signature);
    // Two octets each: the heads of the single response and of their list.
    return {id - 4, signature + algorithm.size()};
  }

  ocsp_responder responder{std::string()};
};

// ---- cut ----

TEST_F(OcspBadInput, CutAnywhereItIsNoAnswer) {
  for (const std::string &der : {issuers_answer(), delegated_answer()})
    for (size_t length = 0; length < der.size(); length++)
      EXPECT_EQ(-1, outcome(der.substr(0, length))) << length;
}

TEST_F(OcspBadInput, BasicResponseCutAnywhereIsNoAnswer) {
  ocsp_options options;
  std::string der = issuers_answer();
  std::string content = basic_of(der);
  for (size_t length = 1; length < content.size(); length++) {
    options.basic = content.substr(0, length);
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options))) << length;
  }
  options.basic = content;
  EXPECT_EQ(PKI_CERT_OK, outcome(support::make_ocsp_response(options)));
}

// ---- changed ----

TEST_F(OcspBadInput, ChangedOctetsOfTheIssuersAnswerAreSeen) {
  std::string der = issuers_answer();
  EXPECT_EQ(expected_places(der), harmless_places(der, PKI_CERT_OK));
}

TEST_F(OcspBadInput, ChangedOctetsOfARevokedAnswerAreSeen) {
  std::string der = issuers_answer(V_OCSP_CERTSTATUS_REVOKED);
  EXPECT_EQ(expected_places(der), harmless_places(der, PKI_CERT_REVOKED));
}

TEST_F(OcspBadInput, ChangedOctetsOfADelegatedAnswerAreSeen) {
  support::cert signer = issue_responder();
  std::string der = support::make_ocsp_response(constant(by(signer)));
  std::set<size_t> expected = expected_places(der);
  size_t sent_along = der.find(support::der(signer));
  ASSERT_NE(std::string::npos, sent_along);
  expected.insert(sent_along - 4);  // the head of the certificates' list
  EXPECT_EQ(expected, harmless_places(der, PKI_CERT_OK));
}

TEST_F(OcspBadInput, SignatureOfAnotherAnswerDoesNotFit) {
  std::vector<std::string> good = parts(basic_of(issuers_answer()));
  std::vector<std::string> revoked = parts(basic_of(issuers_answer(V_OCSP_CERTSTATUS_REVOKED)));
  ocsp_options options;
  options.basic = join(sequence, {good.at(0), revoked.at(1), revoked.at(2)});
  EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  options.basic = join(sequence, {revoked.at(0), revoked.at(1), revoked.at(2)});
  EXPECT_EQ(PKI_CERT_REVOKED, outcome(support::make_ocsp_response(options)));
}

// ---- huge ----

TEST_F(OcspBadInput, FiftyMegabytesOfExtensionAreNotLookedAt) {
  ocsp_options options = constant(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  options.padding = 50'000'000;
  std::string answer = support::make_ocsp_response(options);
  EXPECT_EQ(-1, outcome(answer));
  EXPECT_EQ(lookup_line() + "3: OCSP responder (" + last_url + ") returned " +
                std::to_string(answer.size()) + " octets - at most 1048576 are looked at\n",
            log_dump());
}

TEST_F(OcspBadInput, FiftyMegabytesTakeNoMoreThanAnOctet) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  auto memory_for = [&](const std::string &der) {
    EXPECT_EQ(-1, outcome(der));
    responder.answer_with(der);
    std::string url = responder.url("/ocsp");
    fake_allocator::stop_failing();
    record info = query(url);
    return fake_allocator::octets();
  };
  constexpr size_t room = 64 * 1024;
  size_t without = memory_for("x");
  EXPECT_LT(memory_for(std::string(50'000'000, '0')), without + room);
}

// Also the longest that the HTTP client would hold.
TEST_F(OcspBadInput, AnnouncedLengthIsEnoughToRefuse) {
  for (const char *length : {"1048577", "67108864"}) {
    clear_log();
    support::answer head =
        support::raw(std::string("HTTP/1.0 200 OK\r\nContent-Type: application/ocsp-response\r\n"
                                 "Content-Length: ") +
                     length + "\r\n\r\n0");
    head.hold = true;
    support::test_server server({head});
    fake_allocator::stop_failing();
    EXPECT_EQ(nullptr, query(server.url()));
    EXPECT_TRUE(!fake_allocator::available() || fake_allocator::octets() < 1024U * 1024);
    EXPECT_EQ(lookup_line() + "3: OCSP responder (" + last_url + ") returned " + length +
                  " octets - at most 1048576 are looked at\n",
              log_dump());
  }
}

TEST_F(OcspBadInput, AnswerThatTheHttpClientDoesNotTakeIsATransportError) {
  for (const char *length : {"67108865", "2147483647"}) {
    clear_log();
    support::test_server server(
        {support::raw(std::string("HTTP/1.0 200 OK\r\nContent-Type: application/ocsp-response\r\n"
                                  "Content-Length: ") +
                      length + "\r\n\r\n")});
    fake_allocator::stop_failing();
    EXPECT_EQ(nullptr, query(server.url()));
    EXPECT_TRUE(!fake_allocator::available() || fake_allocator::octets() < 1024U * 1024);
    EXPECT_TRUE(was_logged(3, "Error sending OCSP request to '" + last_url + "': OUT OF MEMORY"))
        << log_dump();
  }
}

TEST_F(OcspBadInput, AMebibyteIsLookedAtAndAnOctetMoreIsNot) {
  ocsp_options options = constant(by_issuer());
  options.padding = 1'000'000;
  std::string answer = support::make_ocsp_response(options);
  options.padding += (1024 * 1024) - answer.size();
  answer = support::make_ocsp_response(options);
  ASSERT_EQ(1024U * 1024, answer.size());
  EXPECT_EQ(PKI_CERT_OK, outcome(answer)) << log_dump();
  EXPECT_EQ(-1, outcome(answer + 'x'));
}

TEST_F(OcspBadInput, SomeKilobytesOfExtensionAreAnAnswer) {
  ocsp_options options = constant(by_issuer());
  options.padding = 10'000;
  EXPECT_EQ(PKI_CERT_OK, outcome(support::make_ocsp_response(options))) << log_dump();
}

TEST_F(OcspBadInput, FiftyMegabytesOfGarbageAreNone) {
  EXPECT_EQ(-1, outcome(std::string(50'000'000, 'x')));
  EXPECT_EQ(-1, outcome(std::string(50'000'000, '\0')));
  EXPECT_EQ(-1, outcome(std::string(50'000'000, '\x30')));
}

TEST_F(OcspBadInput, GarbageBehindTheAnswerDoesNotChangeIt) {
  int status = outcome(issuers_answer(V_OCSP_CERTSTATUS_REVOKED) + std::string(50'000'000, 'x'));
  EXPECT_TRUE(status == -1 || status == PKI_CERT_REVOKED) << status;
}

TEST_F(OcspBadInput, LengthThatNobodyCanHoldIsATransportError) {
  for (const char *length : {"1000000000", "2147483647", "99999999999999", "-1"}) {
    clear_log();
    support::test_server server(
        {support::raw(std::string("HTTP/1.0 200 OK\r\nContent-Type: application/ocsp-response\r\n"
                                  "Content-Length: ") +
                      length + "\r\n\r\n")});
    EXPECT_EQ(nullptr, query(server.url()));
    EXPECT_TRUE(logged_containing(3, "Error sending OCSP request to '" + last_url + "': "))
        << log_dump();
  }
}

class OcspManySingles : public OcspBadInput {
 protected:
  // The device's CertID with another serial number.
  std::string id_of(int serial) const {
    std::vector<std::string> id = parts(support::ocsp_cert_id(device, issuer));
    id.back() = tlv(V_ASN1_INTEGER,
                    {'\x11', static_cast<char>(serial >> 8), static_cast<char>(serial & 0xFF)});
    return join(sequence, id);
  }
  ocsp_options with_others(int count) const {
    ocsp_options options = constant(by_issuer());
    for (int i = 0; i < count; i++) {
      ocsp_single other;
      other.id = id_of(i);
      other.status = V_OCSP_CERTSTATUS_REVOKED;
      options.in_front.push_back(other);
    }
    return options;
  }
};

TEST_F(OcspManySingles, TheRightOneIsFoundBehindFiveThousand) {
  EXPECT_EQ(PKI_CERT_OK, outcome(support::make_ocsp_response(with_others(5000))));
}

TEST_F(OcspManySingles, FiveThousandOthersAreNoAnswer) {
  ocsp_options options = with_others(5000);
  options.with_single = false;
  EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  EXPECT_EQ("3: No single-responses found in ocsp response which match the requested cert-id\n",
            judgement());
}

TEST_F(OcspBadInput, OfAThousandCertificatesTheFirstSixteenAreCollected) {
  std::vector<std::string> whole = parts(support::der(issue_responder()));
  std::vector<std::string> data = parts(whole.at(0));
  ocsp_options options = constant(by_issuer());
  for (int i = 0; i < 1000; i++) {
    data.at(1) =
        tlv(V_ASN1_INTEGER, {'\x11', static_cast<char>(i >> 8), static_cast<char>(i & 0xFF)});
    std::string der = join(sequence, {join(sequence, data), whole.at(1), whole.at(2)});
    const auto *in = reinterpret_cast<const unsigned char *>(der.data());
    options.certs.emplace_back(d2i_X509(nullptr, &in, static_cast<long>(der.size())), X509_free);
  }
  EXPECT_EQ(PKI_CERT_OK, outcome(support::make_ocsp_response(options)));
  EXPECT_EQ(16, OPENSSL_sk_num(pki_store->collected_certs));
  EXPECT_TRUE(was_logged(4, "ignoring certs of the ocsp response behind the first 16"));
}

// ---- hostile ----

TEST_F(OcspBadInput, HostileLengthsAreNoAnswer) {
  for (const std::string &octets : hostile) {
    EXPECT_EQ(-1, outcome(octets));
    EXPECT_EQ(-1, outcome(octets + std::string(100, '\0')));
  }
}

TEST_F(OcspBadInput, HostileLengthsInsideAreNoAnswer) {
  ocsp_options options;
  for (const std::string &octets : hostile) {
    options.basic = octets;
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
    options.basic = tlv(sequence, octets);
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
    options.basic = tlv(sequence, tlv(sequence, octets) + tlv(sequence, "") + octets);
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  }
}

TEST_F(OcspBadInput, HostileResponderIdsAreNoAnswer) {
  std::string ids[] = {tlv(0xA1, ""),           tlv(0xA2, ""),           tlv(0xA3, tlv(0x04, "x")),
                       tlv(0xA0, "x"),          tlv(0x81, "x"),          tlv(0x82, "x"),
                       tlv(0xA1, nested(1000)), tlv(0xA2, nested(1000)), tlv(0x04, "x")};
  for (const std::string &id : ids) {
    ocsp_options options = constant(by_issuer());
    options.responder_id = id;
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  }
  for (const std::string &octets : hostile) {
    ocsp_options options = constant(by_issuer());
    options.responder_id = tlv(0xA1, octets);
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
    options.responder_id = tlv(0xA2, octets);
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  }
}

TEST_F(OcspBadInput, NestingOfAHundredThousandIsNoAnswer) {
  for (const std::string &octets : {nested(100'000), nested_indefinite(100'000),
                                    std::string(100'000, '\x24'), std::string(100'000, '\xA0')}) {
    EXPECT_EQ(-1, outcome(octets));
    ocsp_options options;
    options.basic = octets;
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
    // Where anything may stand: the parameters of the signature's algorithm.
    options.basic =
        join(sequence, {tlv(sequence, ""), tlv(sequence, std::string("\x06\x01\x2A", 3) + octets),
                        tlv(V_ASN1_BIT_STRING, std::string(1, '\0'))});
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  }
}

TEST_F(OcspBadInput, EmptySignatureIsNone) {
  ocsp_options options = constant(by_issuer());
  std::vector<std::string> basic = parts(basic_of(issuers_answer()));
  ASSERT_EQ(3u, basic.size());
  for (const std::string &signature :
       {std::string(1, '\0'), std::string(), std::string("\x07", 1), std::string("\0\0", 2)}) {
    options.basic = join(sequence, {basic.at(0), basic.at(1), tlv(V_ASN1_BIT_STRING, signature)});
    EXPECT_EQ(-1, outcome(support::make_ocsp_response(options)));
  }
}

}  // namespace
