#include "tools/pkilab/misbehave.h"

#include <gtest/gtest.h>
#include <libpki/http.h>
#include <libpki/store.h>

#include <cstdlib>

#include "lab_fixture.h"
#include "raw_http.h"
#include "support/store_fixture.h"

namespace {

using tool_test::the_lab;

class misbehaviour_test : public support::store_test {
 protected:
  int provision(const std::string &path) {
    return pki_add_ca("ca", the_lab().lab.url(path).c_str(), the_lab().lab.keys().document_key());
  }
  int certs_in_store() { return OPENSSL_sk_num(pki_store->provisioned_certs); }
  int cas_in_store() { return OPENSSL_sk_num(pki_store->ca_infos); }
};

std::string honest_document() {
  return tool_test::body_of(
      tool_test::exchange(the_lab().lab.port(), "GET /ca-info HTTP/1.0\r\n\r\n"));
}

std::string raw(const std::string &path) {
  return tool_test::exchange(the_lab().lab.port(), "GET " + path + " HTTP/1.0\r\n\r\n");
}

size_t announced(const std::string &answer) {
  size_t at = answer.find("Content-Length: ");
  return at == std::string::npos ? 0 : strtoul(answer.c_str() + at + 16, nullptr, 10);
}

struct refusal {
  const char *name;
  int code;
};

class refused_test : public misbehaviour_test, public testing::WithParamInterface<refusal> {};

TEST_P(refused_test, IsRefusedWithItsCodeAndNothingEntersTheStore) {
  EXPECT_EQ(provision("/misbehave/" + std::string(GetParam().name) + "/ca-info"), GetParam().code);
  EXPECT_EQ(cas_in_store(), 0);
  EXPECT_EQ(certs_in_store(), 0);
}

INSTANTIATE_TEST_SUITE_P(Misbehaviours, refused_test,
                         testing::Values(refusal{"truncate-body", 47}, refusal{"long-length", 47},
                                         refusal{"short-length", 20}, refusal{"no-length", 47},
                                         refusal{"never-ends", 20}, refusal{"huge", 2},
                                         refusal{"endless-headers", 48}, refusal{"long-header", 48},
                                         refusal{"redirect/20", 47}, refusal{"redirect-loop", 47},
                                         refusal{"redirect-https", 47}, refusal{"status/404", 47},
                                         refusal{"status/500", 47}, refusal{"status/302", 47},
                                         refusal{"bad-status-line", 47}, refusal{"reset", 48},
                                         refusal{"corrupt-signature", 29},
                                         refusal{"wrong-key", 29}),
                         [](const testing::TestParamInfo<refusal> &one) {
                           std::string name = one.param.name;
                           for (char &letter : name)
                             if (!isalnum(letter))
                               letter = '_';
                           return name;
                         });

class taken_test : public misbehaviour_test, public testing::WithParamInterface<const char *> {};

TEST_P(taken_test, TheDocumentArrivesAllTheSame) {
  EXPECT_EQ(provision(std::string("/misbehave/") + GetParam() + "/ca-info"), 0);
  EXPECT_EQ(cas_in_store(), 1);
  EXPECT_EQ(certs_in_store(), 1);
}

INSTANTIATE_TEST_SUITE_P(Misbehaviours, taken_test,
                         testing::Values("slow", "redirect/1", "redirect/19", "status/200"));

TEST_F(misbehaviour_test, WithoutAPathItIsTheDocument) {
  for (const char *path : {"/misbehave/slow", "/misbehave/slow/", "/misbehave/status/200/"})
    EXPECT_EQ(provision(path), 0) << path;
}

TEST_F(misbehaviour_test, HonestAnswerIsTaken) {
  EXPECT_EQ(provision("/ca-info"), 0);
  EXPECT_EQ(cas_in_store(), 1);
}

TEST_F(misbehaviour_test, TruncatedBodyIsHalfOfTheAnnouncedOne) {
  std::string answer = raw("/misbehave/truncate-body/ca-info");
  EXPECT_EQ(announced(answer), honest_document().size());
  EXPECT_EQ(tool_test::body_of(answer), honest_document().substr(0, honest_document().size() / 2));
}

TEST_F(misbehaviour_test, ShortAndLongLengthsSendTheWholeBody) {
  std::string document = honest_document();
  std::string answer = raw("/misbehave/short-length/ca-info");
  EXPECT_EQ(announced(answer), document.size() / 2);
  EXPECT_EQ(tool_test::body_of(answer), document);
  answer = raw("/misbehave/long-length/ca-info");
  EXPECT_EQ(announced(answer), document.size() + 100);
  EXPECT_EQ(tool_test::body_of(answer), document);
}

TEST_F(misbehaviour_test, StallSendsHalfAndKeepsTheConnection) {
  tool_test::raw_client client(the_lab().lab.port());
  client.send("GET /misbehave/stall/ca-info HTTP/1.0\r\n\r\n");
  std::string head = client.receive(1);
  while (head.find("\r\n\r\n") == std::string::npos)
    head += client.receive(1);
  size_t half = honest_document().size() / 2;
  EXPECT_EQ(client.receive(half).size(), half);
  EXPECT_TRUE(client.is_silent());
}

TEST_F(misbehaviour_test, ResetIsAReset) {
  tool_test::raw_client client(the_lab().lab.port());
  client.send("GET /misbehave/reset/ca-info HTTP/1.0\r\n\r\n");
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_TRUE(client.was_reset());
}

TEST_F(misbehaviour_test, RedirectKeepsTheQueryAndEscapesWhatNoHeaderCanCarry) {
  std::string answer = raw("/misbehave/redirect/2/ca-info?serial=SN 1\nX: y");
  EXPECT_NE(answer.find("\r\nLocation: " +
                        the_lab().lab.url("/misbehave/redirect/1/ca-info?serial=SN%201%0AX:%20y") +
                        "\r\n"),
            std::string::npos)
      << answer;
}

TEST_F(misbehaviour_test, WithoutAPathItIsTheDocumentThatIsAnsweredBadly) {
  EXPECT_EQ(announced(raw("/misbehave/short-length")), honest_document().size() / 2);
}

TEST_F(misbehaviour_test, UnknownNamesAndNumbersAreRefused) {
  EXPECT_TRUE(raw("/misbehave/nothing/ca-info").starts_with("HTTP/1.0 404 "));
  EXPECT_TRUE(raw("/misbehave/redirect/ca-info").starts_with("HTTP/1.0 400 "));
  EXPECT_TRUE(raw("/misbehave/redirect/0/ca-info").starts_with("HTTP/1.0 400 "));
  EXPECT_TRUE(raw("/misbehave/status/1x/ca-info").starts_with("HTTP/1.0 400 "));
}

TEST_F(misbehaviour_test, IndexListsEveryMisbehaviour) {
  std::string index = tool_test::body_of(raw("/"));
  EXPECT_NE(index.find(pkilab::misbehaviour_list()), std::string::npos);
  EXPECT_NE(index.find("GET /ca-info "), std::string::npos);
}

}  // namespace
