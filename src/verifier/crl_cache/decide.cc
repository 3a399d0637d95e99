// The status of a certificate from CRLs (RFC 5280 6.3).
#include <libpki/error.h>
#include <libpki/util.h>
#include <libpki/verify.h>

#include <ctime>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/cert_status.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/trace.h"
#include "verifier/crl_cache/delta.h"
#include "verifier/crl_cache/scope.h"
#include "verifier/crl_cache/signer_trust.h"

namespace pki {

namespace {

// RFC 5280 5.3.1: with reason 8 a delta CRL takes an entry of its base back.
constexpr long remove_from_crl = 8;
// Without nextUpdate, an answer still has to last for the verification that asked.
constexpr time_t brief_seconds = 30;

using crl_infos_ptr = std::unique_ptr<STACK, free_with<free_crl_infos>>;

int list_dist_points(const dist_points_locator &data, crl_infos_ptr *list) {
  list->reset(OPENSSL_sk_new_null());
  int error =
      *list ? cv_copy_dp_to_crli(data.dps, nullptr, 0, list->get(), true, 0) : PKI_OUT_OF_MEMORY;
  if (!error)
    error = cv_copy_dp_to_crli(data.delta_dps, nullptr, 0, list->get(), true, crl_flag_delta);
  if (!error)
    return PKI_OK;
  syslog(log_error, "Failed to copy dp to crl-info: %s",
         pki_strerror(static_cast<unsigned>(error)));
  return log_reasons(error);
}

int list_configured(const crls_locator &data, crl_infos_ptr *list) {
  list->reset(share_crl_infos(data.crls));
  return *list ? PKI_OK : openssl_failure(PKI_OUT_OF_MEMORY);
}

uint32_t reasons_of(const ASN1_BIT_STRING *reasons) {
  return reasons ? zv_cv_get_crl_reasons(reasons) : UINT32_MAX;
}

// RFC 5280 6.3.3 (d). Only who limits nothing speaks for all reasons that there are.
uint32_t interim_reasons(const crl_info *record, const ISSUING_DIST_POINT *idp) {
  const ASN1_BIT_STRING *of_point = record->dist_point ? record->dist_point->reasons : nullptr;
  const ASN1_BIT_STRING *of_crl = idp ? idp->onlysomereasons : nullptr;
  return of_point || of_crl ? reasons_of(of_point) & reasons_of(of_crl) : PKI_ALL_REASONS;
}

// The places that are asked about the certificate, as far as there is room.
void note_sources(STACK *list, crl_question *asked) {
  for (int i = 0; i < OPENSSL_sk_num(list) && asked->source_count < crl_max_sources; i++) {
    const auto *record = static_cast<crl_info *>(OPENSSL_sk_value(list, i));
    crl_source source = cv_crl_source_of(record->url);
    if (source.is_set && (record->flags & crl_flag_delta) == 0)
      asked->sources[asked->source_count++] = source;
  }
}

enum class listing : unsigned char { failed, absent, good, revoked };

struct judged_signer {
  x509_ptr cert;
  bool accepted = false;
};

class crl_walk {
 public:
  crl_walk(const crl_question &asked, STACK *list) : asked_(asked), list_(list) {}

  cert_sts_info *run() {
    for (int position = 0; position < OPENSSL_sk_num(list_) && may_go_on();) {
      const auto *record = static_cast<crl_info *>(OPENSSL_sk_value(list_, position));
      signer_position_ = not_judged;
      if ((record->flags & crl_flag_delta) == 0)
        if (cert_sts_info *answer = ask_record(record))
          return answer;
      // One counter serves both walks: behind a CRL whose signers were gone through, the walk goes
      // on where that one stopped. As the mask only grows, it ends all the same.
      position = (signer_position_ == not_judged ? position : signer_position_) + 1;
    }
    syslog(log_debug,
           "Not enough CRL's found for cert (%s) - reason mask is only %x => cert unknown",
           subject_text(asked_.cert).get(), mask_);
    return nullptr;
  }

