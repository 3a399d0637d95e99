// What a folder of roots may hold.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "roots_support.h"
#include "verifier/trust_roots/internal.h"

using namespace roots_support;

namespace {

const texts only_good = {"/C=US/O=Example/CN=good"};

class RootFiles : public support::store_test {
 protected:
  void read() { pki::add_root_files(folder.path().c_str()); }
  static texts roots() { return root_subjects("other"); }

  // Nothing becomes a root, and the only line says that the file could not be read, and why.
  void expect_unread(const std::string &name, const std::string &reason) {
    read();
    EXPECT_EQ(texts{}, ca_labels());
    EXPECT_EQ("3: failed to read cert " + folder.path() + name + ": " + reason + "\n", log_dump());
    EXPECT_EQ(0UL, ERR_peek_error());
  }
  // Nothing becomes a root, and the only line of our own says that the file could not be converted;
  // OpenSSL's follow.
  void expect_not_converted(const std::string &name) {
    read();
    EXPECT_EQ(texts{}, ca_labels());
    EXPECT_TRUE(only_line_begins("3: failed to convert cert " + folder.path() + name + ": "))
        << log_dump();
    EXPECT_LT(0U, openssl_lines());
    EXPECT_EQ(0UL, ERR_peek_error());
  }

  temp_folder folder;
  support::cert good = device_root("good");
};

// ---- taken ----

TEST_F(RootFiles, APemCertificateBecomesARootOfTheOtherCa) {
  folder.write("good.pem", good);
  read();
  EXPECT_EQ(texts{"other"}, ca_labels());
  EXPECT_EQ(texts{support::der(good)}, support::ders(find_ca("other")->trusted_roots));
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, TheNameOfTheFileDoesNotMatter) {
  folder.write(".hidden", device_root("one", 1));
  folder.write("...", device_root("two", 2));
  folder.write("a b%s%n\xE9", device_root("three", 3));
  read();
  EXPECT_EQ(3U, roots().size());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, OfTwoCertificatesInAFileTheFirstIsTaken) {
  folder.write("two.pem", support::pem(good) + support::pem(device_root("second", 2)));
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, TextAroundTheCertificateIsNoHarm) {
  folder.write("text.pem", "A root\n\n" + support::pem(good) + "and more\n");
  read();
  EXPECT_EQ(only_good, roots());
}

TEST_F(RootFiles, AKeyInFrontOfTheCertificateIsNoHarm) {
  folder.write("key.pem", support::private_pem(support::test_key(0)) + support::pem(good));
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, ALinkToAFileIsFollowed) {
  temp_folder elsewhere;
  elsewhere.write("good.pem", good);
  std::filesystem::create_symlink(elsewhere.path() + "good.pem", folder.path() + "link.pem");
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, ACertificateInTwoFilesIsHeldOnce) {
  folder.write("one.pem", good);
  folder.write("two.pem", good);
  read();
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, AHostsOtherCaIsAddedTo) {
  ca_ref host = add_host_ca("other", {device_root("host", 7)});
  folder.write("good.pem", good);
  read();
  EXPECT_EQ(texts{"other"}, ca_labels());
  EXPECT_EQ((texts{"/C=US/O=Example/CN=host", only_good[0]}), roots());
  EXPECT_EQ(2, OPENSSL_sk_num(host->trusted_roots));
}

// ---- organizationName ----

TEST_F(RootFiles, ASubjectWithoutOrganizationNameIsDropped) {
  folder.write("nobody.pem", support::simple_cert("nobody", "nobody", 1));
  read();
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("3: failed to get org name\n", own_log());
}

TEST_F(RootFiles, WhatOpensslSaysFollowsTheLineAboutTheOrganizationName) {
  folder.write("nobody.pem", support::simple_cert("nobody", "nobody", 1));
  support::raise_openssl_error(1);
  read();
  std::vector<log_entry> log = captured_log();
  ASSERT_EQ(2U, log.size());
  EXPECT_EQ((log_entry{3, "failed to get org name"}), log[0]);
  EXPECT_EQ(3, log[1].level);
  EXPECT_EQ(1U, openssl_lines());
  EXPECT_EQ(0UL, ERR_peek_error());
}

TEST_F(RootFiles, AnIssuersOrganizationNameDoesNotCount) {
  support::cert_options options;
  options.issuer = support::make_name({{"O", "Example"}});
  folder.write("nobody.pem", support::make_cert(options));
  read();
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("3: failed to get org name\n", own_log());
}

TEST_F(RootFiles, AnOrganizationNameMayBeLongAndOfAnyString) {
  const unsigned char wide[] = {0x00, 0xD6};
  std::string longest(200, 'o');
  support::cert_options options;
  options.subject = support::name(X509_NAME_new(), X509_NAME_free);
  X509_NAME_add_entry_by_NID(options.subject.get(), NID_organizationName, V_ASN1_UTF8STRING,
                             reinterpret_cast<const unsigned char *>(longest.data()),
                             static_cast<int>(longest.size()), -1, 0);
  folder.write("long.pem", support::make_cert(options));
  options.subject = support::name(X509_NAME_new(), X509_NAME_free);
  X509_NAME_add_entry_by_NID(options.subject.get(), NID_organizationName, V_ASN1_BMPSTRING, wide,
                             sizeof wide, -1, 0);
  options.serial = 2;
  folder.write("wide.pem", support::make_cert(options));
  read();
  EXPECT_EQ(2U, roots().size());
  EXPECT_EQ("", log_dump());
}

// ---- no certificate ----

TEST_F(RootFiles, AFileThatIsNoPemIsSkipped) {
  folder.write("bad.pem", support::der(good));
  expect_not_converted("bad.pem");
}

TEST_F(RootFiles, AnEmptyFileIsSkipped) {
  folder.write("empty.pem", "");
  expect_not_converted("empty.pem");
}

TEST_F(RootFiles, APemOfSomethingElseIsSkipped) {
  folder.write("key.pem", support::private_pem(support::test_key(0)));
  expect_not_converted("key.pem");
}

TEST_F(RootFiles, APemThatEndsTooSoonIsSkipped) {
  std::string pem = support::pem(good);
  folder.write("cut.pem", pem.substr(0, pem.size() / 2));
  expect_not_converted("cut.pem");
}

TEST_F(RootFiles, APemOfGarbageIsSkipped) {
  folder.write("garbage.pem", "-----BEGIN CERTIFICATE-----\n" +
                                  support::base64_lines(std::string(300, 'x')) +
                                  "-----END CERTIFICATE-----\n");
  expect_not_converted("garbage.pem");
}

TEST_F(RootFiles, AHugeFileOfGarbageIsSkipped) {
  folder.write("huge.pem", "x");
  std::filesystem::resize_file(folder.path() + "huge.pem", 32 << 20);
  expect_unread("huge.pem", "File too large");
}

TEST_F(RootFiles, AFileOfOneMiBIsRead) {
  std::string pem = support::pem(good);
  folder.write("large.pem", pem + std::string((1 << 20) - pem.size(), '\n'));
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, AFileOfOneOctetMoreIsSkipped) {
  std::string pem = support::pem(good);
  folder.write("large.pem", pem + std::string((1 << 20) + 1 - pem.size(), '\n'));
  expect_unread("large.pem", "File too large");
}

TEST_F(RootFiles, ALargePemOfGarbageIsSkipped) {
  std::string lines;
  std::string line = std::string(64, 'A') + "\n";
  for (int i = 0; i < 15'000; i++)
    lines += line;
  folder.write("large.pem",
               "-----BEGIN CERTIFICATE-----\n" + lines + "-----END CERTIFICATE-----\n");
  expect_not_converted("large.pem");
}

// Nobody can verify what it issued.
TEST_F(RootFiles, AKeyOfAnUnknownAlgorithmIsSkipped) {
  const std::string rsa = "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01\x05";
  std::string der = support::der(good);
  size_t found = der.find(rsa);
  ASSERT_NE(std::string::npos, found);
  der[found + rsa.size() - 2] = '\x7F';
  folder.write("unknown.pem", "-----BEGIN CERTIFICATE-----\n" + support::base64_lines(der) +
                                  "-----END CERTIFICATE-----\n");
  read();
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("3: failed to convert cert " + folder.path() + "unknown.pem: decode error\n",
            own_log());
}

TEST_F(RootFiles, AnEncryptedPemIsSkipped) {
  folder.write("encrypted.pem", encrypted_pem(good, "secret"));
  expect_not_converted("encrypted.pem");
}

TEST_F(RootFiles, AnEmptyPassPhraseOpensNothing) {
  folder.write("encrypted.pem", encrypted_pem(good, ""));
  expect_not_converted("encrypted.pem");
}

// ---- no regular file ----

TEST_F(RootFiles, AFolderIsSkipped) {
  std::filesystem::create_directory(folder.path() + "sub.pem");
  std::ofstream(folder.path() + "sub.pem/good.pem") << support::pem(good);
  expect_unread("sub.pem", "Is a directory");
}

TEST_F(RootFiles, AFifoIsSkippedAndDoesNotBlock) {
  ASSERT_EQ(0, mkfifo((folder.path() + "fifo.pem").c_str(), 0600));
  expect_unread("fifo.pem", "Invalid argument");
}

TEST_F(RootFiles, AFifoWithACertificateInItIsSkippedToo) {
  std::string path = folder.path() + "fifo.pem";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  int both_ends = open(path.c_str(), O_RDWR);
  std::string pem = support::pem(good);
  ASSERT_EQ(static_cast<ssize_t>(pem.size()), write(both_ends, pem.data(), pem.size()));
  expect_unread("fifo.pem", "Invalid argument");
  close(both_ends);
}

TEST_F(RootFiles, ASocketIsSkipped) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::string path = folder.path() + "socket.pem";
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address));
  expect_unread("socket.pem", "Invalid argument");
  close(listener);
}

