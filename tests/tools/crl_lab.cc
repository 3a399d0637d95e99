#include "crl_lab.h"

#include "ocsp_client.h"

namespace tool_test {

namespace {

pkilab::lab_options options_for(const folder &home) {
  pkilab::lab_options options;
  options.folder = home / "lab";
  options.key_bits = 1024;  // fast
  return options;
}

}  // namespace

crl_lab::crl_lab() : lab_(std::make_unique<pkilab::lab>(options_for(home_))) {}

std::string crl_lab::crl_url(const std::string &query, const std::string &ca) const {
  return lab_->url("/crl/" + ca + ".crl" + (query.empty() ? "" : "?" + query));
}

crl_lab::issued crl_lab::issue(const wishes &named) const {
  std::string name = home_ / ("cert" + std::to_string(files_++));
  strings arguments = {"issue",     "--dir",     file(""), "--new-key",  name + "-key.pem",
                       "--subject", "CN=tested", "--out",  name + ".pem"};
  for (const std::string &query : named.crls)
    arguments.insert(arguments.end(), {"--crl", crl_url(query)});
  for (const std::string &place : named.freshest) {
    bool is_url = place.starts_with("http://");
    arguments.insert(arguments.end(), {"--freshest-crl", is_url ? place : crl_url(place)});
  }
  if (!named.crl_issuer.empty())
    arguments.insert(arguments.end(), {"--crl-issuer", named.crl_issuer});
  result done = run("pkilab", arguments);
  EXPECT_EQ(done.exit_code, 0) << done.err;
  std::string serial = done.out.substr(std::string("issued ").size());
  return {name + ".pem", serial.substr(0, serial.find(':'))};
}

void crl_lab::revoke(const std::string &cert, const std::string &reason) const {
  result done = run("pkilab", {"revoke", "--dir", file(""), cert, "--reason", reason});
  EXPECT_EQ(done.exit_code, 0) << done.err;
}

std::string crl_lab::save_der(const std::string &query) const {
  return home_.write("list" + std::to_string(files_++) + ".crl",
                     crl_query(port(), query.empty() ? "" : "?" + query).body());
}

std::string crl_lab::save_pem(const std::string &query) const {
  std::string der = save_der(query);
  EXPECT_EQ(openssl({"crl", "-inform", "DER", "-in", der, "-out", der + ".pem"}).exit_code, 0);
  return der + ".pem";
}

}  // namespace tool_test