 private:
  static constexpr int not_judged = -1;

  // Without memory, a CRL that revokes could be passed over and another one believed.
  bool may_go_on() {
    if (out_of_memory_)
      return false;
    if (fetches_ < crl_max_fetches)
      return true;
    syslog(log_warning, "ignoring CRL's behind the first %d for cert (%s)", crl_max_fetches,
           subject_text(asked_.cert).get());
    return false;
  }

  // Null: go on with the walk.
  cert_sts_info *ask_record(const crl_info *record) {
    trace({PKI_TRACE_CRL, asked_.depth, 0, 0, asked_.cert, record->url, nullptr});
    judged_crl crl;
    listed_ = listing::failed;
    cert_sts_info *answer = judge_record(record, &crl);
    trace_end(crl.got.crl.get());
    return answer;
  }

  cert_sts_info *judge_record(const crl_info *record, judged_crl *crl) {
    if (!get_applicable(record, crl) || !grow_mask(record, *crl) || !find_signer(record, *crl))
      return nullptr;
    keep(*crl);
    return look_up(record, *crl);
  }

  void trace_end(const X509_CRL *crl) const {
    if (!is_traced())
      return;
    int verdict = listed_ == listing::revoked ? PKI_CERT_REVOKED : PKI_CERT_OK;
    trace({PKI_TRACE_CRL_END, asked_.depth, listed_ == listing::failed ? trace_no_answer : verdict,
           0, asked_.cert, nullptr, crl ? X509_CRL_get0_nextUpdate(crl) : nullptr});
  }

  // What a CRL turned out to be. For all but the first two, there may be better than it in the
  // cache.
  enum class fitness : unsigned char { fits, useless, outdated, out_of_scope, not_accepted };

  // CRLs from the cache that do not do are passed over, some of them.
  bool get_applicable(const crl_info *record, judged_crl *crl) {
    int refused = 0;
    for (int place = 0; place < crl_max_cached_places && refused < crl_max_cached_looks; place++) {
      fitness found = get_judged(record, {place, false}, crl);
      if (!crl->got.from_cache || found <= fitness::useless || out_of_memory_)
        return found == fitness::fits;
      if (found == fitness::outdated)
        break;
      refused += found == fitness::not_accepted;
    }
    return get_judged(record, no_cache, crl) == fitness::fits;
  }

  fitness get_judged(const crl_info *record, cache_use use, judged_crl *crl) {
    *crl = judged_crl();
    if (!get_crl(record, use, crl) || !is_base(record, crl->got))
      return fitness::useless;
    crl->is_for_one = is_about_one_issuer(record, *crl);
    // Of a cached one the scope is looked at first: a delta does not change it, and costs a fetch.
    if (crl->got.from_cache && (crl->is_for_one || !is_in_scope(record, *crl)))
      return fitness::out_of_scope;
    if (crl->got.from_cache && !is_signer_accepted_here(record, crl->got))
      return fitness::not_accepted;
    fitness found = bring_up_to_date(record, crl);
    if (found == fitness::fits && !crl->got.from_cache && !is_in_scope(record, *crl))
      return fitness::out_of_scope;
    return found;
  }

  bool is_in_scope(const crl_info *record, const judged_crl &crl) {
    int error = cv_verify_issuer_scope(record, asked_.cert, crl.got.crl.get(), crl.idp.get());
    note(error);
    return error == PKI_OK;
  }

  // A point that is about some reasons says nothing of others.
  bool may_add_reasons(const crl_info *record) const {
    const ASN1_BIT_STRING *of_point = record->dist_point ? record->dist_point->reasons : nullptr;
    return !of_point || (mask_ | reasons_of(of_point)) != mask_;
  }

