// examples/tls_client.c, at a real TLS server.
#include <gtest/gtest.h>

#include "s_server.h"
#include "support/test_server.h"
#include "verify_files.h"

namespace {

using tool_test::leaf_serial;
using tool_test::result;
using tool_test::s_server;
using tool_test::strings;
using tool_test::verify_files;

constexpr int accepted = 0;
constexpr int rejected = 1;
constexpr int no_verdict = 2;

// A name that leads to the loopback without a hosts file; not an address to X.509.
constexpr const char *loopback_name = "127.1";
constexpr const char *for_loopback = "IP:127.0.0.1,DNS:127.1";

result connect(const verify_files &files, const std::string &host, const std::string &port) {
  return tool_test::run("tls_client", {host, port, files.path("root.pem")});
}

support::cert server_cert(const verify_files &files, const std::string &names = for_loopback) {
  return files.issue("server", leaf_serial, files.inter,
                     {files.responder_aia(), {"subjectAltName", names}});
}

// What the client says to a server with this certificate.
result meet(const verify_files &files, const support::cert &cert,
            const std::string &host = "127.0.0.1") {
  s_server server({"-cert", files.save("server.pem", cert), "-key", files.key_file("server"),
                   "-cert_chain", files.path("inter.pem")});
  return connect(files, host, server.port());
}

TEST(ExampleTlsClient, AcceptsAGoodCertificate) {
  verify_files files;
  result done = meet(files, server_cert(files));
  EXPECT_EQ(done.exit_code, accepted) << done.out << done.err;
  EXPECT_EQ(done.out, "127.0.0.1: accepted, TLSv1.3\n");
  EXPECT_EQ(done.err, "");
  EXPECT_EQ(files.questions(), 2u);
}

TEST(ExampleTlsClient, AcceptsAHostByItsName) {
  verify_files files;
  EXPECT_EQ(meet(files, server_cert(files), loopback_name).exit_code, accepted);
}

TEST(ExampleTlsClient, RejectsARevokedCertificate) {
  verify_files files;
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_REVOKED;
  result done = meet(files, server_cert(files));
  EXPECT_EQ(done.exit_code, rejected);
  EXPECT_EQ(done.out, "127.0.0.1: rejected, certificate revoked\n");
}

TEST(ExampleTlsClient, RejectsAnUnknownCertificate) {
  verify_files files;
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_UNKNOWN;
  result done = meet(files, server_cert(files));
  EXPECT_EQ(done.exit_code, rejected);
  EXPECT_EQ(done.out, "127.0.0.1: rejected, unable to get certificate CRL\n");
}

TEST(ExampleTlsClient, RejectsAnExpiredCertificate) {
  verify_files files;
  result done = meet(files, files.issue_expired("server", leaf_serial, files.inter,
                                                {{"subjectAltName", for_loopback}}));
  EXPECT_EQ(done.exit_code, rejected);
  EXPECT_EQ(done.out, "127.0.0.1: rejected, certificate has expired\n");
}

TEST(ExampleTlsClient, RejectsACertificateForAnotherAddress) {
  verify_files files;
  result done = meet(files, server_cert(files, "IP:127.0.0.2"));
  EXPECT_EQ(done.exit_code, rejected);
  EXPECT_EQ(done.out, "127.0.0.1: rejected, IP address mismatch\n");
}

TEST(ExampleTlsClient, RejectsACertificateForAnotherName) {
  verify_files files;
  result done = meet(files, server_cert(files, "DNS:other.example"), loopback_name);
  EXPECT_EQ(done.exit_code, rejected);
  EXPECT_EQ(done.out, "127.1: rejected, hostname mismatch\n");
}

TEST(ExampleTlsClient, RejectsAStrangersCertificate) {
  verify_files files;
  result done = meet(files, files.issue("server", 9, nullptr, {{"subjectAltName", for_loopback}}));
  EXPECT_EQ(done.exit_code, rejected);
}

TEST(ExampleTlsClient, GivesNoVerdictOnAServerThatDoesNotSpeakTls) {
  verify_files files;
  support::answer greeting = support::raw("220 hello\r\n");
  greeting.read_request = false;
  greeting.hold = true;
  support::test_server server({greeting});
  result done = connect(files, "127.0.0.1", std::to_string(server.port()));
  EXPECT_EQ(done.exit_code, no_verdict);
  EXPECT_TRUE(done.err.starts_with("tls_client: the handshake failed\n")) << done.err;
}

TEST(ExampleTlsClient, GivesNoVerdictWhereNobodyListens) {
  verify_files files;
  result done = connect(files, "127.0.0.1", std::to_string(support::unused_port()));
  EXPECT_EQ(done.exit_code, no_verdict);
  EXPECT_TRUE(done.err.starts_with("tls_client: cannot connect\n")) << done.err;
}

TEST(ExampleTlsClient, GivesNoVerdictOnAHostWithoutName) {
  verify_files files;
  EXPECT_EQ(connect(files, "", "443").exit_code, no_verdict);
}

TEST(ExampleTlsClient, GivesNoVerdictWithoutTrustedCertificates) {
  result done = tool_test::run("tls_client", {"127.0.0.1", "443", "/nonexistent/root.pem"});
  EXPECT_EQ(done.exit_code, no_verdict);
  EXPECT_TRUE(done.err.starts_with("tls_client: cannot use the trusted certificates\n"))
      << done.err;
}

TEST(ExampleTlsClient, TellsItsUsage) {
  EXPECT_EQ(tool_test::run("tls_client", {"127.0.0.1"}).exit_code, no_verdict);
}

}  // namespace
