// pkictl verify asks the CRLs that a certificate names, and its tree says what each answered.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "crl_lab.h"
#include "support/test_server.h"
#include "without_times.h"

namespace {

using nlohmann::json;
using tool_test::crl_lab;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;
using tool_test::without_times;

class PkictlVerifyCrl : public testing::Test {
 protected:
  struct judged {
    std::string verdict;
    json check;   // of the certificate's status
    json source;  // its distribution points
    json crls;    // of those

    std::string status() const { return check["status"]; }
  };

  result verify(const std::string &file, const strings &more = {}) const {
    strings arguments = {"verify", file, "--trust", lab_.file("issuing-cert.pem")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    // No CA of another test: its rules would be asked first.
    return pkictl(arguments, {"XDG_STATE_HOME=" + (lab_.home() / "state")});
  }
  judged judge(const std::string &file, strings more = {}) const {
    more.push_back("--json");
    result done = verify(file, more);
    json report = json::parse(done.out);
    judged found;
    found.verdict = report["verdict"];
    EXPECT_EQ(done.exit_code, found.verdict == "good" ? 0 : 1) << done.err;
    found.check = report["certificates"].back()["steps"].back()["checks"].at(0);
    found.source = found.check["sources"].at(0);
    found.crls = found.source["crls"];
    EXPECT_EQ(found.source["name"], "CRL distribution points");
    return found;
  }
  judged judge_crl(const std::string &query, const strings &more = {}) const {
    return judge(lab_.issue({.crls = {query}}).file, more);
  }

  static bool has_line(const json &log, const std::string &part) {
    return std::any_of(log.begin(), log.end(), [&](const json &line) {
      return line.get<std::string>().find(part) != std::string::npos;
    });
  }
  static void expect_network(const json &fetch) {
    EXPECT_EQ(fetch["from"], "network");
    EXPECT_EQ(fetch["error"], nullptr);
    EXPECT_GE(fetch["milliseconds"].get<long>(), 0);
    EXPECT_TRUE(fetch["valid_until"].is_string());
  }
  // The verdict that a list which is of no use leads to.
  static void expect_unknown(const judged &found) {
    EXPECT_EQ(found.verdict, "rejected");
    EXPECT_EQ(found.status(), "unknown");
    EXPECT_EQ(found.source["answer"], nullptr);
    for (const json &crl : found.crls)
      EXPECT_EQ(crl["answer"], nullptr);
  }
  static void expect_not_taken(const judged &found, int code) {
    expect_unknown(found);
    const json &fetch = found.crls.at(0)["fetches"].at(0);
    EXPECT_EQ(fetch["from"], "none");
    EXPECT_EQ(fetch["error"]["code"], code);
    EXPECT_EQ(fetch["valid_until"], nullptr);
  }
  // Good first, then revoked, with one list and one fetch.
  void expect_good_then_revoked(const std::string &query, const strings &more = {}) const {
    std::string file = lab_.issue({.crls = {query}}).file;
    judged good = judge(file, more);
    EXPECT_EQ(good.verdict, "good") << query;
    EXPECT_EQ(good.crls.at(0)["answer"], "ok") << query;
    lab_.revoke(file);
    judged revoked = judge(file, more);
    EXPECT_EQ(revoked.verdict, "rejected") << query;
    EXPECT_EQ(revoked.status(), "revoked") << query;
    EXPECT_EQ(revoked.crls.at(0)["answer"], "revoked") << query;
  }

  // A chain with this certificate in it: collected are all untrusted ones but the first.
  strings knowing(const std::string &signer) const {
    return {"--chain", lab_.file("root-cert.pem"), "--chain", lab_.file("crl/" + signer + ".pem")};
  }
  // The lab makes a delegated signer when a list of theirs is first asked for.
  void make_signer(const std::string &query) const {
    EXPECT_EQ(pkictl({"crl", "show", lab_.crl_url(query)}).exit_code, 0);
  }

  std::string only_signer() const {
    for (const auto &entry : std::filesystem::directory_iterator(lab_.file("crl")))
      if (!entry.path().stem().string().ends_with("-key"))
        return entry.path().stem();
    return "";
  }

  crl_lab lab_;
};

TEST_F(PkictlVerifyCrl, GoodCertificateIsNotListed) {
  crl_lab::issued cert = lab_.issue({.crls = {"number=5"}});
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  EXPECT_EQ(found.status(), "ok");
  EXPECT_EQ(found.check["from"], "source");
  ASSERT_EQ(found.crls.size(), 1u);
  EXPECT_EQ(found.crls[0]["url"], lab_.crl_url("number=5"));
  EXPECT_EQ(found.crls[0]["answer"], "ok");
  EXPECT_EQ(found.crls[0]["valid_until"], found.source["valid_until"]);
  ASSERT_EQ(found.crls[0]["fetches"].size(), 1u);
  expect_network(found.crls[0]["fetches"][0]);
  EXPECT_EQ(found.crls[0]["fetches"][0]["delta"], false);
  EXPECT_EQ(found.crls[0]["log"], json::array());
}

TEST_F(PkictlVerifyCrl, RevokedCertificateIsRejected) {
  crl_lab::issued cert = lab_.issue({.crls = {""}});
  lab_.revoke(cert.file);
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "rejected");
  EXPECT_EQ(found.status(), "revoked");
  EXPECT_EQ(found.crls.at(0)["answer"], "revoked");
  EXPECT_EQ(verify(cert.file).err,
            "pkictl: " + cert.file + " is rejected: certificate 0: its status is revoked\n");
}

TEST_F(PkictlVerifyCrl, ListsOfEveryLengthAndForm) {
  for (const char *query : {"pkcs7", "pkcs7-certs&entries=1000", "no-length",
                            "no-length&entries=1000", "entries=1000&reason-in-each", "only=user"})
    expect_good_then_revoked(query);
}

TEST_F(PkictlVerifyCrl, ExpiredListIsOfNoUse) {
  judged found = judge_crl("expired");
  expect_unknown(found);
  EXPECT_TRUE(has_line(found.crls.at(0)["log"], "is in the past"));
  expect_network(found.crls[0]["fetches"].at(0));
}

TEST_F(PkictlVerifyCrl, ListsThatAreNotTaken) {
  expect_not_taken(judge_crl("future"), 85);
  expect_not_taken(judge_crl("damaged-signature"), 29);
  expect_not_taken(judge_crl("signer=stranger"), 29);
  expect_not_taken(judge_crl("signer=other-ca"), 29);
  expect_not_taken(judge_crl("wrong-akid"), 29);
  expect_not_taken(judge_crl("critical=1.2.3.4"), 86);
  expect_not_taken(judge_crl("http-status=404"), 47);
  expect_not_taken(judge_crl("no-crl"), 15);
}

TEST_F(PkictlVerifyCrl, ListOfAnotherScopeIsOfNoUse) {
  judged found = judge_crl("only=ca");
  expect_unknown(found);
  EXPECT_TRUE(has_line(found.crls.at(0)["log"], "CRL is for ca-certs only, but cert is user-cert"));
}

TEST_F(PkictlVerifyCrl, EachListIsShownInItsTurn) {
  crl_lab::issued cert = lab_.issue({.crls = {"http-status=404", "expired", ""}});
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  ASSERT_EQ(found.crls.size(), 3u);
  EXPECT_EQ(found.crls[0]["answer"], nullptr);
  EXPECT_EQ(found.crls[1]["answer"], nullptr);
  EXPECT_EQ(found.crls[2]["answer"], "ok");
}

TEST_F(PkictlVerifyCrl, ListForSomeReasonsIsNotEnough) {
  judged found = judge_crl("reasons=keyCompromise");
  EXPECT_EQ(found.status(), "unknown");
  EXPECT_EQ(found.crls.at(0)["answer"], "ok");
  EXPECT_EQ(found.source["answer"], nullptr);
  crl_lab::issued cert = lab_.issue({.crls = {"reasons=keyCompromise"}});
  lab_.revoke(cert.file, "keyCompromise");
  EXPECT_EQ(judge(cert.file).status(), "revoked");
}

// ---- delta CRLs ----

std::string with_delta(const std::string &base, const std::string &delta) {
  return base + "&number=5&freshest=/crl/issuing.crl?delta=5%26number=6%26" + delta;
}

TEST_F(PkictlVerifyCrl, DeltaRevokesWhatItsBaseDoesNotHave) {
  crl_lab::issued cert = lab_.issue({.crls = {with_delta("empty", "")}});
  judged good = judge(cert.file);
  EXPECT_EQ(good.verdict, "good");
  lab_.revoke(cert.file);
  judged found = judge(cert.file);
  EXPECT_EQ(found.status(), "revoked");
  EXPECT_EQ(found.crls.at(0)["answer"], "revoked");
  const json &fetches = found.crls[0]["fetches"];
  ASSERT_EQ(fetches.size(), 2u);
  expect_network(fetches[0]);
  expect_network(fetches[1]);
  EXPECT_EQ(fetches[0]["delta"], false);
  EXPECT_EQ(fetches[1]["delta"], true);
  EXPECT_TRUE(fetches[1]["url"].get<std::string>().find("delta=5") != std::string::npos);
}

// The delta names the certificate's serial number, so it is made after the certificate.
TEST_F(PkictlVerifyCrl, DeltaTakesBackWhatItsBaseHolds) {
  std::string delta;
  support::test_server server(
      [&](const std::string &) { return support::ok(delta, "application/pkix-crl"); });
  crl_lab::issued cert = lab_.issue({.crls = {"number=5"}, .freshest = {server.url("/delta")}});
  lab_.revoke(cert.file, "certificateHold");
  delta = tool_test::read_file(lab_.save_der("empty&delta=5&number=6"));
  EXPECT_EQ(judge(cert.file).status(), "revoked");
  delta = tool_test::read_file(
      lab_.save_der("empty&delta=5&number=6&entry=" + cert.serial + ":removeFromCRL"));
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  EXPECT_EQ(found.crls.at(0)["answer"], "ok");
}

TEST_F(PkictlVerifyCrl, DeltaThatTheCertificateNamesIsTaken) {
  crl_lab::issued cert = lab_.issue({.crls = {"empty&number=5"}, .freshest = {"delta=5&number=6"}});
  EXPECT_EQ(judge(cert.file).verdict, "good");
  lab_.revoke(cert.file);
  judged found = judge(cert.file);
  EXPECT_EQ(found.status(), "revoked");
  EXPECT_EQ(found.crls.at(0)["fetches"].at(1)["delta"], true);
}

TEST_F(PkictlVerifyCrl, DeltaOfAnotherBaseIsPassedOver) {
  crl_lab::issued cert =
      lab_.issue({.crls = {"empty&number=5"}, .freshest = {"delta=9&number=10"}});
  lab_.revoke(cert.file);
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  EXPECT_TRUE(has_line(found.crls.at(0)["log"], "Base-crl-number in delta-CRL (9) > current"));
}

TEST_F(PkictlVerifyCrl, DeltaWithoutTheKeyIdentifierOfItsBaseIsPassedOver) {
  crl_lab::issued cert = lab_.issue({.crls = {with_delta("empty", "no-akid")}});
  lab_.revoke(cert.file);
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  EXPECT_TRUE(has_line(found.crls.at(0)["log"], "crl AKID != delta-crl AKID"));
}

TEST_F(PkictlVerifyCrl, DeltaThatCannotBeHadIsPassedOver) {
  crl_lab::issued cert = lab_.issue({.crls = {"empty&number=5"}, .freshest = {"http-status=404"}});
  judged found = judge(cert.file);
  EXPECT_EQ(found.verdict, "good");
  EXPECT_EQ(found.crls.at(0)["fetches"].at(1)["from"], "none");
  EXPECT_EQ(found.crls[0]["fetches"][1]["error"]["code"], 47);
}

TEST_F(PkictlVerifyCrl, DeltaWhereABaseBelongsIsOfNoUse) {
  judged found = judge_crl("delta=5&number=6");
  expect_unknown(found);
  EXPECT_TRUE(has_line(found.crls.at(0)["log"], "is a delta-CRL, a complete one was expected"));
}

// ---- delegated signers ----

TEST_F(PkictlVerifyCrl, DelegatedSignerInTheNameOfTheCa) {
  std::string query = "signer=delegated&same-name";
  make_signer(query);
  expect_good_then_revoked(query, knowing("issuing-same-name"));
}

TEST_F(PkictlVerifyCrl, DelegatedSignerWhoIsNotKnownIsNotTaken) {
  expect_not_taken(judge_crl("signer=delegated&same-name"), 29);
}

TEST_F(PkictlVerifyCrl, DelegatedSignerWhoMayNotSignListsIsOfNoUse) {
  std::string query = "signer=delegated&same-name&no-crl-sign";
  make_signer(query);
  judged found = judge_crl(query, knowing("issuing-same-name-no-crl-sign"));
  expect_unknown(found);
}

TEST_F(PkictlVerifyCrl, StatusOfADelegatedSignerIsShownBelowItsList) {
  std::string query = "signer=delegated&same-name&signer-dp=number%3D9";
  make_signer(query);
  std::string signer = only_signer();
  judged found = judge_crl(query, knowing(signer));
  EXPECT_EQ(found.verdict, "good");
  ASSERT_EQ(found.crls.at(0)["checks"].size(), 1u);
  json check = found.crls[0]["checks"][0];
  EXPECT_EQ(check["status"], "ok");
  EXPECT_EQ(check["sources"].at(0)["crls"].at(0)["url"], lab_.crl_url("number=9"));
  lab_.revoke(lab_.file("crl/" + signer + ".pem"));
  expect_unknown(judge_crl(query, knowing(signer)));
}

TEST_F(PkictlVerifyCrl, SameListIsTakenFromTheCacheTheSecondTime) {
  // Its signer's own status asks for the list that the certificate names next.
  std::string query = "reasons=keyCompromise&signer=delegated&same-name&signer-dp=";
  make_signer(query);
  std::string signer = only_signer();
  judged found = judge(lab_.issue({.crls = {query, ""}}).file, knowing(signer));
  EXPECT_EQ(found.verdict, "good");
  ASSERT_EQ(found.crls.size(), 2u);
  json first = found.crls[0]["checks"].at(0)["sources"].at(0)["crls"].at(0);
  EXPECT_EQ(first["url"], lab_.crl_url());
  EXPECT_EQ(first["fetches"].at(0)["from"], "network");
  EXPECT_EQ(found.crls[1]["url"], lab_.crl_url());
  EXPECT_EQ(found.crls[1]["fetches"].at(0)["from"], "cache");
  EXPECT_EQ(found.crls[1]["fetches"].size(), 1u);
}

// ---- indirect CRLs ----

// RFC 5280 5.3.3 has certificateIssuer critical, and the library refuses lists with an entry of
// which it does not know a critical extension.
TEST_F(PkictlVerifyCrl, IndirectListIsTakenWhileItListsNobodyElse) {
  crl_lab::issued cert = lab_.issue({.crls = {"indirect"}});
  EXPECT_EQ(judge(cert.file).verdict, "good");
  lab_.revoke(cert.file);
  EXPECT_EQ(judge(cert.file).status(), "revoked");
  lab_.revoke(lab_.file("additional-cert.pem"));
  judged found = judge(cert.file);
  expect_not_taken(found, 15);
  EXPECT_TRUE(has_line(found.crls.at(0)["log"],
                       "Found unknown critical crl-entry extension: X509v3 Certificate Issuer"));
}

TEST_F(PkictlVerifyCrl, IndirectListOfADelegatedSignerInTheirOwnName) {
  std::string query = "indirect&signer=delegated";
  make_signer(query);
  crl_lab::issued cert = lab_.issue({.crls = {query}, .crl_issuer = lab_.file("crl/issuing.pem")});
  judged good = judge(cert.file, knowing("issuing"));
  EXPECT_EQ(good.verdict, "good") << good.check.dump(1);
  // What is listed is somebody else's, and so has a critical certificateIssuer.
  lab_.revoke(cert.file);
  judged listed = judge(cert.file, knowing("issuing"));
  expect_not_taken(listed, 15);
}

TEST_F(PkictlVerifyCrl, ListInAnotherNameThatIsNotIndirectIsOfNoUse) {
  std::string query = "signer=delegated";
  make_signer(query);
  crl_lab::issued cert = lab_.issue({.crls = {query}, .crl_issuer = lab_.file("crl/issuing.pem")});
  expect_unknown(judge(cert.file, knowing("issuing")));
}

// ---- the tree as text ----

std::string from_status_on(const std::string &text) {
  size_t at = text.find("        status of ");
  return at == std::string::npos ? text : without_times(text.substr(at));
}

TEST_F(PkictlVerifyCrl, TreeNamesEachListAndItsDelta) {
  crl_lab::issued cert =
      lab_.issue({.crls = {"http-status=404", "empty&number=5"}, .freshest = {"delta=5&number=6"}});
  EXPECT_EQ(from_status_on(verify(cert.file).out), R"(        status of CN=tested: ok, until TIME
          asked CRL distribution points: ok in N ms, until TIME
            CRL )" + lab_.crl_url("http-status=404") + R"(: of no use
              not taken, HTTP ERROR (47), in N ms
              log: CRL server at ')" + lab_.crl_url("http-status=404") +
                                                       R"(' returned 404
            CRL )" + lab_.crl_url("empty&number=5") + R"(: not listed, until TIME
              from the network in N ms, until TIME
              delta CRL )" + lab_.crl_url("delta=5&number=6") +
                                                       R"(: from the network in N ms, until TIME
)");
}

