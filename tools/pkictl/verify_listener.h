// Turns what happens while a certificate is verified into a report.
#ifndef TOOLS_PKICTL_VERIFY_LISTENER_H
#define TOOLS_PKICTL_VERIFY_LISTENER_H

#include <libpki/trace.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/pkictl/log_tap.h"
#include "tools/pkictl/output.h"

namespace pkictl {

/*
 * Listens to the calling thread's verifications while it lives. The report:
 *
 *   certificate  the fields of cert_json, "depth", "verdict" ("accepted", "rejected", "not
 *                judged"), "steps"
 *   step         "name" ("OpenSSL", or the rule's), "outcome" ("passed", "failed", "forgiven"),
 *                "error" (OpenSSL's "number" and "text", or null), "log", "checks"
 *   check        of a status: "certificate", "serial", "status" ("ok", "revoked", "unknown"),
 *                "from" ("cache", "source"; "none" where no source is known or counts),
 *                "valid_until" (or null), "sources", "log"
 *   source       "name" (its URL, or what it is), "answer" (a status, or null for none),
 *                "milliseconds", "valid_until" (or null), "crls", "log", "checks" (of the answer's
 *                signers), "certificates" (that were verified for the answer)
 *   crl          "url", "answer" ("ok": it does not list the certificate; "revoked"; null: it is of
 *                no use), "valid_until" (or null), "fetches", "log", "checks", "certificates"
 *   fetch        of the CRL, or a delta CRL for it: "url", "delta", "from" ("network", "cache",
 *                "none"), "milliseconds", "valid_until" (or null), "error" (a code, or null)
 *
 * "log" holds the library's lines of level 4 and below that came during the step.
 */
class verify_listener {
 public:
  verify_listener();
  ~verify_listener();
  verify_listener(const verify_listener &) = delete;
  verify_listener &operator=(const verify_listener &) = delete;

  // The certificates that were judged, in that order. Throws failure when memory ran out on the
  // way.
  json certificates();

 private:
  // Something that has begun and not ended; what it leads to is gathered in its report.
  struct open_step {
    json report;
    std::chrono::steady_clock::time_point begin;
  };

  static void hear(void *self, const cv_trace_event *event) noexcept;
  void hear_line(int level, const std::string &line);
  void dispatch(const cv_trace_event &event);

  void begin(json report);
  open_step end();
  json &current() { return open_.back().report; }

  void begin_cert(const cv_trace_event &event);
  void end_rule(const cv_trace_event &event);
  void end_cert(const cv_trace_event &event);
  void begin_check(const cv_trace_event &event);
  void begin_source(const cv_trace_event &event);
  void end_source(const cv_trace_event &event);
  void end_check(const cv_trace_event &event);
  void begin_crl(const cv_trace_event &event);
  void got_crl(const cv_trace_event &event);
  void end_crl(const cv_trace_event &event);

  std::vector<open_step> open_;  // the outermost is the verification itself
  bool complete_ = true;
  log_tap tap_;  // last: it uses the others
};

}  // namespace pkictl

#endif