  bool get_crl(const crl_info *record, cache_use use, judged_crl *crl) {
    if (use.place <= 0)
      fetches_++;
    // Mirrors of what was seen already, and was cached for others or from elsewhere.
    if (!may_add_reasons(record) && cv_is_cached_for_others(record, asked_, use))
      return false;
    int error = cv_get_crl(record, asked_, use, &crl->got);
    note(error);
    return !error && read_scope(crl);
  }

  void note(int error) { out_of_memory_ = out_of_memory_ || error == PKI_OUT_OF_MEMORY; }

  static bool is_base(const crl_info *record, const fetched_crl &got) {
    if (!is_delta_crl(got.crl.get()))
      return true;
    syslog(log_warning, "CRL from '%s' is a delta-CRL, a complete one was expected",
           text_or_null(record->url));
    return false;
  }

  bool read_scope(judged_crl *crl) {
    presence scope =
        read_crl_extension(crl->got.crl.get(), NID_issuing_distribution_point, &crl->idp);
    if (scope < presence::unreadable)
      return true;
    out_of_memory_ = out_of_memory_ || scope == presence::no_memory;
    log_openssl_errors(log_warning);
    return false;
  }

  fitness bring_up_to_date(const crl_info *record, judged_crl *crl) {
    fetched_crl delta;
    int error = cv_find_dcrl(list_, asked_, *crl, &delta, record);
    note(error);
    if (!error)
      return merge(record, crl, &delta) ? fitness::fits : fitness::useless;
    if (error != PKI_NO_ENTRY)
      return fitness::useless;
    error = cv_crl_check_update_dates(crl->got.crl.get());
    note(error);
    if (error == PKI_OUT_OF_MEMORY)
      return fitness::useless;
    if (!error)
      return fitness::fits;
    if (crl->got.from_cache)
      (void)zv_cv_rem_crl_from_cache(crl->got.crl.get());
    return fitness::outdated;
  }

  // The cached CRL is everybody's: the merged one takes its place, unless it lacks entries, or the
  // issuer that was written into it is this certificate's only.
  bool merge(const crl_info *record, judged_crl *crl, fetched_crl *delta) {
    x509_crl_ptr merged;
    const X509_NAME *first_issuer = first_entry_issuer(record, *crl);
    int error = cv_merge_crl_dcrl(crl->got.crl.get(), delta->crl.get(), &merged, first_issuer);
    note(error);
    if (error)
      return false;
    if (crl->got.from_cache && !is_marked_truncated(merged.get())) {
      (void)zv_cv_rem_crl_from_cache(crl->got.crl.get());
      if (X509_CRL_get0_nextUpdate(merged.get()))
        (void)cv_add_crl_to_cache(merged.get(), sk_X509_value(crl->got.signers.get(), 0),
                                  crl->got.accepted, crl->got.accepting_issuer.get(),
                                  crl->got.source);
    }
    crl->got.crl = std::move(merged);
    crl->delta_signers = std::move(delta->signers);
    return true;
  }

  // False when the CRL adds nothing.
  bool grow_mask(const crl_info *record, const judged_crl &crl) {
    uint32_t interim = interim_reasons(record, crl.idp.get());
    uint32_t grown = mask_ | interim;
    if (grown == mask_)
      return false;
    mask_ = grown;
    syslog(log_debug, "interim-reason-mask=%X => reason-mask=%X", interim, mask_);
    return true;
  }

  // The cache is all hosts' stores' and all issuers'. Whom another one vouched for is judged again,
  // once a walk; and nobody by the word about himself.
  bool is_signer_accepted_here(const crl_info *record, const fetched_crl &cached) {
    X509 *signer = sk_X509_value(cached.signers.get(), 0);
    if (cached.accepted == acceptance::everywhere)
      return true;
    if (record->crl_signer)
      return who_vouches(asked_, record, signer) != voucher::nobody;
    if (cached.accepted == acceptance::by_issuer && asked_.issuer_trusted &&
        is_same_cert(cached.accepting_issuer.get(), asked_.issuer) &&
        !may_be_same_cert(signer, asked_.cert))
      return true;
    if (const judged_signer *known = find_judged(signer))
      return known->accepted;
    bool accepted = who_vouches(asked_, record, signer) != voucher::nobody;
    remember(signer, accepted);
    return accepted;
  }

