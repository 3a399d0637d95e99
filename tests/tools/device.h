// A device that a test enrolls: its board, its state, and the lab that it deals with.
#ifndef TESTS_TOOLS_DEVICE_H
#define TESTS_TOOLS_DEVICE_H

#include <sys/types.h>

#include <memory>

#include "run_tool.h"

namespace tool_test {

// What every output, log and message of the tools is searched for.
extern const char *const device_secret;

class device {
 public:
  // Starts a pkilab process with these options, and keeps its messages in messages().
  explicit device(const strings &lab_options = {});

  // pkictl with the device's board; --state is added behind the arguments.
  result pkictl(strings arguments, const strings &environment = {}) const;
  strings environment(const strings &more = {}) const;

  // Provisions the CA "office" and makes the key "device".
  void prepare(const strings &key_options = {"--bits", "1024"}) const;
  // pkictl enroll for that key, under CN=device, O=Example.
  result enroll(const strings &options = {}, const strings &environment = {}) const;
  strings enroll_arguments(const strings &options = {}) const;

  std::string state() const { return home_ / "state"; }
  std::string state_file() const { return home_ / "state/state"; }
  // What pkictl has kept, exported into a file: the key "device", and a certificate for it.
  std::string key_file() const;
  std::string cert_file(const std::string &label = "cert") const;
  // The labels of those certificates.
  strings certs() const;
  // The messages that the lab saved, by file name.
  std::vector<std::string> messages() const;
  std::string message(const std::string &name) const { return home_ / ("messages/" + name); }
  std::string file(const std::string &name) const { return home_ / name; }
  const folder &home() const { return home_; }
  lab_process &lab() { return *lab_; }
  // A file of the lab's keys and certificates.
  std::string lab_file(const std::string &name) const;

 private:
  folder home_;
  std::unique_ptr<lab_process> lab_;
};

mode_t mode_of(const std::string &path);
bool exists(const std::string &path);

}  // namespace tool_test

#endif
