#include "tools/pkictl/verify_report.h"

#include <openssl/x509_vfy.h>

#include "tools/common/text.h"
#include "tools/pkictl/cost.h"
#include "tools/pkictl/report.h"

namespace pkictl {

namespace {

std::string text_of(const json &value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string line(int depth, const std::string &text) {
  return std::string(static_cast<size_t>(depth) * 2, ' ') + tools::printable(text) + "\n";
}

std::string error_text(const json &error) {
  return text_of(error["text"]) + " (" + text_of(error["number"]) + ")";
}

std::string until_text(const json &valid_until) {
  return valid_until.is_null() ? "" : ", until " + text_of(valid_until);
}

std::string log_lines(int depth, const json &log) {
  std::string text;
  for (const json &entry : log)
    text += line(depth, "log: " + text_of(entry));
  return text;
}

std::string cert_lines(int depth, const json &cert);
std::string check_lines(int depth, const json &check);

std::string fetch_line(int depth, const json &fetch) {
  std::string from = "from the " + text_of(fetch["from"]);
  if (!fetch["error"].is_null())
    from = "not taken, " + text_of(fetch["error"]["text"]) + " (" +
           text_of(fetch["error"]["code"]) + "),";
  std::string what = fetch["delta"] ? "delta CRL " + text_of(fetch["url"]) + ": " : "";
  return line(depth, what + from + " in " + text_of(fetch["milliseconds"]) + " ms" +
                         until_text(fetch["valid_until"]));
}

std::string crl_answer(const json &crl) {
  if (crl["answer"].is_null())
    return "of no use";
  return (crl["answer"] == "revoked" ? "revoked" : "not listed") + until_text(crl["valid_until"]);
}

std::string crl_lines(int depth, const json &crl) {
  std::string text = line(depth, "CRL " + text_of(crl["url"]) + ": " + crl_answer(crl));
  for (const json &fetch : crl["fetches"])
    text += fetch_line(depth + 1, fetch);
  for (const json &check : crl["checks"])
    text += check_lines(depth + 1, check);
  for (const json &cert : crl["certificates"])
    text += cert_lines(depth + 1, cert);
  return text + log_lines(depth + 1, crl["log"]);
}

std::string source_lines(int depth, const json &source) {
  std::string answer = source["answer"].is_null() ? "no answer" : text_of(source["answer"]);
  std::string text =
      line(depth, "asked " + text_of(source["name"]) + ": " + answer + " in " +
                      text_of(source["milliseconds"]) + " ms" + until_text(source["valid_until"]));
  for (const json &crl : source["crls"])
    text += crl_lines(depth + 1, crl);
  for (const json &check : source["checks"])
    text += check_lines(depth + 1, check);
  for (const json &cert : source["certificates"])
    text += cert_lines(depth + 1, cert);
  return text + log_lines(depth + 1, source["log"]);
}

std::string check_lines(int depth, const json &check) {
  std::string from;
  if (check["from"] == "cache")
    from = ", from the cache";
  else if (check["sources"].empty())
    from = ", but NOBODY WAS ASKED whether it is revoked";
  std::string text =
      line(depth, "status of " + text_of(name_or_note(check["certificate"])) + ": " +
                      text_of(check["status"]) + from + until_text(check["valid_until"]));
  for (const json &source : check["sources"])
    text += source_lines(depth + 1, source);
  return text + log_lines(depth + 1, check["log"]);
}

std::string step_lines(int depth, const json &step) {
  std::string outcome = text_of(step["outcome"]);
  outcome.resize(10, ' ');
  std::string error = step["error"].is_null() ? "" : ": " + error_text(step["error"]);
  std::string text = line(depth, outcome + text_of(step["name"]) + error);
  for (const json &check : step["checks"])
    text += check_lines(depth + 1, check);
  return text + log_lines(depth + 1, step["log"]);
}

std::string cert_lines(int depth, const json &cert) {
  json subject = name_or_note(cert.value("subject", json("")));
  std::string trusted = cert.value("trusted", false) ? " (trusted)" : "";
  std::string text = line(depth, text_of(cert["depth"]) + "  " + text_of(subject) + ": " +
                                     text_of(cert["verdict"]) + trusted);
  if (cert.contains("not_before"))
    text += line(depth + 2,
                 "valid     " + text_of(cert["not_before"]) + " to " + text_of(cert["not_after"]));
  for (const json &step : cert["steps"])
    text += step_lines(depth + 2, step);
  return text;
}

// With the name of what is missing, where that is the error.
std::string lack_of_issuer(const json &cert, const std::set<std::string> &known) {
  if (!cert.contains("issuer"))
    return "";
  std::string name = text_of(name_or_note(cert["issuer"]));
  return known.count(name) > 0
             ? ": the certificate of " + name +
                   " that is there has another key; give the right one with --chain or --trust"
             : ": the certificate of " + name + " is missing; give it with --chain or --trust";
}

std::string advice_for(const json &cert, int number, const std::set<std::string> &known) {
  switch (number) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return lack_of_issuer(cert, known);
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return ": " + text_of(name_or_note(cert.value("subject", json("")))) +
             " is not trusted; give it with --trust";
    default:
      return "";
  }
}

std::string reason_of(const json &cert, const json &step, const std::set<std::string> &known) {
  if (!step["error"].is_null())
    return error_text(step["error"]) + advice_for(cert, step["error"]["number"].get<int>(), known);
  if (!step["checks"].empty())
    return "its status is " + text_of(step["checks"].back()["status"]);
  return step["log"].empty() ? text_of(step["name"]) : text_of(step["log"].back());
}

}  // namespace

std::string rejection_reason(const json &report, const std::set<std::string> &known) {
  for (const json &cert : report["certificates"])
    for (const json &step : cert["steps"])
      if (step["outcome"] == "failed")
        return "certificate " + text_of(cert["depth"]) + ": " + reason_of(cert, step, known);
  return report["error"].is_null() ? "OpenSSL gives no reason" : error_text(report["error"]);
}

std::string verify_text(const json &report) {
  std::string text =
      line(0, text_of(report["verdict"]) + ", " + text_of(report["flavour"]) + " flavour");
  for (const json &cert : report["certificates"])
    text += cert_lines(1, cert);
  return text + cost_text(0, report.value("cost", json(nullptr)));
}

}  // namespace pkictl
