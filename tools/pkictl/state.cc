#include "tools/pkictl/state.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"

namespace pkictl {

namespace {

constexpr size_t max_label_length = 100;
constexpr mode_t private_mode = 0600;
constexpr const char *suffix = ".pem";
constexpr const char *url_line = "URL: ";

bool is_label(const std::string &text) {
  static const std::string first = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  static const std::string further = first + "._-@+";
  return !text.empty() && text.size() <= max_label_length &&
         first.find(text[0]) != std::string::npos &&
         text.find_first_not_of(further) == std::string::npos;
}

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

// The labels of the PEM files in a folder; other files are somebody else's.
std::vector<std::string> labels_in(const std::string &folder) {
  std::vector<std::string> labels;
  for (const std::string &name : tools::list_folder(folder)) {
    std::string label = name.ends_with(suffix) ? name.substr(0, name.size() - 4) : "";
    if (is_label(label))
      labels.push_back(label);
  }
  return labels;
}

void remove_file(const std::string &path) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw tools::failure("cannot remove " + path + ": " + strerror(errno));
}

// Makes the renaming or removal of files in a folder last.
void sync_folder(const std::string &folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return;
  fsync(fd);
  close(fd);
}

void save(const std::string &path, const std::string &text) {
  std::string folder = path.substr(0, path.rfind('/'));
  tools::make_folders(folder);
  tools::write_file(path, text, private_mode);
  sync_folder(folder);
}

std::string pem_block(const char *name, const std::string &octets) {
  tools::bio_ptr bio(BIO_new(BIO_s_mem()));
  if (!bio ||
      PEM_write_bio(bio.get(), name, "", reinterpret_cast<const unsigned char *>(octets.data()),
                    static_cast<long>(octets.size())) <= 0)
    throw tools::failure("cannot encode as PEM: " + tools::openssl_reason());
  char *text = nullptr;
  long length = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<size_t>(length));
}

// The octets of the next block, which has to have that name; "" when it is not there.
std::string read_pem_block(BIO *bio, const char *wanted) {
  char *name = nullptr;
  char *header = nullptr;
  unsigned char *data = nullptr;
  long length = 0;
  bool found = PEM_read_bio(bio, &name, &header, &data, &length) == 1;
  std::string octets;
  if (found && strcmp(name, wanted) == 0)
    octets.assign(data, data + length);
  OPENSSL_free(name);
  OPENSSL_free(header);
  OPENSSL_free(data);
  ERR_clear_error();
  return octets;
}

tools::key_ptr decode_public_key(const std::string &der) {
  const auto *at = reinterpret_cast<const unsigned char *>(der.data());
  tools::key_ptr key(d2i_PUBKEY(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  return key;
}

}  // namespace

const char *const state_footer =
    "Keys, certificates and CAs are kept as PEM files (mode 0600) in the folder --state, by\n"
    "default $XDG_STATE_HOME/pkictl or ~/.local/state/pkictl.\n\n";

void check_label(const std::string &what, const std::string &label) {
  if (!is_label(label))
    throw tools::usage_failure(what + " \"" + label +
                               "\" is no label; take letters and digits, and . _ - @ + behind the"
                               " first, at most 100");
}

void add_state_option(CLI::App *command, std::string *state) {
  command->add_option("--state", *state, "Folder of what the tool keeps between calls")
      ->type_name("DIR");
}

state_folder::state_folder(const std::string &given)
    : folder_(given.empty() ? default_folder() : given) {
  if (folder_.empty())
    throw tools::failure("there is no home folder to keep the state in; give --state DIR");
  while (folder_.size() > 1 && folder_.ends_with('/'))
    folder_.pop_back();
}

bool state_folder::is_known(const std::string &given) {
  return !given.empty() || !default_folder().empty();
}

std::string state_folder::key_file(const std::string &key) const {
  check_label("the key", key);
  return folder_ + "/keys/" + key + suffix;
}

std::string state_folder::cert_file(const std::string &key, const std::string &cert) const {
  check_label("the key", key);
  check_label("the certificate", cert);
  return folder_ + "/certs/" + key + "/" + cert + suffix;
}

std::string state_folder::ca_file(const std::string &ca) const {
  check_label("the CA", ca);
  return folder_ + "/cas/" + ca + suffix;
}

bool state_folder::has_key(const std::string &key) const {
  return tools::file_exists(key_file(key));
}

bool state_folder::has_cert(const std::string &key, const std::string &cert) const {
  return tools::file_exists(cert_file(key, cert));
}

std::vector<std::string> state_folder::keys() const {
  return labels_in(folder_ + "/keys");
}

std::vector<std::string> state_folder::certs(const std::string &key) const {
  check_label("the key", key);
  return labels_in(folder_ + "/certs/" + key);
}

std::vector<std::string> state_folder::cas() const {
  return labels_in(folder_ + "/cas");
}

tools::key_ptr state_folder::load_key(const std::string &key) const {
  if (!has_key(key))
    throw tools::failure("there is no key " + key + " in " + folder_ +
                         "; make it with 'pkictl key generate " + key + "'");
  return tools::load_private_key(key_file(key));
}

tools::cert_ptr state_folder::load_cert(const std::string &key, const std::string &cert) const {
  std::string file = cert_file(key, cert);
  tools::cert_ptr loaded = tools::load_certificate(file);
  tools::key_ptr pair = load_key(key);
  if (EVP_PKEY_eq(X509_get0_pubkey(loaded.get()), pair.get()) != 1)
    throw tools::failure(file + " does not belong to " + key_file(key));
  return loaded;
}

saved_ca state_folder::load_ca(const std::string &ca) const {
  std::string file = ca_file(ca);
  if (!tools::file_exists(file))
    throw tools::failure("there is no CA " + ca + " in " + folder_ +
                         "; provision it with 'pkictl provision URL --label " + ca + "'");
  std::string text = tools::read_file(file);
  tools::bio_ptr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  saved_ca saved;
  if (text.starts_with(url_line))
    saved.url = tools::trim(text.substr(5, text.find('\n') - 5));
  saved.document = read_pem_block(bio.get(), PEM_STRING_PKCS7);
  saved.doc_key = decode_public_key(read_pem_block(bio.get(), PEM_STRING_PUBLIC));
  if (saved.url.empty() || saved.document.empty() || !saved.doc_key)
    throw tools::failure(file + " is damaged; provision the CA again");
  return saved;
}

void state_folder::save_key(const std::string &key, EVP_PKEY *pair) const {
  save(key_file(key), tools::private_pem(pair));
}

void state_folder::save_cert(const std::string &key, const std::string &cert, X509 *issued) const {
  save(cert_file(key, cert), tools::cert_pem(issued));
}

void state_folder::save_ca(const std::string &ca, const saved_ca &saved) const {
  save(ca_file(ca), url_line + saved.url + "\n" + pem_block(PEM_STRING_PKCS7, saved.document) +
                        tools::public_pem(saved.doc_key.get()));
}

// The key goes last: whatever is interrupted, no certificate is left for a later key of its label.
void state_folder::remove_key(const std::string &key) const {
  std::string folder = folder_ + "/certs/" + key;
  for (const std::string &cert : certs(key))
    remove_file(cert_file(key, cert));
  sync_folder(folder);
  rmdir(folder.c_str());  // stays if it holds files of somebody else
  remove_file(key_file(key));
  sync_folder(folder_ + "/keys");
}

}  // namespace pkictl
