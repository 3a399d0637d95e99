// Certificates one of which may have signed a CRL or an OCSP response.
#ifndef PKI_VERIFIER_SIGNER_CANDIDATES_H
#define PKI_VERIFIER_SIGNER_CANDIDATES_H

#include <algorithm>
#include <iterator>

#include "common/limits.h"
#include "common/ossl_ptr.h"
#include "pki/found_certs.h"
#include "verifier/cert_verifier/internal.h"

namespace pki {

// Did a certificate's key make the signature? Unfit: it need not be tried.
enum class authorship : unsigned char { own, foreign, unfit, no_memory };

struct signer_candidates {
  certs_ptr certs;
  index_range collected;                // of `certs`: what peers have sent at any time
  int first_sent = 0;                   // of `certs`: from here on, what is in none of our lists
  X509 *known[3] = {};                  // what the host or the chain stands for; may be null
  const STACK_OF(X509) * sent[2] = {};  // what came along this time; may be null
};

inline bool holds_cert(const STACK_OF(X509) * certs, X509 *cert) {
  for (int i = 0; i < sk_X509_num(certs); i++)
    if (is_same_cert(sk_X509_value(certs, i), cert))
      return true;
  return false;
}

// Drops the candidates that did not make the signature, and leaves the others in their order. Peers
// can send any number of certificates of any name, with keys that take long. So of what came along,
// and of what came earlier, the latest first, only some that did not make it are tried.
template <class Check>
class signer_trial {
 public:
  signer_trial(const signer_candidates &candidates, Check check)
      : from_(candidates), certs_(candidates.certs.get()), check_(check) {}

  // False: out of memory.
  [[nodiscard]] bool run() {
    bool done = try_all(0, from_.collected.begin) &&
                try_all(from_.collected.end, from_.first_sent) && try_known() && try_sent() &&
                try_met();
    drop_marked();
    return done;
  }

 private:
  [[nodiscard]] bool try_all(int begin, int end) {
    for (int i = begin; i < end; i++)
      if (!try_one(i))
        return false;
    return true;
  }

  [[nodiscard]] bool try_known() {
    for (int i = from_.collected.begin; i < from_.collected.end; i++)
      if (is_known(i) && !try_one(i))
        return false;
    return true;
  }

  [[nodiscard]] bool try_sent() {
    foreign_ = 0;
    for (int i = from_.collected.begin; i < sk_X509_num(certs_); i++) {
      bool is_listed = i >= from_.collected.end && i < from_.first_sent;
      if (!is_listed && is_sent(i) && !try_one_of_many(i))
        return false;
    }
    return true;
  }

  [[nodiscard]] bool try_met() {
    foreign_ = 0;
    for (int i = from_.collected.end - 1; i >= from_.collected.begin; i--)
      if (!is_known(i) && !is_sent(i) && !try_one_of_many(i))
        return false;
    return true;
  }

  // Places whose certificate was dropped are neither.
  bool is_known(int index) const {
    X509 *cert = sk_X509_value(certs_, index);
    return cert && std::any_of(std::begin(from_.known), std::end(from_.known),
                               [&](X509 *each) { return is_same_cert(each, cert); });
  }
  bool is_sent(int index) const {
    X509 *cert = sk_X509_value(certs_, index);
    return cert && !is_known(index) &&
           std::any_of(std::begin(from_.sent), std::end(from_.sent),
                       [&](const STACK_OF(X509) * each) { return holds_cert(each, cert); });
  }

  [[nodiscard]] bool try_one_of_many(int index) {
    if (foreign_ < max_foreign_signers)
      return try_one(index);
    drop(index);
    return true;
  }

  [[nodiscard]] bool try_one(int index) {
    X509 *cert = sk_X509_value(certs_, index);
    authorship found = cert ? check_(cert) : authorship::unfit;
    if (found != authorship::own)
      drop(index);
    foreign_ += found == authorship::foreign;
    return found != authorship::no_memory;
  }

  // Places stay until all is done.
  void drop(int index) {
    X509_free(sk_X509_value(certs_, index));
    sk_X509_set(certs_, index, nullptr);
  }
  void drop_marked() {
    for (int i = sk_X509_num(certs_) - 1; i >= 0; i--)
      if (!sk_X509_value(certs_, i))
        sk_X509_delete(certs_, i);
  }

  const signer_candidates &from_;
  STACK_OF(X509) * certs_;
  Check check_;
  int foreign_ = 0;
};

}  // namespace pki

#endif