TEST_F(RootFiles, ALinkToADeviceIsSkipped) {
  std::filesystem::create_symlink("/dev/zero", folder.path() + "zero.pem");
  expect_unread("zero.pem", "Invalid argument");
}

TEST_F(RootFiles, ADanglingLinkIsSkippedWithItsReason) {
  std::filesystem::create_symlink(folder.path() + "nowhere", folder.path() + "link.pem");
  read();
  EXPECT_EQ("3: failed to read cert " + folder.path() + "link.pem: No such file or directory\n",
            log_dump());
}

TEST_F(RootFiles, ALinkToItselfIsSkippedWithItsReason) {
  std::filesystem::create_symlink(folder.path() + "link.pem", folder.path() + "link.pem");
  read();
  EXPECT_EQ(
      "3: failed to read cert " + folder.path() + "link.pem: Too many levels of symbolic links\n",
      log_dump());
}

// ---- paths ----

TEST_F(RootFiles, APathOf127OctetsFits) {
  std::string name(127 - folder.path().size(), 'n');
  folder.write(name, good);
  read();
  EXPECT_EQ(only_good, roots());
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, APathOf128OctetsIsSkipped) {
  std::string name(128 - folder.path().size(), 'n');
  folder.write(name, good);
  read();
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("3: failed to read cert " + folder.path() + name.substr(1) + ": File name too long\n",
            log_dump());
}

