#include "tools/pkilab/crl_extensions.h"

#include "tools/pkilab/crl_der.h"

namespace pkilab {

namespace {

using der::context;
using der::sequence;
using der::wrap;

constexpr const char *crl_number_oid = "2.5.29.20";
constexpr const char *delta_indicator_oid = "2.5.29.27";
constexpr const char *issuing_point_oid = "2.5.29.28";
constexpr const char *authority_key_oid = "2.5.29.35";
constexpr const char *freshest_oid = "2.5.29.46";
constexpr const char *common_name_oid = "2.5.4.3";

std::string content_of(const ASN1_STRING *string) {
  const unsigned char *octets = ASN1_STRING_get0_data(string);
  return std::string(octets, octets + ASN1_STRING_length(string));
}

std::string key_identifier(X509 *signer, bool wrong) {
  const ASN1_OCTET_STRING *kept = X509_get0_subject_key_id(signer);
  std::string octets = kept ? content_of(kept) : "no key identifier";
  if (wrong)
    octets.front() = static_cast<char>(octets.front() ^ 1);
  return wrap(context(0, false), octets);
}

// RFC 5280, 4.2.1.1.
std::string authority_key(X509 *signer, crl_akid how) {
  constexpr int directory_name = 4;
  std::string content = key_identifier(signer, how == crl_akid::wrong);
  if (how == crl_akid::whole) {
    std::string name = der::name(X509_get_issuer_name(signer));
    content += wrap(context(1), wrap(context(directory_name), name)) +
               wrap(context(2, false), content_of(X509_get0_serialNumber(signer)));
  }
  return der::extension(authority_key_oid, false, wrap(sequence, content));
}

std::string uri(const std::string &place, const std::string &authority) {
  constexpr int uniform_resource_identifier = 6;
  bool is_path = place.starts_with('/');
  return wrap(context(uniform_resource_identifier, false),
              is_path ? "http://" + authority + place : place);
}

// ---- issuingDistributionPoint (RFC 5280, 5.2.5) ----

std::string point_name(const crl_options &options, const std::string &authority) {
  if (options.idp_relative) {
    std::string attribute =
        wrap(sequence, der::oid(common_name_oid) + wrap(der::utf8_string, "crl"));
    return wrap(context(0), wrap(context(1), attribute));
  }
  std::string names;
  for (const std::string &place : options.idp_names)
    names += uri(place, authority);
  return names.empty() ? "" : wrap(context(0), wrap(context(0), names));
}

// A named bit list: bits are counted from the highest, and none behind the last one stands there.
std::string reason_flags(unsigned bits) {
  std::string octets(1, '\0');
  int last = 0;
  for (int bit = 0; bit <= reason_bit_max; bit++) {
    if ((bits >> bit & 1) == 0)
      continue;
    octets.resize(static_cast<size_t>(bit / 8) + 1);
    octets.back() = static_cast<char>(octets.back() | 0x80 >> bit % 8);
    last = bit;
  }
  return static_cast<char>(7 - last % 8) + octets;
}

std::string issuing_point(const crl_options &options, const std::string &authority) {
  auto flag = [](int tag, bool set) { return set ? wrap(context(tag, false), "\xFF") : ""; };
  std::string content =
      point_name(options, authority) + flag(1, options.scope == crl_scope::user) +
      flag(2, options.scope == crl_scope::ca) +
      (options.reasons ? wrap(context(3, false), reason_flags(*options.reasons)) : "") +
      flag(4, options.indirect) + flag(5, options.scope == crl_scope::attribute);
  if (content.empty())
    return "";
  return der::extension(issuing_point_oid, true, wrap(sequence, content));
}

// A distribution point each.
std::string freshest(const crl_options &options, const std::string &authority) {
  std::string points;
  for (const std::string &place : options.freshest)
    points += wrap(sequence, wrap(context(0), wrap(context(0), uri(place, authority))));
  return points.empty() ? "" : der::extension(freshest_oid, false, wrap(sequence, points));
}

}  // namespace

std::string crl_extensions(X509 *signer, const crl_options &options, const std::string &authority,
                           time_t now) {
  std::string all;
  if (options.akid != crl_akid::none)
    all += authority_key(signer, options.akid);
  if (options.has_number)
    all += der::extension(crl_number_oid, false,
                          der::number(options.number.value_or(std::to_string(now))));
  if (options.delta)
    all += der::extension(delta_indicator_oid, true, der::number(*options.delta));
  all += issuing_point(options, authority) + freshest(options, authority);
  for (const std::string &oid : options.critical)
    all += der::extension(oid, true, wrap(der::null, ""));
  return all.empty() ? "" : wrap(context(0), wrap(sequence, all));
}

}  // namespace pkilab
