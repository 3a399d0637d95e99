// Long CRLs from the lab, and the memory that they do not take.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "crl_client.h"
#include "lab_fixture.h"
#include "ocsp_client.h"
#include "raw_http.h"
#include "shared_crl.h"
#include "tools/pkilab/crl_entries.h"

namespace {

using tool_test::ask_crl;
using tool_test::crl_query;
using tool_test::openssl;
using tool_test::result;
using tool_test::strings;
using tool_test::the_lab;

// Reads an answer without keeping it; its length with the head.
size_t drain(int port, const std::string &path) {
  constexpr size_t piece = 1 << 20;
  tool_test::raw_client client(port);
  client.send("GET " + path + " HTTP/1.0\r\n\r\n");
  size_t total = 0;
  for (size_t got = piece; got == piece; total += got)
    got = client.receive(piece).size();
  return total;
}

// A line of /proc/PID/status in KiB.
long memory(pid_t pid, const std::string &name) {
  std::istringstream lines(tool_test::read_file("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name + ":"))
      return std::stol(line.substr(name.size() + 1));
  return -1;
}

TEST(GeneratedList, IsSortedAndAlwaysTheSame) {
  strings serials = ask_crl("?empty&entries=5000").serials();
  ASSERT_EQ(serials.size(), 5000u);
  EXPECT_TRUE(std::is_sorted(serials.begin(), serials.end()));
  EXPECT_EQ(std::adjacent_find(serials.begin(), serials.end()), serials.end());
  for (size_t i = 0; i < serials.size(); i++) {
    ASSERT_EQ(serials[i].size(), 40u);
    ASSERT_EQ(serials[i], pkilab::generated_serial(i));
  }
  EXPECT_EQ(serials.front(), "10000000E220A839A661F8AC7159690D1B652C20");
}

TEST(GeneratedList, StandsInFrontOfWhatIsListed) {
  crl_query answer = ask_crl("?empty&entries=3&entry=FF:superseded");
  EXPECT_EQ(answer.serials(), (strings{pkilab::generated_serial(0), pkilab::generated_serial(1),
                                       pkilab::generated_serial(2), "FF"}));
  EXPECT_EQ(answer.reason_at(2), -1);
  EXPECT_EQ(answer.reason_at(3), CRL_REASON_SUPERSEDED);
}

TEST(GeneratedList, CanHaveAReasonInEach) {
  crl_query answer = ask_crl("?empty&entries=3&reason-in-each&entry=FF");
  EXPECT_EQ(answer.reason_at(0), CRL_REASON_KEY_COMPROMISE);
  EXPECT_EQ(answer.reason_at(2), CRL_REASON_KEY_COMPROMISE);
  EXPECT_EQ(answer.reason_at(3), -1);
}

TEST(GeneratedList, ItsPiecesJoinAtEveryLength) {
  // Around the ends of the pieces that are sent at once.
  for (int count : {0, 1, 1679, 1680, 1681, 3360, 3361}) {
    crl_query answer = ask_crl("?empty&entries=" + std::to_string(count));
    ASSERT_TRUE(answer.crl()) << count;
    EXPECT_TRUE(answer.is_signed_by(the_lab().lab.keys().issuing().key.get())) << count;
    EXPECT_EQ(answer.serials().size(), static_cast<size_t>(count));
  }
}

TEST(GeneratedList, OfAHundredThousandIsVerifiedByOpenssl) {
  tool_test::folder home;
  for (const char *query : {"?entries=100000", "?entries=100000&reason-in-each&no-length"}) {
    std::string file = home.write("list.der", ask_crl(query).body());
    result done = openssl({"crl", "-inform", "DER", "-in", file, "-noout", "-verify", "-CAfile",
                           the_lab().file("issuing-cert.pem")});
    EXPECT_EQ(done.exit_code, 0);
    EXPECT_EQ(done.err, "verify OK\n");
  }
}

// AddressSanitizer holds freed memory back. The list would take 53 MB.
#ifdef __SANITIZE_ADDRESS__
constexpr long allowed_kib = 16384;
#else
constexpr long allowed_kib = 2048;
#endif

TEST(GeneratedList, OfAMillionTakesNoMemory) {
#ifdef PROCESSOR_IS_EMULATED
  GTEST_SKIP() << "the emulator's own memory grows with what it translates";
#endif
  tool_test::lab_process lab(the_lab().file(""));
  // What the first answer needs for good: a thread, OpenSSL's tables.
  drain(lab.port(), "/crl/issuing.crl?entries=10000&reason-in-each");
  long before = memory(lab.pid(), "VmHWM");
  size_t length = drain(lab.port(), "/crl/issuing.crl?entries=1000000&reason-in-each");
  EXPECT_GT(length, 53000000u);
  EXPECT_GT(before, 0);
  EXPECT_LT(memory(lab.pid(), "VmHWM") - before, allowed_kib);
}

TEST(GeneratedList, ServerStopsInTheMiddleOfOne) {
  tool_test::lab_process lab(the_lab().file(""), {"--quiet"});
  tool_test::raw_client client(lab.port());
  client.send("GET /crl/issuing.crl?entries=300000 HTTP/1.0\r\n\r\n");
  ASSERT_EQ(client.receive(100000).size(), 100000u);
  EXPECT_EQ(lab.end(SIGTERM).exit_code, 0);
  EXPECT_LT(client.receive_all().size(), 11700000u);
}

}  // namespace
