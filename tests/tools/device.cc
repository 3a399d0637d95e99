#include "device.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "lab_fixture.h"

namespace tool_test {

const char *const device_secret = "tell-nobody-0815";

device::device(const strings &lab_options) {
  home_.write("serialnumber", "SN-0815\n");
  home_.write("secret", device_secret);
  strings options = {"--scep-save", home_ / "messages"};
  options.insert(options.end(), lab_options.begin(), lab_options.end());
  lab_ = std::make_unique<lab_process>(lab_file(""), options);
}

std::string device::lab_file(const std::string &name) const {
  std::string path = the_lab().home / "lab";
  return name.empty() ? path : path + "/" + name;
}

strings device::environment(const strings &more) const {
  strings entries = {"BOARD_INFO_DIR=" + (home_ / "")};
  entries.insert(entries.end(), more.begin(), more.end());
  return entries;
}

result device::pkictl(strings arguments, const strings &more) const {
  arguments.push_back("--state");
  arguments.push_back(state());
  result done = tool_test::pkictl(arguments, environment(more));
  EXPECT_EQ((done.out + done.err).find(device_secret), std::string::npos);
  return done;
}

void device::prepare(const strings &key_options) const {
  result done = pkictl({"-v", "provision", lab_->url() + "/ca-info", "--doc-key",
                        lab_file("doc-key.pub.pem"), "--label", "office"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  strings generate = {"key", "generate", "device"};
  generate.insert(generate.end(), key_options.begin(), key_options.end());
  done = pkictl(generate);
  ASSERT_EQ(done.exit_code, 0) << done.err;
}

strings device::enroll_arguments(const strings &options) const {
  strings arguments = {
      "enroll", "--ca", "office", "--key", "device", "--subject", "CN=device, O=Example"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return arguments;
}

result device::enroll(const strings &options, const strings &more) const {
  return pkictl(enroll_arguments(options), more);
}

std::string device::key_file() const {
  std::string file = home_ / "device-key.pem";
  result done = pkictl({"key", "export", "device", "-o", file, "--force"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  return file;
}

std::string device::cert_file(const std::string &label) const {
  std::string file = home_ / (label + ".pem");
  result done = pkictl({"cert", "export", "device", label, "-o", file, "--force"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  return file;
}

strings device::certs() const {
  strings labels;
  nlohmann::json listed = nlohmann::json::parse(pkictl({"key", "list", "--json"}).out);
  for (const nlohmann::json &cert : listed["keys"][0]["certs"])
    labels.push_back(cert["label"]);
  return labels;
}

std::vector<std::string> device::messages() const {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(home_ / "messages"))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

mode_t mode_of(const std::string &path) {
  struct stat info = {};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

bool exists(const std::string &path) {
  return std::filesystem::exists(path);
}

}  // namespace tool_test
