#include "status_rules.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/store_fixture.h"

namespace pkits {

namespace {

constexpr unsigned char flag_delta = 1;
constexpr uint32_t any_reason = 0;

// Not a file of the suite's: the server does not have it.
constexpr char no_crl[] = "NoSuchCRL";

bool is_same(const X509_NAME *one, const X509_NAME *other) {
  return X509_NAME_cmp(one, other) == 0;
}

// The suite's directory keeps them in the attribute deltaRevocationList.
bool is_delta(const std::string &crl) {
  return crl.ends_with("deltaCRL");
}

const X509_NAME *directory_name(const GENERAL_NAMES *names) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names); i++)
    if (sk_GENERAL_NAME_value(names, i)->type == GEN_DIRNAME)
      return sk_GENERAL_NAME_value(names, i)->d.directoryName;
  return nullptr;
}

support::name copy_of(const X509_NAME *name) {
  return {X509_NAME_dup(name), X509_NAME_free};
}

// The directory entry that the point names: in full, relative to the CRL's issuer, or not at all.
support::name entry_of(const DIST_POINT *point, const X509_NAME *issuer) {
  if (!point->distpoint)
    return copy_of(issuer);
  if (point->distpoint->type == 0)
    return copy_of(directory_name(point->distpoint->name.fullname));
  support::name entry = copy_of(issuer);
  const STACK_OF(X509_NAME_ENTRY) *relative = point->distpoint->name.relativename;
  for (int i = 0; i < sk_X509_NAME_ENTRY_num(relative); i++)
    X509_NAME_add_entry(entry.get(), sk_X509_NAME_ENTRY_value(relative, i), -1, i == 0 ? 0 : -1);
  return entry;
}

void free_points(STACK_OF(DIST_POINT) * points) {
  sk_DIST_POINT_pop_free(points, DIST_POINT_free);
}

dist_points read_points(const support::cert &cert) {
  return {static_cast<STACK_OF(DIST_POINT) *>(
              X509_get_ext_d2i(cert.get(), NID_crl_distribution_points, nullptr, nullptr)),
          free_points};
}

uint32_t covered_reasons(const std::string &crl) {
  support::crl read = read_crl(crl);
  if (!read)
    return any_reason;
  std::unique_ptr<ISSUING_DIST_POINT, decltype(&ISSUING_DIST_POINT_free)> scope(
      static_cast<ISSUING_DIST_POINT *>(
          X509_CRL_get_ext_d2i(read.get(), NID_issuing_distribution_point, nullptr, nullptr)),
      ISSUING_DIST_POINT_free);
  return scope && scope->onlysomereasons ? zv_cv_get_crl_reasons(scope->onlysomereasons)
                                         : any_reason;
}

cert_match_rule *issuer_is(const support::cert &cert) {
  cert_match_rule *rule = alloc_cert_match_rule();
  rule->type = PKI_MATCH_ISSUER;
  rule->name_or_low = X509_NAME_dup(X509_get_issuer_name(cert.get()));
  return rule;
}

cert_match_rule *serial_is(const support::cert &cert) {
  cert_match_rule *rule = alloc_cert_match_rule();
  rule->type = PKI_MATCH_SERIAL;
  rule->name_or_low = ASN1_INTEGER_dup(X509_get0_serialNumber(cert.get()));
  rule->high = ASN1_INTEGER_dup(X509_get0_serialNumber(cert.get()));
  return rule;
}

void release_match_rule(void *rule) {
  free_cert_match_rule(static_cast<cert_match_rule *>(rule));
}
void release_source(void *info) {
  free_crl_info(static_cast<crl_info *>(info));
}

}  // namespace

status_rules::status_rules(const test_case &tested, rule_kind kind, url_of url)
    : tested_(tested), kind_(kind), url_(std::move(url)) {
  certs_.push_back(read_cert(tested.name + "EE"));
  for (const std::string &name : tested.certs)
    certs_.push_back(read_cert(name));
  if (kind == rule_kind::by_issuer)
    add_for_issuers();
  else
    add_for_certificates();
}

status_rules::~status_rules() {
  support::empty_store();
}

