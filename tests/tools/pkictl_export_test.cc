#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>

#include "device.h"
#include "state_fixture.h"
#include "tools/common/keys.h"

namespace {

using nlohmann::json;
using tool_test::device;
using tool_test::mode_of;
using tool_test::result;
using tool_test::state_test;
using tool_test::strings;

struct export_test : state_test {
  std::string out = home / "out.pem";

  export_test() { EXPECT_EQ(make_key("device").exit_code, 0); }

  tools::key_ptr kept() const {
    return std::move(tool_test::decoded(octets()).keys["device"].pair);
  }
  std::string private_pem() const { return tools::private_pem(kept().get()); }
  std::string public_pem() const { return tools::public_pem(kept().get()); }
};

TEST(PkictlKeyExport, PrintsThePrivateKey) {
  export_test test;
  result done = test.pkictl({"key", "export", "device"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, test.private_pem());
}

TEST(PkictlKeyExport, PrintsThePublicKeyOnly) {
  export_test test;
  EXPECT_EQ(test.pkictl({"key", "export", "device", "--public"}).out, test.public_pem());
}

TEST(PkictlKeyExport, FileIsForItsOwnerOnly) {
  export_test test;
  result done = test.pkictl({"key", "export", "device", "-o", test.out});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "saved " + test.out + "\n");
  EXPECT_EQ(tool_test::read_file(test.out), test.private_pem());
  EXPECT_EQ(mode_of(test.out), 0600u);
}

TEST(PkictlKeyExport, FileThatIsThereIsReplacedOnlyWhenForced) {
  export_test test;
  test.home.write("out.pem", "precious");
  result done = test.pkictl({"key", "export", "device", "--out", test.out});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: " + test.out + " is there already; take another name, or --force it\n");
  EXPECT_EQ(tool_test::read_file(test.out), "precious");
  EXPECT_EQ(test.pkictl({"key", "export", "device", "--out", test.out, "--force"}).exit_code, 0);
  EXPECT_EQ(tool_test::read_file(test.out), test.private_pem());
  EXPECT_EQ(mode_of(test.out), 0600u);
}

TEST(PkictlKeyExport, PrintsJson) {
  export_test test;
  result done = test.pkictl({"key", "export", "device", "--public", "--json"});
  EXPECT_EQ(json::parse(done.out),
            (json{{"key", "device"}, {"public", true}, {"pem", test.public_pem()}}));
  done = test.pkictl({"key", "export", "device", "--json", "-o", test.out});
  EXPECT_EQ(json::parse(done.out),
            (json{{"key", "device"}, {"public", false}, {"file", test.out}}));
}

// Replaced by a file, a machine's device would be gone.
TEST(PkictlKeyExport, PipeOrDeviceIsWrittenToAndStays) {
  export_test test;
  for (bool force : {false, true}) {
    std::string pipe = test.home / (force ? "forced" : "pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    strings arguments = {"key", "export", "device", "--out", pipe};
    if (force)
      arguments.push_back("--force");
    result done = test.pkictl(arguments);
    EXPECT_EQ(done.exit_code, 0) << done.err;
    char text[4096];
    ssize_t length = read(reader, text, sizeof text);
    close(reader);
    ASSERT_GT(length, 0);
    EXPECT_EQ(std::string(text, static_cast<size_t>(length)), test.private_pem());
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
  }
}

TEST(PkictlKeyExport, FullDeviceIsAFailure) {
  export_test test;
  std::string device = test.home / "device";
  if (mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 7)) != 0)
    GTEST_SKIP() << "no device can be made here";
  result done = test.pkictl({"key", "export", "device", "--out", device, "--force"});
  EXPECT_TRUE(std::filesystem::is_character_file(device));
  if (done.err.find("Permission denied") != std::string::npos)
    GTEST_SKIP() << "no device can be opened here";
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot write " + device + ": No space left on device\n");
}

TEST(PkictlKeyExport, FileBehindALinkIsReplacedAndTheLinkStays) {
  export_test test;
  test.home.write("out.pem", "precious");
  std::string link = test.home / "link.pem";
  std::filesystem::create_symlink("out.pem", link);
  EXPECT_EQ(test.pkictl({"key", "export", "device", "--out", link}).exit_code, 1);
  EXPECT_EQ(tool_test::read_file(test.out), "precious");
  EXPECT_EQ(test.pkictl({"key", "export", "device", "--out", link, "--force"}).exit_code, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(tool_test::read_file(test.out), test.private_pem());
}

TEST(PkictlKeyExport, KeyHasToBeThere) {
  export_test test;
  result done = test.pkictl({"key", "export", "other"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no key other in " + test.dir +
                          "; see 'pkictl key list --state " + test.dir +
                          "', or make it with 'pkictl key generate other --state " + test.dir +
                          "'\n");
  EXPECT_EQ(done.out, "");
}

TEST(PkictlKeyExport, HelpNamesTheModesOfFiles) {
  EXPECT_NE(tool_test::pkictl({"key", "export", "--help"}).out.find("(PEM, mode 0600)"),
            std::string::npos);
  for (const char *command : {"export", "find"})
    EXPECT_NE(tool_test::pkictl({"cert", command, "--help"}).out.find("(PEM, mode 0644)"),
              std::string::npos)
        << command;
}

TEST(PkictlKeyExport, WrongUsageIsTwo) {
  export_test test;
  for (const strings &arguments :
       {strings{"key", "export"}, strings{"key", "export", "../device"},
        strings{"key", "export", "device", "--force"}, strings{"cert", "export"},
        strings{"cert", "export", "device", "../cert"}}) {
    result done = test.pkictl(arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

TEST(PkictlKeyExport, FileThatCannotBeWrittenIsNamed) {
  export_test test;
  result done = test.pkictl({"key", "export", "device", "-o", test.home / "absent/out.pem"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot write " + (test.home / "absent/out.pem") +
                          ": No such file or directory\n");
}

TEST(PkictlKeyExport, OutputThatIsFullIsTold) {
  export_test test;
  result done = tool_test::run(
      "/bin/sh",
      {"-c", "exec '" TOOL_DIR "/pkictl' key export device --state '" + test.dir + "' >/dev/full"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(
      done.err,
      "pkictl: cannot write to standard output: No space left on device; all else was done\n");
}

TEST(PkictlCertExport, GivesTheCertificateThatWasIssued) {
  device test;
  test.prepare();
  test.enroll();
  pkictl::saved_state state = tool_test::decoded(tool_test::read_file(test.state_file()));
  X509 *cert = state.keys["device"].certs["cert"].get();
  result done = test.pkictl({"cert", "export", "device", "cert"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, tools::cert_pem(cert));
  EXPECT_EQ(test.pkictl({"cert", "export", "device"}).out, done.out);
  json printed = json::parse(test.pkictl({"cert", "export", "device", "cert", "--json"}).out);
  EXPECT_EQ(printed["key"], "device");
  EXPECT_EQ(printed["label"], "cert");
  EXPECT_EQ(printed["certificate"]["subject"], "CN=device, O=Example");
  EXPECT_EQ(printed["pem"], tools::cert_pem(cert));
  EXPECT_EQ(mode_of(test.cert_file()), 0644u);
}

TEST(PkictlCertExport, CertificateHasToBeThere) {
  export_test test;
  result done = test.pkictl({"cert", "export", "device", "cert"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: the key device has no certificate cert in " + test.dir +
                          "; see 'pkictl key list --state " + test.dir + "'\n");
}

}  // namespace
