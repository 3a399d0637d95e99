#include "tools/pkictl/verify_listener.h"

#include <libpki/verify.h>
#include <openssl/x509_vfy.h>

#include "tools/common/cert_text.h"
#include "tools/common/failure.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"

namespace pkictl {

namespace {

constexpr int log_warning = 4;  // syslog's number

json time_json(const ASN1_TIME *time) {
  return time ? json(tools::time_text(time)) : json(nullptr);
}

json openssl_error(int number) {
  return {{"number", number}, {"text", X509_verify_cert_error_string(number)}};
}

json make_step(const std::string &name, const std::string &outcome, json error = nullptr) {
  return {{"name", name},
          {"outcome", outcome},
          {"error", std::move(error)},
          {"log", json::array()},
          {"checks", json::array()}};
}

// Moves the log lines and checks that were gathered since the last step into `step`.
void move_gathered(json *from, json *step) {
  for (const char *list : {"log", "checks"}) {
    for (json &entry : (*from)[list])
      (*step)[list].push_back(std::move(entry));
    (*from)[list] = json::array();
  }
}

long milliseconds_since(std::chrono::steady_clock::time_point begin) {
  auto took = std::chrono::steady_clock::now() - begin;
  return std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
}

const char *crl_origin(int verdict) {
  if (verdict == PKI_CRL_MISSING)
    return "none";
  return verdict == PKI_CRL_FROM_CACHE ? "cache" : "network";
}

bool is_same_place(const json &one, const json &other) {
  return one["depth"] == other["depth"] && one.value("sha256", "") == other.value("sha256", "");
}

// OpenSSL may report several errors of a certificate, and its approval at the end.
void merge_cert(json cert, json *certs) {
  for (json &known : *certs) {
    if (!is_same_place(known, cert))
      continue;
    bool had_error = !known["steps"].empty();
    for (json &step : cert["steps"])
      if (!had_error || step["name"] != "OpenSSL" || !step["error"].is_null())
        known["steps"].push_back(std::move(step));
    known["verdict"] = cert["verdict"];
    return;
  }
  certs->push_back(std::move(cert));
}

}  // namespace

verify_listener::verify_listener()
    : tap_([this](int level, const std::string &line) { hear_line(level, line); }) {
  begin({{"certificates", json::array()}, {"log", json::array()}, {"checks", json::array()}});
  zv_cv_set_trace(hear, this);
}

verify_listener::~verify_listener() {
  zv_cv_set_trace(nullptr, nullptr);
}

json verify_listener::certificates() {
  if (!complete_ || open_.size() != 1)
    throw tools::failure("out of memory");
  return current()["certificates"];
}

void verify_listener::hear(void *self, const cv_trace_event *event) noexcept {
  auto *listener = static_cast<verify_listener *>(self);
  if (!listener->complete_)
    return;
  try {
    listener->dispatch(*event);
  } catch (...) {
    listener->complete_ = false;
  }
}

void verify_listener::hear_line(int level, const std::string &line) {
  if (complete_ && level <= log_warning)
    current()["log"].push_back(line);
}

void verify_listener::dispatch(const cv_trace_event &event) {
  switch (event.kind) {
    case PKI_TRACE_CERT:
      return begin_cert(event);
    case PKI_TRACE_RULE:
      return end_rule(event);
    case PKI_TRACE_CERT_END:
      return end_cert(event);
    case PKI_TRACE_STATUS:
      return begin_check(event);
    case PKI_TRACE_CACHE:
      current()["from"] = "cache";
      return;
    case PKI_TRACE_SOURCE:
      return begin_source(event);
    case PKI_TRACE_ANSWER:
      return end_source(event);
    case PKI_TRACE_STATUS_END:
      return end_check(event);
    case PKI_TRACE_CRL:
      return begin_crl(event);
    case PKI_TRACE_CRL_GOT:
    case PKI_TRACE_DELTA_GOT:
      return got_crl(event);
    case PKI_TRACE_CRL_END:
      return end_crl(event);
    default:
      return;
  }
}

void verify_listener::begin(json report) {
  open_.push_back({std::move(report), std::chrono::steady_clock::now()});
}

verify_listener::open_step verify_listener::end() {
  open_step ended = std::move(open_.back());
  open_.pop_back();
  return ended;
}

void verify_listener::begin_cert(const cv_trace_event &event) {
  json cert = {{"depth", event.depth}, {"verdict", "not judged"}};
  if (event.cert)
    cert.update(cert_json(event.cert));
  cert["steps"] = json::array();
  cert["steps"].push_back(event.verdict == 1
                              ? make_step("OpenSSL", "passed")
                              : make_step("OpenSSL", "failed", openssl_error(event.error)));
  cert["log"] = json::array();
  cert["checks"] = json::array();
  begin(std::move(cert));
}

void verify_listener::end_rule(const cv_trace_event &event) {
  json step = make_step(event.text, event.verdict == 1 ? "passed" : "failed");
  move_gathered(&current(), &step);
  current()["steps"].push_back(std::move(step));
}

void verify_listener::end_cert(const cv_trace_event &event) {
  json cert = end().report;
  json &steps = cert["steps"];
  bool failed = steps.back()["outcome"] == "failed";
  if (event.verdict == 1 && failed)
    steps.back()["outcome"] = "forgiven";
  if (event.verdict == 0 && !failed)  // not by a rule: the callback itself could not go on
    steps.push_back(make_step("callback", "failed"));
  move_gathered(&cert, &steps.back());
  cert.erase("log");
  cert.erase("checks");
  cert["verdict"] = event.verdict == 1 ? "accepted" : "rejected";
  merge_cert(std::move(cert), &current()["certificates"]);
}

void verify_listener::begin_check(const cv_trace_event &event) {
  begin({{"certificate", tools::name_text(X509_get_subject_name(event.cert))},
         {"serial", tools::serial_text(X509_get0_serialNumber(event.cert))},
         {"status", nullptr},
         {"from", "none"},
         {"valid_until", nullptr},
         {"sources", json::array()},
         {"log", json::array()}});
}

void verify_listener::begin_source(const cv_trace_event &event) {
  begin({{"name", event.text},
         {"answer", nullptr},
         {"milliseconds", 0},
         {"valid_until", nullptr},
         {"crls", json::array()},
         {"log", json::array()},
         {"checks", json::array()},
         {"certificates", json::array()}});
}

void verify_listener::end_source(const cv_trace_event &event) {
  auto [source, begin] = end();
  source["milliseconds"] = milliseconds_since(begin);
  if (event.verdict >= 0)
    source["answer"] = zv_cv_cert_sts_to_str(event.verdict);
  source["valid_until"] = time_json(event.valid_until);
  if (event.verdict > PKI_CERT_UNKNOWN)
    current()["from"] = "source";
  current()["sources"].push_back(std::move(source));
}

void verify_listener::begin_crl(const cv_trace_event &event) {
  begin({{"url", event.text},
         {"answer", nullptr},
         {"valid_until", nullptr},
         {"fetches", json::array()},
         {"log", json::array()},
         {"checks", json::array()},
         {"certificates", json::array()}});
}

// What is asked for next begins where this ends.
void verify_listener::got_crl(const cv_trace_event &event) {
  open_step &crl = open_.back();
  json error = nullptr;
  if (event.verdict == PKI_CRL_MISSING)
    error = code_json(static_cast<unsigned>(event.error));
  crl.report["fetches"].push_back({{"url", event.text},
                                   {"delta", event.kind == PKI_TRACE_DELTA_GOT},
                                   {"from", crl_origin(event.verdict)},
                                   {"milliseconds", milliseconds_since(crl.begin)},
                                   {"valid_until", time_json(event.valid_until)},
                                   {"error", std::move(error)}});
  crl.begin = std::chrono::steady_clock::now();
}

void verify_listener::end_crl(const cv_trace_event &event) {
  json crl = end().report;
  if (event.verdict >= 0)
    crl["answer"] = zv_cv_cert_sts_to_str(event.verdict);
  crl["valid_until"] = time_json(event.valid_until);
  current()["crls"].push_back(std::move(crl));
}

void verify_listener::end_check(const cv_trace_event &event) {
  json check = end().report;
  check["status"] = zv_cv_cert_sts_to_str(event.verdict);
  check["valid_until"] = time_json(event.valid_until);
  current()["checks"].push_back(std::move(check));
}

}  // namespace pkictl
