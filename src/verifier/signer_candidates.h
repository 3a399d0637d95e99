// Certificates one of which may have signed a CRL or an OCSP response.
#ifndef PKI_VERIFIER_SIGNER_CANDIDATES_H
#define PKI_VERIFIER_SIGNER_CANDIDATES_H

#include <libpki/error.h>

#include <climits>

#include "common/limits.h"
#include "common/ossl_ptr.h"
#include "pki/found_certs.h"

namespace pki {

// Does a certificate fit what the signed object says about its signer?
enum class fitness : unsigned char { fit, unfit, no_memory };

// Did a certificate's key make the signature?
enum class authorship : unsigned char { own, foreign, no_memory };

// Where a candidate comes from; from several places: the first of these.
enum class origin : unsigned char {
  listed,   // the host or the chain stands for it
  message,  // it came with what is signed
  peer,     // it came along with the chain
  met       // it came from somebody earlier
};

struct candidate_place {
  origin from;
  bool is_tried;
  bool has_signed;
};

struct signer_candidates {
  certs_ptr certs;
  malloc_ptr<candidate_place> places;  // one for each of `certs`
  int room = 0;                        // for so many more
};

// For what a search has put into `certs`; `most_sent` may be added beside those that are listed.
// Returns 0; 2.
[[nodiscard]] int make_places(index_range collected, int most_sent, signer_candidates *candidates);
// Does nothing where there is no room left. Returns 0; 2; 49.
[[nodiscard]] int add_candidate(X509 *cert, origin from, signer_candidates *candidates);
// Octet by octet: another encoding is another key.
[[nodiscard]] bool has_same_key(const X509 *one, const X509 *other);

// `cert` may be null.
template <class Fits>
[[nodiscard]] int add_fitting(X509 *cert, origin from, Fits fits, signer_candidates *candidates) {
  fitness found = cert ? fits(cert) : fitness::unfit;
  if (found == fitness::fit)
    return add_candidate(cert, from, candidates);
  return found == fitness::unfit ? PKI_OK : PKI_OUT_OF_MEMORY;
}

// The store may hold another certificate in the place of the one that was sent.
template <class Fits>
[[nodiscard]] int add_sent(const STACK_OF(X509) * sent, int most, origin from, Fits fits,
                           signer_candidates *candidates) {
  for (int i = 0; i < sk_X509_num(sent) && i < most; i++)
    if (int error = add_fitting(sk_X509_value(sent, i), from, fits, candidates))
      return error;
  return PKI_OK;
}

// Drops all but the candidates that made the signature, and leaves those in their order. Peers can
// send any number of certificates of any name, with keys that take long. So a key is tried once,
// and of what came along, and of what came earlier, the latest first, only some keys are.
template <class Fits, class Verify>
class signer_trial {
 public:
  signer_trial(const signer_candidates &candidates, Fits fits, Verify verify)
      : certs_(candidates.certs.get()),
        places_(candidates.places.get()),
        fits_(fits),
        verify_(verify) {}

  // False: out of memory.
  [[nodiscard]] bool run() {
    bool done = try_those(origin::listed, INT_MAX) && try_those(origin::message, max_signer_keys) &&
                try_those(origin::peer, max_signer_keys) && try_met();
    drop_all_but_signers();
    return done;
  }

 private:
  [[nodiscard]] bool try_those(origin from, int most_keys) {
    keys_left_ = most_keys;
    for (int i = 0; i < sk_X509_num(certs_); i++)
      if (places_[i].from == from && !try_one(i))
        return false;
    return true;
  }

  [[nodiscard]] bool try_met() {
    keys_left_ = max_signer_keys;
    for (int i = sk_X509_num(certs_) - 1; i >= 0; i--)
      if (places_[i].from == origin::met && !try_one(i))
        return false;
    return true;
  }

  [[nodiscard]] bool try_one(int index) {
    X509 *cert = sk_X509_value(certs_, index);
    candidate_place *place = &places_[index];
    fitness found = fits_(cert);
    if (found != fitness::fit)
      return found == fitness::unfit;
    if (const candidate_place *twin = tried_with_key_of(cert)) {
      place->has_signed = twin->has_signed;
      return true;
    }
    if (keys_left_ == 0)
      return true;
    keys_left_--;
    authorship author = verify_(cert);
    place->is_tried = true;
    place->has_signed = author == authorship::own;
    return author != authorship::no_memory;
  }

  const candidate_place *tried_with_key_of(const X509 *cert) const {
    for (int i = 0; i < sk_X509_num(certs_); i++)
      if (places_[i].is_tried && has_same_key(sk_X509_value(certs_, i), cert))
        return &places_[i];
    return nullptr;
  }

  // Whoever was not tried has not signed.
  void drop_all_but_signers() {
    for (int i = sk_X509_num(certs_) - 1; i >= 0; i--)
      if (!places_[i].has_signed)
        X509_free(sk_X509_delete(certs_, i));
  }

  STACK_OF(X509) * certs_;
  candidate_place *places_;
  Fits fits_;
  Verify verify_;
  int keys_left_ = 0;
};

}  // namespace pki

#endif