TEST_F(RootFiles, AFolderWhosePathIsTooLongHoldsNoRoots) {
  std::string deep = folder.path() + std::string(120, 'd') + "/";
  std::string cut = (deep + "good.pem").substr(0, 127);
  std::filesystem::create_directory(deep);
  std::ofstream(deep + "good.pem") << support::pem(good);
  pki::add_root_files(deep.c_str());
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("3: failed to read cert " + cut + ": File name too long\n", log_dump());
}

TEST_F(RootFiles, AMissingFolderIsNotEvenLogged) {
  pki::add_root_files((folder.path() + "missing/").c_str());
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ("", log_dump());
}

// ---- what fails ----

TEST_F(RootFiles, ACertificateThatCannotBeHeldIsLoggedAndTakenTheNextTime) {
  folder.write("good.pem", good);
  fake_failures::fail_x509_up_ref();
  read();
  fake_failures::reset();
  EXPECT_EQ(texts{}, roots());
  EXPECT_EQ("3: failed to add cert " + folder.path() + "good.pem: CRYPTO LOCK FAILED\n",
            log_dump());
  read();
  EXPECT_EQ(only_good, roots());
}

TEST_F(RootFiles, OfTwoOfOneIssuerAndSerialNumberTheFirstIsHeld) {
  support::cert twin(X509_dup(good.get()), X509_free);
  X509_gmtime_adj(X509_getm_notAfter(twin.get()), 999'999'999);
  ASSERT_LT(0, X509_sign(twin.get(), support::test_key(0).get(), EVP_sha256()));
  folder.write("good.pem", good);
  read();
  folder.write("twin.pem", twin);
  read();
  EXPECT_EQ(texts{support::der(good)}, support::ders(find_ca("other")->trusted_roots));
  EXPECT_EQ("", log_dump());
}

TEST_F(RootFiles, OutOfMemorySkipsOrTakesTheWholeCertificate) {
  folder.write("good.pem", good);
  read();
  int without_key = 0;
  size_t failures = fake_allocator::sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          support::empty_store();
          support::clear_openssl_errors();
          clear_log();
        }
        read();
      },
      [&](size_t n) {
        EXPECT_GE(1U, roots().size()) << n;
        if (!roots().empty()) {
          without_key += !X509_get0_pubkey(root_of("other", 0));
        } else if (n > 1) {  // the first is opendir's
          EXPECT_NE("", own_log()) << n;
        }
      });
  EXPECT_EQ(0, without_key);
  EXPECT_TRUE(failures > 20 || !fake_allocator::available());
}

}  // namespace
