// The state as the tables of the marshal stream see it. Only state_format.cc and state_records.cc
// know of it.
#ifndef TOOLS_PKICTL_STATE_RECORDS_H
#define TOOLS_PKICTL_STATE_RECORDS_H

#include <libpki/marshal.h>

#include <cstdlib>
#include <string>

#include "tools/common/ossl.h"

namespace pkictl {

template <class T>
void free_record(void *record) {
  delete static_cast<T *>(record);
}

// Each owns what it points at. Texts and keys are of the types that the library's own functions
// for fields take.
struct cert_record {
  char *label = nullptr;
  std::string der;

  cert_record() = default;
  ~cert_record() { free(label); }
  cert_record(const cert_record &) = delete;
  cert_record &operator=(const cert_record &) = delete;
};

struct key_record {
  char *label = nullptr;
  EVP_PKEY *pair = nullptr;
  STACK *certs = nullptr;  // of cert_record

  key_record() = default;
  ~key_record() {
    free(label);
    EVP_PKEY_free(pair);
    OPENSSL_sk_pop_free(certs, free_record<cert_record>);
  }
  key_record(const key_record &) = delete;
  key_record &operator=(const key_record &) = delete;
};

struct ca_record {
  char *label = nullptr;
  std::string url;
  std::string document;
  EVP_PKEY *doc_key = nullptr;

  ca_record() = default;
  ~ca_record() {
    free(label);
    EVP_PKEY_free(doc_key);
  }
  ca_record(const ca_record &) = delete;
  ca_record &operator=(const ca_record &) = delete;
};

struct state_record {
  STACK *cas = nullptr;   // of ca_record
  STACK *keys = nullptr;  // of key_record

  state_record() = default;
  ~state_record() {
    OPENSSL_sk_pop_free(cas, free_record<ca_record>);
    OPENSSL_sk_pop_free(keys, free_record<key_record>);
  }
  state_record(const state_record &) = delete;
  state_record &operator=(const state_record &) = delete;
};

// Write and read a whole stream with magic, envelope and end. Return 0 or an error code.
int write_state(BIO *bio, state_record *record);
int read_state(BIO *bio, state_record **record);

}  // namespace pkictl

#endif