// A rule for each issuer, once; what its certificates need comes together.
void status_rules::add_for_issuers() {
  std::vector<support::cert> left = certs_;
  while (!left.empty()) {
    support::cert first = left.front();
    std::vector<source> sources;
    auto has_it = [&](const source &made) {
      return std::any_of(sources.begin(), sources.end(), [&](const source &known) {
        return known.crl == made.crl && !known.named_issuer == !made.named_issuer &&
               (!made.named_issuer || is_same(known.named_issuer.get(), made.named_issuer.get()));
      });
    };
    auto is_of_issuer = [&](const support::cert &cert) {
      return is_same(X509_get_issuer_name(cert.get()), X509_get_issuer_name(first.get()));
    };
    for (const support::cert &cert : left)
      if (is_of_issuer(cert))
        for (const source &made : sources_of(cert))
          if (!has_it(made))
            sources.push_back(made);
    add_rule(first, false, sources);
    left.erase(std::remove_if(left.begin(), left.end(), is_of_issuer), left.end());
  }
}

void status_rules::add_for_certificates() {
  for (const support::cert &cert : certs_)
    add_rule(cert, true, sources_of(cert));
}

std::vector<status_rules::source> status_rules::sources_of(const support::cert &cert) {
  dist_points points = read_points(cert);
  if (!points)
    return sources_of_point(cert, nullptr);
  points_.push_back(points);
  std::vector<source> all;
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); i++)
    for (const source &made : sources_of_point(cert, sk_DIST_POINT_value(points.get(), i)))
      all.push_back(made);
  return all;
}

std::vector<status_rules::source> status_rules::sources_of_point(const support::cert &cert,
                                                                 DIST_POINT *point) const {
  const X509_NAME *named = point ? directory_name(point->CRLissuer) : nullptr;
  bool tied = kind_ == rule_kind::by_directory;
  std::vector<source> all;
  for (const std::string &crl : crls_at(cert, point))
    all.push_back(
        {crl, named ? copy_of(named) : nullptr, tied && !is_delta(crl) ? point : nullptr});
  return all;
}

std::vector<std::string> status_rules::crls_at(const support::cert &cert,
                                               const DIST_POINT *point) const {
  const X509_NAME *named = point ? directory_name(point->CRLissuer) : nullptr;
  const X509_NAME *issuer = named ? named : X509_get_issuer_name(cert.get());
  if (kind_ == rule_kind::by_issuer || !point)
    return crls_of(issuer);
  std::vector<std::string> found = crls_in_directory(entry_of(point, issuer).get());
  return found.empty() ? std::vector<std::string>{no_crl} : found;
}

// The case's CRLs of that issuer. Where it has none, all of them: it is for the library to find
// out that they are somebody else's.
std::vector<std::string> status_rules::crls_of(const X509_NAME *issuer) const {
  support::cert anchor = read_cert(trust_anchor);
  if (is_same(issuer, X509_get_subject_name(anchor.get())))
    return {trust_anchor_crl};
  std::vector<std::string> found;
  for (const std::string &name : tested_.crls)
    if (is_same(X509_CRL_get_issuer(read_crl(name).get()), issuer))
      found.push_back(name);
  if (found.empty())
    found = tested_.crls;
  return found.empty() ? std::vector<std::string>{no_crl} : found;
}

void status_rules::add_rule(const support::cert &matched, bool this_serial,
                            const std::vector<source> &from) {
  STACK *rules = OPENSSL_sk_new_null();
  OPENSSL_sk_push(rules, issuer_is(matched));
  if (this_serial)
    OPENSSL_sk_push(rules, serial_is(matched));
  STACK *infos = OPENSSL_sk_new_null();
  for (const source &made : from)
    OPENSSL_sk_push(infos, make_source(made));
  EXPECT_EQ(pki_add_crl_info(nullptr, rules, infos, 0, 0), PKI_OK);
  OPENSSL_sk_pop_free(rules, release_match_rule);
  OPENSSL_sk_pop_free(infos, release_source);
}

crl_info *status_rules::make_source(const source &from) const {
  crl_info *made =
      create_crl_info(url_(from.crl).c_str(), 0, covered_reasons(from.crl),
                      is_delta(from.crl) ? flag_delta : 0, from.named_issuer.get(), nullptr);
  made->dist_point = from.point;
  return made;
}

}  // namespace pkits
