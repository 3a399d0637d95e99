// The NIST Public Key Interoperability Test Suite, as the Debian package
// python3-cryptography-vectors installs it, and the tables of this folder.
#ifndef TESTS_PKITS_SUITE_H
#define TESTS_PKITS_SUITE_H

#include <iosfwd>
#include <string>
#include <vector>

#include "support/certs.h"

namespace pkits {

// One line of cases.txt and of expected.txt.
struct test_case {
  std::string number;              // "4.14.22"
  std::string name;                // of its end entity, "ValidIDPwithindirectCRLTest22"
  std::vector<std::string> certs;  // besides the end entity and the trust anchor
  std::vector<std::string> crls;   // besides the trust anchor's
  std::string theirs;              // the suite's verdict: "valid" or "invalid"
  std::string by_issuer;           // ours, with status rules for issuers
  std::string by_directory;        // ours, with status rules that follow the suite's directory
  std::string status;              // of the end entity alone, whatever its path is worth
  std::string reason;              // why ours is not the suite's
};
void PrintTo(const test_case &shown, std::ostream *out);

// Both tables, joined. Ends the program when they do not fit together.
const std::vector<test_case> &all_cases();

// Where the suite's files are: the environment's PKITS_DATA, or the package's folder.
std::string folder();
bool is_installed();

constexpr char trust_anchor[] = "TrustAnchorRootCertificate";
constexpr char trust_anchor_crl[] = "TrustAnchorRootCRL";

support::cert read_cert(const std::string &name);
support::crl read_crl(const std::string &name);
// The octets of crls/NAME.crl; empty when there is no such file.
std::string crl_octets(const std::string &name);

// The CRLs that the suite's directory (pkits.ldif) has in the entry of that name, deltas last.
std::vector<std::string> crls_in_directory(const X509_NAME *entry);

}  // namespace pkits

#endif
