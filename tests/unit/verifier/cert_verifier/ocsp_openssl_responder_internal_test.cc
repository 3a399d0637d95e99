// OpenSSL's own responder as the other side.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;

namespace {

// A child process, ended with this object.
class openssl_responder {
 public:
  // Signs with WHO.pem and WHO.key. It reads its files late, so leave them alone.
  openssl_responder(const std::string &folder, const std::string &who,
                    const std::vector<std::string> &more) {
    std::vector<std::string> words = {"openssl",  "ocsp",       "-port", "0",
                                      "-index",   "index",      "-CA",   "ca.pem",
                                      "-rsigner", who + ".pem", "-rkey", who + ".key"};
    words.insert(words.end(), more.begin(), more.end());
    std::vector<char *> arguments;
    for (std::string &word : words)
      arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0)
      return;
    child_ = fork();
    if (child_ == 0) {
      int nowhere = open("/dev/null", O_RDWR);
      dup2(nowhere, 0);
      dup2(output[1], 1);
      dup2(nowhere, 2);
      if (chdir(folder.c_str()) == 0)
        execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(output[1]);
    port_ = read_port(output[0]);
    // It goes on writing there.
    output_ = output[0];
  }
  ~openssl_responder() {
    if (child_ > 0) {
      kill(child_, SIGTERM);
      waitpid(child_, nullptr, 0);
    }
    if (output_ >= 0)
      close(output_);
  }
  openssl_responder(const openssl_responder &) = delete;
  openssl_responder &operator=(const openssl_responder &) = delete;

  bool running() const { return port_ > 0; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  // It says "ACCEPT [::]:PORT PID=..." or "ACCEPT 0.0.0.0:PORT ...".
  static int read_port(int fd) {
    std::string line;
    pollfd ready = {fd, POLLIN, 0};
    while (line.find('\n') == std::string::npos && poll(&ready, 1, 10000) > 0) {
      char octet;
      if (read(fd, &octet, 1) != 1)
        break;
      line.push_back(octet);
    }
    size_t end = line.find(" PID=");
    size_t colon = line.rfind(':', end);
    return colon == std::string::npos ? -1 : atoi(line.c_str() + colon + 1);
  }

  pid_t child_ = -1;
  int output_ = -1;
  int port_ = -1;
};

// The clock is the real one here: the responder has no other.
class OcspOpensslResponder : public ocsp_query_test {
 protected:
  void SetUp() override {
    ocsp_query_test::SetUp();
    ASSERT_EQ(0, system("openssl version >/dev/null 2>&1")) << "the openssl command is needed";
    fake_clock::use_real();
    char path[] = "/tmp/libpki-ocsp-XXXXXX";
    folder = mkdtemp(path);
    support::cert_options made;
    made.subject = support::common_name("issuer");
    made.public_key = support::test_key(issuer_key);
    made.ca = true;
    issuer = support::make_cert(made);
    device = fresh("device", device_serial, device_key);
    write("ca.pem", support::pem(issuer));
    write("index", line('V', device_serial, ""));
    sign_as("issuer", issuer, issuer_key);
  }
  void TearDown() override {
    if (!folder.empty())
      std::filesystem::remove_all(folder);
    ocsp_query_test::TearDown();
  }

  // Valid now, and issued by the issuer.
  static support::cert fresh(const std::string &cn, long serial, int owner,
                             const extensions &more = {}) {
    support::cert_options made;
    made.subject = support::common_name(cn);
    made.issuer = support::common_name("issuer");
    made.serial = serial;
    made.public_key = support::test_key(owner);
    made.signing_key = support::test_key(issuer_key);
    made.extensions = more;
    return support::make_cert(made);
  }
  void write(const std::string &name, const std::string &octets) const {
    std::ofstream(folder + "/" + name, std::ios::binary) << octets;
  }
  // One line of the CA's index, where no two valid certificates may have one name.
  static std::string line(char state, long serial, const std::string &revoked) {
    char number[20];
    snprintf(number, sizeof number, "%04lX", static_cast<unsigned long>(serial));
    return std::string(1, state) + "\t490101000000Z\t" + revoked + "\t" + number +
           "\tunknown\t/CN=" + number + "\n";
  }
  // Who signs the answers from now on.
  void sign_as(const std::string &name, const support::cert &signer, int owner) {
    who = name;
    write(who + ".pem", support::pem(signer));
    write(who + ".key", support::private_pem(support::test_key(owner)));
  }
  // Starts the responder and asks it.
  record ask_openssl(const std::vector<std::string> &more = {"-nmin", "60"}) {
    openssl_responder responder(folder, who, more);
    EXPECT_TRUE(responder.running());
    clear_log();
    return responder.running() ? query(responder.url()) : cache_support::hold(nullptr);
  }