  const judged_signer *find_judged(X509 *signer) const {
    for (int i = 0; i < judged_count_; i++)
      if (is_same_cert(judged_[i].cert.get(), signer))
        return &judged_[i];
    return nullptr;
  }

  // Without room, or a reference, he is judged again.
  void remember(X509 *signer, bool accepted) {
    if (judged_count_ == crl_max_judged_signers || find_judged(signer) || !take_reference(signer))
      return;
    judged_[judged_count_].cert.reset(signer);
    judged_[judged_count_++].accepted = accepted;
  }

  // Leaves the position and the signer that were accepted. A cached CRL's signer was accepted when
  // it came, or before.
  bool find_signer(const crl_info *record, const judged_crl &crl) {
    signer_position_ = 0;
    if (crl.got.from_cache)
      return true;
    STACK_OF(X509) *signers = crl.got.signers.get();
    for (; signer_position_ < sk_X509_num(signers); signer_position_++) {
      accepted_signer_ = sk_X509_value(signers, signer_position_);
      if (!made_delta_too(crl, accepted_signer_))
        continue;
      voucher_ = who_vouches(asked_, record, accepted_signer_);
      if (!record->crl_signer)
        remember(accepted_signer_, voucher_ != voucher::nobody);
      if (voucher_ != voucher::nobody)
        return true;
    }
    syslog(log_info, "no crl-signer certs trusted - ignoring CRL");
    return false;
  }

  void keep(const judged_crl &crl) const {
    X509_CRL *got = crl.got.crl.get();
    if (!crl.got.from_cache && !crl.is_for_one && !is_marked_truncated(got) &&
        X509_CRL_get0_nextUpdate(got)) {
      bool by_issuer = voucher_ == voucher::issuer;
      (void)cv_add_crl_to_cache(got, accepted_signer_,
                                by_issuer ? acceptance::by_issuer : acceptance::each_time,
                                by_issuer ? asked_.issuer : nullptr, crl.got.source);
    }
  }

  // A signer that the configuration names under another name than the certificate's issuer speaks
  // for that issuer, unless its CRL says that entries name theirs.
  const X509_NAME *first_entry_issuer(const crl_info *record, const judged_crl &crl) const {
    bool indirect = crl.idp && crl.idp->indirectCRL > 0;
    if (has_configured_signer(record) && !indirect)
      return X509_get_issuer_name(asked_.cert);
    return X509_CRL_get_issuer(crl.got.crl.get());
  }

  // Nobody else may take it for the list of the name that it bears.
  bool is_about_one_issuer(const crl_info *record, const judged_crl &crl) const {
    return X509_NAME_cmp(first_entry_issuer(record, crl), X509_CRL_get_issuer(crl.got.crl.get())) !=
           0;
  }

  bool is_wanted(const X509_REVOKED *entry, const X509_NAME *issuer) const {
    return ASN1_INTEGER_cmp(X509_REVOKED_get0_serialNumber(entry),
                            X509_get0_serialNumber(asked_.cert)) == 0 &&
           X509_NAME_cmp(issuer, X509_get_issuer_name(asked_.cert)) == 0;
  }

  // RFC 5280 6.3.3 (i). Every entry is looked at: one may inherit its issuer from any before it.
  listing find_listing(const crl_info *record, const judged_crl &crl) {
    const X509_NAME *first = first_entry_issuer(record, crl);
    X509_NAME *named = nullptr;
    listing found = listing::absent;
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(crl.got.crl.get());
    for (int i = 0; found == listing::absent && i < sk_X509_REVOKED_num(entries); i++) {
      const X509_REVOKED *entry = sk_X509_REVOKED_value(entries, i);
      int error = cv_proc_rev_ext(X509_REVOKED_get0_extensions(entry), &named);
      note(log_reasons(error));
      if (error)
        found = listing::failed;
      else if (is_wanted(entry, named ? named : first))
        found = judge_entry(entry);
    }
    X509_NAME_free(named);
    return found;
  }

