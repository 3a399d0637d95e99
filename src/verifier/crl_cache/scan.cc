// A look into a CRL, for a person.
#include <libpki/crl.h>
#include <libpki/error.h>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"
#include "verifier/crl_cache/pkcs7_walk.h"

namespace pki {

namespace {

// The caller's octets, counted.
struct counted_source {
  const pki_crl_source *source;
  uint64_t octets;
};

ssize_t read_counted(void *context, void *buffer, size_t size) {
  auto *counted = static_cast<counted_source *>(context);
  ssize_t got = counted->source->read(counted->source->context, buffer, size);
  if (got < 1 || static_cast<size_t>(got) > size)
    return -1;
  counted->octets += static_cast<uint64_t>(got);
  return got;
}

look_for kept_by(const pki_crl_query &query) {
  if (!query.serial)
    return look_for::nothing;
  return query.issuer ? look_for::target : look_for::serial;
}

// The decoder looks for a certificate: one of which only this is known.
int make_target(const pki_crl_query &query, x509_ptr *target) {
  memory_watch memory;
  target->reset(X509_new());
  bool made =
      *target &&
      (!query.serial ||
       X509_set_serialNumber(target->get(), const_cast<ASN1_INTEGER *>(query.serial)) == 1) &&
      (!query.issuer || X509_set_issuer_name(target->get(), query.issuer) == 1);
  return made && !memory.ran_out() ? PKI_OK : PKI_OUT_OF_MEMORY;
}

class crl_scan {
 public:
  crl_scan(const pki_crl_source &source, const pki_crl_query &query)
      : counted_{&source, 0}, query_(query) {}

  int run(pki_crl_report *report) {
    if (counted_.source->length > UINT32_MAX)
      return PKI_ASN1_DECODE_ERROR;
    if (int error = read())
      return error;
    int signature = PKI_CRL_NOT_CHECKED;
    if (int error = check_signature(&signature))
      return error;
    // Nobody is to take it for the whole list.
    if (int error = cv_crl_mark_truncated(crl_.get()))
      return error;
    *report = {crl_.release(), look_.entries, look_.critical_entries, octets_, signature};
    return PKI_OK;
  }

 private:
  int read() {
    x509_ptr target;
    if (int error = make_target(query_, &target))
      return error;
    malloc_ptr<unsigned char> buffer(static_cast<unsigned char *>(allocate(crl_read_bytes)));
    evp_md_ctx_ptr running(EVP_MD_CTX_new());
    digest_.reset(EVP_MD_CTX_new());
    if (!buffer || !running || !digest_)
      return PKI_OUT_OF_MEMORY;
    look_.kept = kept_by(query_);
    crl_request request = {nullptr, digest_.get(), false, target.get(), false, &look_};
    crl_stream stream = {-1,      buffer.get(),  crl_read_bytes, buffer.get(), 0,
                         nullptr, running.get(), read_counted,   &counted_};
    int error = decode(&request, &stream);
    crl_.reset(request.crl);
    octets_ = counted_.octets - stream.avail;
    return error;
  }

  int decode(crl_request *request, crl_stream *stream) const {
    const uint64_t announced = counted_.source->length;
    const uint32_t length = announced > 0 ? static_cast<uint32_t>(announced) : UINT32_MAX;
    pkcs7_start start = {false, 0};
    int error = cv_crl_decode_crl(request, stream, length, &start);
    return start.found ? find_crl_in_pkcs7(request, stream, length, start) : error;
  }

  int check_signature(int *signature) const {
    if (!query_.signer)
      return PKI_OK;
    ERR_set_mark();
    authorship author = check_crl_signature(crl_.get(), digest_.get(), query_.signer);
    if (author == authorship::no_memory) {
      ERR_clear_last_mark();
      return PKI_OUT_OF_MEMORY;
    }
    ERR_pop_to_mark();
    *signature = author == authorship::own ? PKI_CRL_SIGNED : PKI_CRL_NOT_SIGNED;
    return PKI_OK;
  }

  counted_source counted_;
  const pki_crl_query &query_;
  crl_look look_;
  evp_md_ctx_ptr digest_;
  x509_crl_ptr crl_;
  uint64_t octets_ = 0;
};

}  // namespace

}  // namespace pki

using namespace pki;

int pki_scan_crl(const pki_crl_source *source, const pki_crl_query *query, pki_crl_report *report) {
  if (report)
    *report = {};
  if (!source || !source->read || !report)
    return PKI_INVALID_ARGS;
  const pki_crl_query nothing = {};
  return log_reasons(crl_scan(*source, query ? *query : nothing).run(report));
}
