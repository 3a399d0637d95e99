// What the tool keeps between calls.
#ifndef TOOLS_PKICTL_STATE_H
#define TOOLS_PKICTL_STATE_H

#include <functional>
#include <string>

#include "tools/pkictl/state_format.h"

namespace CLI {
class App;
}

namespace pkictl {

/*
 * A folder with the file "state" (mode 0600; its form is in state_format.h). The file is replaced
 * as a whole, so that a reader needs no lock; writers wait for each other at the file "state.lock".
 * A file that cannot be read stays as it is, whatever the command, and the failure names it.
 * Everything throws tools::failure, and usage_failure for a label that is none.
 */
class state_folder {
 public:
  // Can the folder be told? Not without --state where there is no home.
  static bool is_known(const std::string &given);

  // The folder for --state; for "" pkictl in $XDG_STATE_HOME or in ~/.local/state. It is made when
  // something is saved. What is there and is no folder is a failure.
  explicit state_folder(const std::string &given);

  // The same for whoever only reads, to whom a folder that was named and is not there is a failure:
  // it sends to the one that `maker` ("provision") was given.
  static state_folder to_read(const std::string &given, const std::string &maker);

  const std::string &folder() const { return folder_; }
  std::string file() const;
  // A command as a person is to type it, with --state where that was given: 'pkictl key list'
  std::string command(const std::string &words) const;

  // All that is kept; nothing where there is no file.
  saved_state load() const;

  // Changes what is kept: what `change` makes of it is saved, unless it throws. What was loaded
  // before may be out of date by then; `change` has to look again.
  void update(const std::function<void(saved_state *)> &change) const;

  // What is kept under a label. The failure says how to get it.
  saved_ca &ca_in(saved_state *kept, const std::string &label) const;
  saved_key &key_in(saved_state *kept, const std::string &label) const;
  X509 *cert_in(saved_state *kept, const std::string &key, const std::string &cert) const;

 private:
  bool is_named_;
  std::string folder_;
};

// Adds --state to a command.
void add_state_option(CLI::App *command, std::string *state);

// For the help of commands that have it.
extern const char *const state_footer;

// Throws usage_failure unless `label` is_label.
void check_label(const std::string &what, const std::string &label);

}  // namespace pkictl

#endif