  listing judge_entry(const X509_REVOKED *entry) const {
    openssl_error_mark no_reason_is_revoked;
    asn1_enumerated_ptr reason(static_cast<ASN1_ENUMERATED *>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    if (reason && ASN1_ENUMERATED_get(reason.get()) == remove_from_crl) {
      syslog(log_debug, "cert (%s) listed as removeFromCRL => cert ok",
             subject_text(asked_.cert).get());
      return listing::good;
    }
    syslog(log_debug, "found cert (%s) in crl => cert revoked", subject_text(asked_.cert).get());
    return listing::revoked;
  }

  // The record is made first: with the answer known, want of memory could lose a "revoked".
  cert_sts_info *look_up(const crl_info *record, const judged_crl &crl) {
    sts_info_ptr answer = make_answer(crl.got.crl.get());
    if (!answer) {
      out_of_memory_ = true;
      log_openssl_errors(log_error);
      return nullptr;
    }
    listed_ = find_listing(record, crl);
    switch (listed_) {
      case listing::failed:
        return nullptr;
      case listing::revoked:
        answer->status = PKI_CERT_REVOKED;
        return answer.release();
      case listing::good:
        return answer.release();
      default:
        break;
    }
    trusted_mask_ |= interim_reasons(record, crl.idp.get());
    if ((trusted_mask_ & PKI_ALL_REASONS) != PKI_ALL_REASONS)
      return nullptr;
    syslog(log_debug, "cert (%s) not in any CRL => cert ok", subject_text(asked_.cert).get());
    return answer.release();
  }

  sts_info_ptr make_answer(const X509_CRL *crl) const {
    const ASN1_TIME *until = X509_CRL_get0_nextUpdate(crl);
    asn1_time_ptr brief(until ? nullptr : ASN1_TIME_set(nullptr, time(nullptr) + brief_seconds));
    if (!until)
      until = brief.get();
    return sts_info_ptr(until ? cv_alloc_cert_sts_info(PKI_CERT_OK, asked_.cert, until) : nullptr);
  }

  const crl_question &asked_;
  STACK *list_;
  uint32_t mask_ = 0;          // reasons that some CRL covers
  uint32_t trusted_mask_ = 0;  // those of CRLs that may be believed and do not list it
  int signer_position_ = not_judged;
  X509 *accepted_signer_ = nullptr;
  voucher voucher_ = voucher::nobody;
  judged_signer judged_[crl_max_judged_signers];
  int judged_count_ = 0;
  listing listed_ = listing::failed;  // what the CRL at hand says
  int fetches_ = 0;
  bool out_of_memory_ = false;
};

}  // namespace

cert_sts_info *zv_cv_crl_get_sts_info(void *data, X509 *cert, X509 *issuer, X509_STORE_CTX *ctx,
                                      unsigned char flag, int depth) {
  int type = *static_cast<int *>(data);
  if (type != locator_dist_points && type != locator_crls) {
    syslog(log_critical, "wrong locator-data type %d encountered in zv_cv_crl_get_sts_info", type);
    return nullptr;
  }
  if (is_logged(log_debug))
    syslog(log_debug, "using CRL's for status of cert (%s)", subject_text(cert).get());
  crl_infos_ptr list;
  int error = type == locator_dist_points
                  ? list_dist_points(*static_cast<dist_points_locator *>(data), &list)
                  : list_configured(*static_cast<crls_locator *>(data), &list);
  if (error)
    return nullptr;
  crl_question asked = {cert, issuer, ctx, flag != 0, depth};
  note_sources(list.get(), &asked);
  return crl_walk(asked, list.get()).run();
}

}  // namespace pki
