#include "tools/pkictl/state_format.h"

#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/err.h>

#include <climits>
#include <memory>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/state_records.h"

namespace pkictl {

namespace {

constexpr size_t max_label_length = 100;
static_assert(foreign_content == PKI_INVALID_ARGS);

template <class T>
void push(STACK **list, std::unique_ptr<T> record) {
  if (!*list)
    *list = OPENSSL_sk_new_null();
  tools::require_memory(*list && OPENSSL_sk_push(*list, record.get()) > 0);
  (void)record.release();
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the list owns it now

EVP_PKEY *share(const tools::key_ptr &key) {
  tools::require_memory(EVP_PKEY_up_ref(key.get()) == 1);
  return key.get();
}

template <class T>
std::unique_ptr<T> labelled(const std::string &label) {
  auto record = std::make_unique<T>();
  record->label = pki_strdup(label.c_str());
  tools::require_memory(record->label != nullptr);
  return record;
}

std::unique_ptr<ca_record> record_of(const std::string &label, const saved_ca &ca) {
  auto record = labelled<ca_record>(label);
  record->url = ca.url;
  record->document = ca.document;
  record->doc_key = share(ca.doc_key);
  return record;
}

std::unique_ptr<key_record> record_of(const std::string &label, const saved_key &key) {
  auto record = labelled<key_record>(label);
  record->pair = share(key.pair);
  for (const auto &[cert_label, cert] : key.certs) {
    auto cert_of_key = labelled<cert_record>(cert_label);
    cert_of_key->der = tools::cert_der(cert.get());
    push(&record->certs, std::move(cert_of_key));
  }
  return record;
}

std::unique_ptr<state_record> record_of(const saved_state &state) {
  auto record = std::make_unique<state_record>();
  for (const auto &[label, ca] : state.cas)
    push(&record->cas, record_of(label, ca));
  for (const auto &[label, key] : state.keys)
    push(&record->keys, record_of(label, key));
  return record;
}

tools::cert_ptr decode_cert(const std::string &der) {
  const auto *at = reinterpret_cast<const unsigned char *>(der.data());
  const unsigned char *end = at + der.size();
  tools::cert_ptr cert(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  return at == end ? std::move(cert) : nullptr;
}

// A label that is none, or is there already, is null. What is wrong with the rest is the caller's
// to see.
template <class Saved>
Saved *entry_for(const char *label, std::map<std::string, Saved> *entries) {
  if (!label || !is_label(label))
    return nullptr;
  auto [entry, is_new] = entries->try_emplace(label);
  return is_new ? &entry->second : nullptr;
}

bool take(ca_record *record, saved_state *state) {
  saved_ca *ca = entry_for(record->label, &state->cas);
  if (!ca || record->url.empty() || record->document.empty() || !record->doc_key)
    return false;
  ca->url = std::move(record->url);
  ca->document = std::move(record->document);
  ca->doc_key.reset(std::exchange(record->doc_key, nullptr));
  return true;
}

bool take_cert(const cert_record &record, saved_key *key) {
  tools::cert_ptr *entry = entry_for(record.label, &key->certs);
  tools::cert_ptr cert = decode_cert(record.der);
  if (!entry || !cert || EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key->pair.get()) != 1)
    return false;
  *entry = std::move(cert);
  return true;
}

bool take(key_record *record, saved_state *state) {
  saved_key *key = entry_for(record->label, &state->keys);
  if (!key || !record->pair)
    return false;
  key->pair.reset(std::exchange(record->pair, nullptr));
  for (int i = 0; i < OPENSSL_sk_num(record->certs); i++)
    if (!take_cert(*static_cast<cert_record *>(OPENSSL_sk_value(record->certs, i)), key))
      return false;
  return true;
}

template <class T>
bool take_all(const STACK *records, saved_state *state) {
  for (int i = 0; i < OPENSSL_sk_num(records); i++)
    if (!take(static_cast<T *>(OPENSSL_sk_value(records, i)), state))
      return false;
  return true;
}

}  // namespace

const std::array<const char *, state_tag_count> state_tag_names = {
    "EOD",        "STATE_ENVELOPE",    "DIGEST",       "STATE_START", "STATE_END", "CAS_START",
    "CAS_END",    "CA_START",          "CA_END",       "KEYS_START",  "KEYS_END",  "KEY_START",
    "KEY_END",    "CERTS_START",       "CERTS_END",    "CERT_START",  "CERT_END",  "LABEL",
    "URL_START",  "DOCUMENT_START",    "DOCUMENT_KEY", "PRIVATE_KEY", "DER_START", "CHUNK",
    "OCTETS_END", "PRIVATE_KEY_LENGTH"};

bool is_label(const std::string &text) {
  static const std::string first = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  static const std::string further = first + "._-@+";
  return !text.empty() && text.size() <= max_label_length &&
         first.find(text[0]) != std::string::npos &&
         text.find_first_not_of(further) == std::string::npos;
}

secret_octets encode_state(const saved_state &state) {
  std::unique_ptr<state_record> record = record_of(state);
  BIO *made = nullptr;
  require_ok("cannot write the state", new_write_buffer(&made, 0));
  tools::bio_ptr bio(made);
  require_ok("cannot write the state", write_state(bio.get(), record.get()));
  unsigned char *octets = nullptr;
  long length = BIO_get_mem_data(bio.get(), &octets);
  return secret_octets(octets, octets + length);
}

int decode_state(const secret_octets &octets, saved_state *state) {
  if (octets.size() > INT_MAX)
    return PKI_OUT_OF_MEMORY;
  // BIO_new_mem_buf takes no buffer without octets.
  static const unsigned char nothing = 0;
  tools::bio_ptr bio(
      BIO_new_mem_buf(octets.empty() ? &nothing : octets.data(), static_cast<int>(octets.size())));
  if (!bio)
    return PKI_OUT_OF_MEMORY;
  state_record *read = nullptr;
  int error = read_state(bio.get(), &read);
  std::unique_ptr<state_record> record(read);
  ERR_clear_error();
  if (error)
    return error;
  saved_state taken;
  if (!take_all<ca_record>(record->cas, &taken) || !take_all<key_record>(record->keys, &taken))
    return foreign_content;
  *state = std::move(taken);
  return PKI_OK;
}

}  // namespace pkictl