TEST_F(PkictlVerifyCrl, TreeSaysThatACertificateIsListed) {
  crl_lab::issued cert = lab_.issue({.crls = {""}});
  lab_.revoke(cert.file);
  EXPECT_EQ(from_status_on(verify(cert.file).out),
            R"(        status of CN=tested: revoked, until TIME
          asked CRL distribution points: revoked in N ms, until TIME
            CRL )" +
                lab_.crl_url() + R"(: revoked, until TIME
              from the network in N ms, until TIME
)");
}

TEST_F(PkictlVerifyCrl, CostIsToldOnRequest) {
  crl_lab::issued cert = lab_.issue({.crls = {"entries=1000000"}});
  result done = verify(cert.file, {"--cost"});
  EXPECT_TRUE(std::regex_search(
      done.out,
      std::regex("\ntime +[0-9.]+ s\nmemory +[0-9]+ KiB at the most, of the whole process\n$")))
      << done.out;
  EXPECT_EQ(verify(cert.file).out.find("KiB"), std::string::npos);
  EXPECT_FALSE(json::parse(verify(cert.file, {"--json"}).out).contains("cost"));
  auto peak = [&](const std::string &query) {
    result told = verify(lab_.issue({.crls = {query}}).file, {"--cost", "--json"});
    return json::parse(told.out)["cost"]["peak_memory_kib"].get<long>();
  };
  EXPECT_LT(peak("entries=1000000"), peak("entries=10") + 1024);
}