  std::string folder, who;
};

TEST_F(OcspOpensslResponder, SaysGood) {
  record info = ask_openssl();
  ASSERT_NE(nullptr, info) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, info->status);
  EXPECT_EQ(device.get(), info->cert);
  EXPECT_EQ(accepted_from_issuer(), judgement());
  // In an hour, as it was told.
  time_t now = time(nullptr);
  EXPECT_GE(0, ASN1_TIME_cmp_time_t(info->valid_until, now + 3600));
  EXPECT_LE(0, ASN1_TIME_cmp_time_t(info->valid_until, now + 3500));
}

TEST_F(OcspOpensslResponder, SaysRevoked) {
  write("index", line('R', device_serial, "230101000000Z,keyCompromise"));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask_openssl())) << log_dump();
  EXPECT_EQ(accepted_from_issuer("revoked"), judgement());
}

TEST_F(OcspOpensslResponder, SaysUnknown) {
  write("index", line('V', device_serial + 1, ""));
  EXPECT_EQ(PKI_CERT_UNKNOWN, status_of(ask_openssl())) << log_dump();
  EXPECT_EQ(accepted_from_issuer("unknown"), judgement());
}

TEST_F(OcspOpensslResponder, IdentifiesItselfByKey) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl({"-nmin", "60", "-resp_key_id"}))) << log_dump();
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspOpensslResponder, SendsNoCertificates) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl({"-nmin", "60", "-resp_no_certs"}))) << log_dump();
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->collected_certs));
}

TEST_F(OcspOpensslResponder, SendsOtherCertificatesToo) {
  support::cert other = fresh("other", 50, stranger_key);
  write("other.pem", support::pem(other));
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl({"-nmin", "60", "-rother", "other.pem"})))
      << log_dump();
  EXPECT_TRUE(in_list(pki_store->collected_certs, other));
}

TEST_F(OcspOpensslResponder, WithoutNextUpdateThereIsNoRecord) {
  EXPECT_EQ(nullptr, ask_openssl({}));
  EXPECT_EQ(accepted_from_issuer() + no_next_update_line, judgement());
}

TEST_F(OcspOpensslResponder, DigestMayBeAnother) {
  for (const char *digest : {"sha1", "sha384"})
    EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl({"-nmin", "60", "-rmd", digest}))) << log_dump();
}

TEST_F(OcspOpensslResponder, IsDelegatedAndNotChecked) {
  sign_as("responder",
          fresh("responder", responder_serial, responder_key, {ocsp_signing, no_check}),
          responder_key);
  for (const std::vector<std::string> &more :
       {std::vector<std::string>{"-nmin", "60"}, {"-nmin", "60", "-resp_key_id"}}) {
    EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl(more))) << log_dump();
    EXPECT_EQ(found_line(1) + no_check_line + accepted_lines(), judgement());
  }
}

TEST_F(OcspOpensslResponder, IsDelegatedAndSaysRevoked) {
  sign_as("responder",
          fresh("responder", responder_serial, responder_key, {ocsp_signing, no_check}),
          responder_key);
  write("index", line('R', device_serial, "230101000000Z"));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask_openssl())) << log_dump();
}

TEST_F(OcspOpensslResponder, IsNotAllowedToAnswer) {
  sign_as("responder", fresh("responder", responder_serial, responder_key), responder_key);
  EXPECT_EQ(nullptr, ask_openssl());
  EXPECT_EQ(found_line(1) +
                "4: ocsp-response signer (/CN=responder) has no ocsp-signing extended key-usage - "
                "discarding\n" +
                none_trusted_line,
            judgement());
}

TEST_F(OcspOpensslResponder, IsConfigured) {
  support::cert_options made;
  made.subject = support::common_name("stranger");
  made.public_key = support::test_key(stranger_key);
  configured = support::make_cert(made);
  ocsp_flag = 1;
  sign_as("configured", configured, stranger_key);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl({"-nmin", "60", "-resp_no_certs"}))) << log_dump();
  EXPECT_EQ(found_line(1) + configured_line + accepted_lines(), judgement());
}

// The delegated responder's own status comes from a second process.
TEST_F(OcspOpensslResponder, IsAskedAboutAnotherResponder) {
  write("index", line('V', device_serial, "") + line('V', responder_serial, ""));
  openssl_responder second(folder, who, {"-nmin", "60"});
  ASSERT_TRUE(second.running());
  sign_as("responder",
          fresh("responder", responder_serial, responder_key, {ocsp_signing, ask_at(second.url())}),
          responder_key);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_openssl())) << log_dump();
  EXPECT_TRUE(was_logged(7, "ocsp-response signer's cert (/CN=responder) is ok")) << log_dump();
}

TEST_F(OcspOpensslResponder, RevokesAnotherResponder) {
  write("index", line('V', device_serial, "") + line('R', responder_serial, "230101000000Z"));
  openssl_responder second(folder, who, {"-nmin", "60"});
  ASSERT_TRUE(second.running());
  sign_as("responder",
          fresh("responder", responder_serial, responder_key, {ocsp_signing, ask_at(second.url())}),
          responder_key);
  EXPECT_EQ(nullptr, ask_openssl());
  EXPECT_TRUE(
      was_logged(4, "ocsp-response signer's cert (/CN=responder) was revoked - rejecting it"))
      << log_dump();
}

}  // namespace
