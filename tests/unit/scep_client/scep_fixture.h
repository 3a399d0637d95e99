// A client's side of a SCEP exchange: its key, its endpoint, its request, and a clean log.
#ifndef TESTS_UNIT_SCEP_CLIENT_SCEP_FIXTURE_H
#define TESTS_UNIT_SCEP_CLIENT_SCEP_FIXTURE_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/scep_ca.h"
#include "support/store_fixture.h"

namespace support {

using log_lines = std::vector<log_entry>;

// The captured lines without what was moved there from OpenSSL's queue.
inline log_lines own_lines() {
  log_lines lines;
  for (const log_entry &entry : captured_log())
    if (entry.text.rfind("OpenSSL error: ", 0) != 0)
      lines.push_back(entry);
  return lines;
}

// What the library says of an attribute's octets in a message's DER; "" when it is absent.
inline std::string octets_attribute(const std::string &message, int row) {
  const unsigned char *data = nullptr;
  int length = 0;
  pkcs7 read = read_message(message);
  if (get_os_attr_val(read.get(), pki_nid_list[row], &data) != PKI_OK ||
      get_os_attr_len(read.get(), pki_nid_list[row], &length) != PKI_OK)
    return "";
  return std::string(reinterpret_cast<const char *>(data), static_cast<size_t>(length));
}

inline std::string code_text(int code) {
  return pki_strerror(static_cast<unsigned>(code));
}

inline std::string hex_der(const pkcs7 &object) {
  return upper_hex(der(object));
}

// A client that enrolls by scep_cert_req.
class scep_client_test : public store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    scep_stop_polling(0);
    scep_limit_polls(0);
  }
  void TearDown() override {
    issued.reset();
    scep_stop_polling(0);
    scep_limit_polls(0);
    store_test::TearDown();
  }

  // Digest and cipher that need nothing special, and are quick, unless told otherwise.
  scep_info endpoint(const scep_ca &ca, const char *digest = "SHA256",
                     const char *cipher = "AES-128-CBC") {
    return make_scep_info(ca.url(), ca.certificate(), digest, cipher);
  }
  int enroll(const scep_info &info) {
    X509 *made = nullptr;
    int code = scep_cert_req(own_key.get(), subject.get(), info.get(), &made);
    issued.reset(made, X509_free);
    return code;
  }
  int enroll(const scep_ca &ca) { return enroll(endpoint(ca)); }
  int enroll_with(const scep_reply &reply) {
    scep_ca ca({reply});
    int code = enroll(ca);
    requests = ca.requests();
    answers = ca.answers();
    return code;
  }

  key own_key = test_key(1);
  name subject = make_name({{"C", "US"}, {"CN", "device"}});
  cert issued;  // what the last enrollment brought
  std::vector<scep_request> requests;
  std::vector<std::string> answers;
};

}  // namespace support

#endif
