#include "tools/pkictl/state.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/state_file.h"

namespace pkictl {

namespace {

// "" where there is no home.
std::string default_folder() {
  const char *state = getenv("XDG_STATE_HOME");
  if (state && state[0] == '/')
    return std::string(state) + "/pkictl";
  const char *home = getenv("HOME");
  if (home && home[0] == '/')
    return std::string(home) + "/.local/state/pkictl";
  return "";
}

bool is_absent(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

bool is_other_than_folder(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

// As a shell takes it for one word.
std::string shell_word(const std::string &text) {
  std::string word;
  for (char octet : text) {
    if (isprint(static_cast<unsigned char>(octet)) && !isalnum(static_cast<unsigned char>(octet)) &&
        !strchr("/._-+@%,:=", octet))
      word += '\\';
    word += octet;
  }
  return word;
}

template <class Entries>
typename Entries::mapped_type *find(Entries *entries, const std::string &label) {
  auto entry = entries->find(label);
  return entry == entries->end() ? nullptr : &entry->second;
}

}  // namespace

const char *const state_footer =
    "Keys (unencrypted), certificates and CAs are kept in the file \"state\" (mode\n"
    "0600) in the folder --state, by default $XDG_STATE_HOME/pkictl (where that is\n"
    "an absolute path) or ~/.local/state/pkictl.\n\n";

void check_label(const std::string &what, const std::string &label) {
  if (!is_label(label))
    throw tools::usage_failure(what + " \"" + label +
                               "\" is no label; take letters and digits, and . _ - @ + behind the"
                               " first, at most 100");
}

void add_state_option(CLI::App *command, std::string *state) {
  command->add_option("--state", *state, "Folder of what the tool keeps between calls")
      ->type_name("DIR")
      ->check([](const std::string &folder) {
        return folder.empty()
                   ? std::string("name a folder, or leave --state out for the default one")
                   : std::string();
      });
}

state_folder::state_folder(const std::string &given)
    : is_named_(!given.empty()), folder_(given.empty() ? default_folder() : given) {
  if (folder_.empty())
    throw tools::failure("there is no home folder to keep the state in; give --state DIR");
  while (folder_.size() > 1 && folder_.ends_with('/'))
    folder_.pop_back();
  if (is_other_than_folder(folder_))
    throw tools::failure(folder_ + " is no folder; " +
                         (is_named_ ? "give --state the folder that the file \"state\" is in"
                                    : "move it away, or give --state DIR"));
}

state_folder state_folder::to_read(const std::string &given, const std::string &maker) {
  state_folder state(given);
  if (state.is_named_ && is_absent(state.folder_))
    throw tools::failure("there is no folder " + state.folder_ + "; name the one that 'pkictl " +
                         maker + "' was given");
  return state;
}

bool state_folder::is_known(const std::string &given) {
  return !given.empty() || !default_folder().empty();
}

std::string state_folder::command(const std::string &words) const {
  return "'pkictl " + words + (is_named_ ? " --state " + shell_word(folder_) : "") + "'";
}

std::string state_folder::file() const {
  return folder_ + "/state";
}

saved_state state_folder::load() const {
  saved_state kept;
  secret_octets octets;
  if (!read_state_file(file(), &octets))
    return kept;
  int code = decode_state(octets, &kept);
  if (code == 0)
    return kept;
  std::string text = file() + " is damaged, or no state of this pkictl";
  std::string advice = "; put a good copy in its place, or move it away to begin anew";
  if (code == foreign_content)  // the code would say that an argument is wrong
    throw tools::failure(text + advice);
  throw tools::library_failure(code, text + ": " + code_text_and_number(code) + advice);
}

void state_folder::update(const std::function<void(saved_state *)> &change) const {
  state_lock lock(folder_);
  saved_state kept = load();
  change(&kept);
  secret_octets octets = encode_state(kept);
  if (octets.size() > tools::max_file_bytes)
    throw tools::failure(file() + " would be larger than 64 MiB; use another folder");
  replace_state_file(file(), octets);
}

saved_ca &state_folder::ca_in(saved_state *kept, const std::string &label) const {
  check_label("the CA", label);
  if (saved_ca *ca = find(&kept->cas, label))
    return *ca;
  throw tools::failure("there is no CA " + label + " in " + folder_ + "; provision it with " +
                       command("provision URL --doc-key KEY --label " + label));
}

saved_key &state_folder::key_in(saved_state *kept, const std::string &label) const {
  check_label("the key", label);
  if (saved_key *key = find(&kept->keys, label))
    return *key;
  throw tools::failure("there is no key " + label + " in " + folder_ + "; see " +
                       command("key list") + ", or make it with " +
                       command("key generate " + label));
}

X509 *state_folder::cert_in(saved_state *kept, const std::string &key,
                            const std::string &cert) const {
  saved_key &holder = key_in(kept, key);
  check_label("the certificate", cert);
  if (const tools::cert_ptr *found = find(&holder.certs, cert))
    return found->get();
  throw tools::failure("the key " + key + " has no certificate " + cert + " in " + folder_ +
                       "; see " + command("key list"));
}

}  // namespace pkictl