// ---- --crl ----

TEST_F(PkictlVerifyCrl, CrlOfACallersChoiceDecidesOnACertificateThatNamesNone) {
  crl_lab::issued cert = lab_.issue({.crls = {}});
  strings options = {"--crl", lab_.crl_url(), "--json"};
  json good = json::parse(verify(cert.file, options).out);
  EXPECT_EQ(good["verdict"], "good");
  EXPECT_EQ(good["error"], nullptr);
  lab_.revoke(cert.file);
  EXPECT_EQ(json::parse(verify(cert.file, {"--json"}).out)["verdict"], "good");
  result done = verify(cert.file, options);
  EXPECT_EQ(done.exit_code, 1);
  json report = json::parse(done.out);
  EXPECT_EQ(report["verdict"], "rejected");
  EXPECT_EQ("pkictl: " + report["error"]["message"].get<std::string>() + "\n", done.err);
  json source = report["certificates"].back()["steps"].back()["checks"][0]["sources"][0];
  EXPECT_EQ(source["name"], "configured CRLs");
  EXPECT_EQ(source["crls"][0]["url"], lab_.crl_url());
}

TEST_F(PkictlVerifyCrl, CrlsOfACallersChoiceAreGoneThroughUntilOneSpeaksForTheIssuer) {
  crl_lab::issued cert = lab_.issue({.crls = {}});
  strings others = {"--crl", lab_.crl_url("", "root")};
  EXPECT_EQ(verify(cert.file, others).exit_code, 1);  // nobody knows
  others.insert(others.end(), {"--crl", lab_.crl_url()});
  EXPECT_EQ(verify(cert.file, others).exit_code, 0);
}

TEST_F(PkictlVerifyCrl, CrlOfACallersChoiceHasToBeAUrl) {
  crl_lab::issued cert = lab_.issue({.crls = {}});
  result done = verify(cert.file, {"--crl", "ca.crl", "--json"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err,
            "pkictl: --crl \"ca.crl\" is no URL that can be fetched; give one that begins with"
            " http://, and a file to 'pkictl crl find'\n");
  EXPECT_EQ("pkictl: " + json::parse(done.out)["error"]["message"].get<std::string>() + "\n",
            done.err);
}

}  // namespace
