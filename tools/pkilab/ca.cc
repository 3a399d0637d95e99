#include "tools/pkilab/ca.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkilab/ca_certs.h"

namespace pkilab {

namespace {

constexpr mode_t private_mode = 0600;
constexpr mode_t public_mode = 0644;

// Two labs that start in one folder must not each make half of the keys.
class folder_lock {
 public:
  explicit folder_lock(const std::string &folder) {
    tools::make_folders(folder);
    fd_ = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0 || flock(fd_, LOCK_EX) != 0) {
      std::string reason = strerror(errno);
      if (fd_ >= 0)
        close(fd_);
      throw tools::failure("cannot use the folder " + folder + ": " + reason);
    }
  }
  ~folder_lock() { close(fd_); }
  folder_lock(const folder_lock &) = delete;
  folder_lock &operator=(const folder_lock &) = delete;

 private:
  int fd_ = -1;
};

[[noreturn]] void complain_of_mismatch(const std::string &path, const std::string &key_path) {
  throw tools::failure(path + " does not belong to " + key_path +
                       "; remove it, and it is made anew");
}

}  // namespace

ca::ca(const std::string &folder, int key_bits) : folder_(folder), key_bits_(key_bits) {
  folder_lock lock(folder_);
  load_or_make_document_key();
  root_ = load_or_make_pair("root", "pkilab root CA", nullptr);
  issuing_ = load_or_make_pair("issuing", "pkilab issuing CA", nullptr);
  additional_ = load_or_make_pair("additional", "pkilab additional CA", &root_);
}

std::vector<std::string> ca::file_names() {
  std::vector<std::string> names = {"doc-key.pem", "doc-key.pub.pem"};
  for (const char *pair : {"root", "issuing", "additional"})
    for (const char *half : {"-key.pem", "-cert.pem"})
      names.push_back(std::string(pair) + half);
  return names;
}

tools::key_ptr ca::load_or_make_key(const std::string &name) const {
  std::string file = path(name);
  if (tools::file_exists(file))
    return tools::load_private_key(file);
  tools::key_ptr key = make_rsa_key(key_bits_);
  tools::write_file(file, tools::private_pem(key.get()), private_mode);
  return key;
}

void ca::load_or_make_document_key() {
  document_key_ = load_or_make_key("doc-key.pem");
  std::string file = path("doc-key.pub.pem");
  if (!tools::file_exists(file))
    tools::write_file(file, tools::public_pem(document_key_.get()), public_mode);
  tools::key_ptr published = tools::load_public_key(file);
  if (EVP_PKEY_eq(published.get(), document_key_.get()) != 1)
    complain_of_mismatch(file, path("doc-key.pem"));
}

ca::pair ca::load_or_make_pair(const std::string &name, const std::string &common_name,
                               const pair *signer) const {
  pair made;
  made.key = load_or_make_key(name + "-key.pem");
  std::string file = path(name + "-cert.pem");
  if (!tools::file_exists(file)) {
    tools::cert_ptr cert =
        make_ca_cert(made.key.get(), common_name, signer ? signer->cert.get() : nullptr,
                     signer ? signer->key.get() : nullptr);
    tools::write_file(file, tools::cert_pem(cert.get()), public_mode);
  }
  made.cert = tools::load_certificate(file);
  if (EVP_PKEY_eq(X509_get0_pubkey(made.cert.get()), made.key.get()) != 1)
    complain_of_mismatch(file, path(name + "-key.pem"));
  return made;
}

const ca::pair *ca::find(const std::string &name) const {
  for (const pair *own : pairs())
    if (name_of(*own) == name)
      return own;
  return nullptr;
}

std::string ca::name_of(const pair &own) const {
  if (&own == &root_)
    return "root";
  return &own == &issuing_ ? "issuing" : "additional";
}

tools::key_ptr ca::make_key() const {
  return make_rsa_key(key_bits_);
}

EVP_PKEY *ca::stranger_key() const {
  std::call_once(stranger_made_, [this] { stranger_key_ = make_key(); });
  return stranger_key_.get();
}

}  // namespace pkilab
