#include "ksba_crl.h"

#include <ksba.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

struct source {
  const std::string *octets;
  size_t at;
};

int read_some(void *from, char *buffer, size_t count, size_t *read) {
  auto *octets = static_cast<source *>(from);
  *read = std::min(count, octets->octets->size() - octets->at);
  if (!buffer || *read == 0)
    return -1;
  std::memcpy(buffer, octets->octets->data() + octets->at, *read);
  octets->at += *read;
  return 0;
}

void digest_some(void *digest, const void *data, size_t size) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX *>(digest), data, size);
}

// An S-expression: "(20:" and the octets.
bool is_serial(ksba_const_sexp_t item, const std::string &serial) {
  const auto *text = reinterpret_cast<const char *>(item);
  char *end = nullptr;
  size_t size = std::strtoul(text + 1, &end, 10);
  return size == serial.size() && std::memcmp(end + 1, serial.data(), size) == 0;
}

bool look_at_item(ksba_crl_t crl, const std::string &serial, bool *listed) {
  ksba_sexp_t item = nullptr;
  ksba_isotime_t date;
  ksba_crl_reason_t reason;
  if (ksba_crl_get_item(crl, &item, date, &reason) != 0)
    return false;
  *listed |= is_serial(item, serial);
  ksba_free(item);
  return true;
}

bool parse(ksba_crl_t crl, const std::string &serial, bool *listed) {
  ksba_stop_reason_t stop = KSBA_SR_RUNNING;
  while (ksba_crl_parse(crl, &stop) == 0) {
    if (stop == KSBA_SR_READY)
      return true;
    if (stop == KSBA_SR_GOT_ITEM && !look_at_item(crl, serial, listed))
      return false;
  }
  return false;
}

// Takes the reader.
bool parse_and_digest(ksba_reader_t reader, const std::string &serial, bool *listed) {
  *listed = false;
  ksba_crl_t crl = nullptr;
  EVP_MD_CTX *digest = EVP_MD_CTX_new();
  bool good = EVP_DigestInit_ex(digest, EVP_sha256(), nullptr) == 1 && ksba_crl_new(&crl) == 0 &&
              ksba_crl_set_reader(crl, reader) == 0;
  if (good) {
    ksba_crl_set_hash_function(crl, digest_some, digest);
    unsigned char value[EVP_MAX_MD_SIZE];
    good = parse(crl, serial, listed) && EVP_DigestFinal_ex(digest, value, nullptr) == 1;
  }
  ksba_crl_release(crl);
  ksba_reader_release(reader);
  EVP_MD_CTX_free(digest);
  return good;
}

}  // namespace

bool have_libksba() {
  return true;
}

bool libksba_reads(std::FILE *der, const std::string &serial, bool *listed) {
  ksba_reader_t reader = nullptr;
  if (ksba_reader_new(&reader) != 0 || ksba_reader_set_file(reader, der) != 0)
    return false;
  return parse_and_digest(reader, serial, listed);
}

bool libksba_reads(const std::string &der, const std::string &serial, bool *listed) {
  source octets = {&der, 0};
  ksba_reader_t reader = nullptr;
  if (ksba_reader_new(&reader) != 0 || ksba_reader_set_cb(reader, read_some, &octets) != 0)
    return false;
  return parse_and_digest(reader, serial, listed);
}

}  // namespace bench
