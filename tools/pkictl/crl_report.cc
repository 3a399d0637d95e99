#include "tools/pkictl/crl_report.h"

#include <libpki/oids.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <iterator>

#include "tools/common/cert_text.h"
#include "tools/common/crl_text.h"
#include "tools/common/text.h"
#include "tools/pkictl/report.h"

namespace pkictl {

namespace {

using integer_ptr = std::unique_ptr<ASN1_INTEGER, tools::free_with<ASN1_INTEGER_free>>;
using enumerated_ptr = std::unique_ptr<ASN1_ENUMERATED, tools::free_with<ASN1_ENUMERATED_free>>;
using names_ptr = std::unique_ptr<GENERAL_NAMES, tools::free_with<GENERAL_NAMES_free>>;
using scope_ptr = std::unique_ptr<ISSUING_DIST_POINT, tools::free_with<ISSUING_DIST_POINT_free>>;
using key_id_ptr = std::unique_ptr<AUTHORITY_KEYID, tools::free_with<AUTHORITY_KEYID_free>>;
using points_ptr =
    std::unique_ptr<STACK_OF(DIST_POINT), tools::free_with<[](STACK_OF(DIST_POINT) * points) {
                      sk_DIST_POINT_pop_free(points, DIST_POINT_free);
                    }>>;

// What the library knows, and what is printed.
constexpr int known_extensions[] = {
    NID_authority_key_identifier,   NID_issuer_alt_name, NID_crl_number,
    NID_issuing_distribution_point, NID_freshest_crl,    NID_delta_crl};

// `make` of an extension's value.
template <class Ptr, class Make>
json extension_json(const X509_CRL *crl, int nid, Make make) {
  int criticality = 0;
  Ptr value(
      static_cast<typename Ptr::pointer>(X509_CRL_get_ext_d2i(crl, nid, &criticality, nullptr)));
  ERR_clear_error();
  if (!value)
    return criticality == -1 ? json(nullptr) : json("unreadable");
  return make(*value);
}

json number_json(const X509_CRL *crl, int nid) {
  return extension_json<integer_ptr>(
      crl, nid, [](const ASN1_INTEGER &number) { return tools::number_text(&number); });
}

json point_names(const DIST_POINT_NAME *point) {
  if (!point)
    return json::array();
  if (point->type == 0)
    return tools::general_names_text(point->name.fullname);
  return json::array({"relative to the issuer's name"});
}

json only_json(const ISSUING_DIST_POINT &scope) {
  json only = json::array();
  if (scope.onlyuser > 0)
    only.push_back("user");
  if (scope.onlyCA > 0)
    only.push_back("ca");
  if (scope.onlyattr > 0)
    only.push_back("attribute");
  return only;
}

json scope_json(const X509_CRL *crl) {
  return extension_json<scope_ptr>(
      crl, NID_issuing_distribution_point, [](const ISSUING_DIST_POINT &scope) {
        json reasons = nullptr;
        if (scope.onlysomereasons)
          reasons = tools::reason_flags(scope.onlysomereasons);
        return json{{"distribution_point", point_names(scope.distpoint)},
                    {"only", only_json(scope)},
                    {"reasons", reasons},
                    {"indirect", scope.indirectCRL > 0}};
      });
}

json freshest_json(const X509_CRL *crl) {
  return extension_json<points_ptr>(crl, NID_freshest_crl, [](const STACK_OF(DIST_POINT) & points) {
    json names = json::array();
    for (int i = 0; i < sk_DIST_POINT_num(&points); i++)
      for (json &name : point_names(sk_DIST_POINT_value(&points, i)->distpoint))
        names.push_back(std::move(name));
    return names;
  });
}

json key_id_json(const X509_CRL *crl) {
  return extension_json<key_id_ptr>(
      crl, NID_authority_key_identifier, [](const AUTHORITY_KEYID &id) -> json {
        if (!id.keyid)
          return nullptr;
        const unsigned char *octets = ASN1_STRING_get0_data(id.keyid);
        return tools::hex(std::string(octets, octets + ASN1_STRING_length(id.keyid)), ':');
      });
}

json unknown_extensions(const X509_CRL *crl) {
  json unknown = json::array();
  for (int i = 0; i < X509_CRL_get_ext_count(crl); i++) {
    X509_EXTENSION *extension = X509_CRL_get_ext(crl, i);
    const ASN1_OBJECT *object = X509_EXTENSION_get_object(extension);
    int nid = OBJ_obj2nid(object);
    // The library's mark on what is not the whole list is not in the list.
    if (nid != pki_nid_list[PKI_OID_TRUNCATED_CRL] &&
        std::find(std::begin(known_extensions), std::end(known_extensions), nid) ==
            std::end(known_extensions))
      unknown.push_back({{"oid", tools::oid_text(object)},
                         {"critical", X509_EXTENSION_get_critical(extension) == 1}});
  }
  return unknown;
}

json time_json(const ASN1_TIME *time) {
  return time ? json(tools::time_text(time)) : json(nullptr);
}

std::string algorithm_text(const X509_CRL *crl) {
  const X509_ALGOR *algorithm = nullptr;
  X509_CRL_get0_signature(crl, nullptr, &algorithm);
  const ASN1_OBJECT *object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  return tools::object_text(object);
}

bool is_past(const ASN1_TIME *time) {
  return time && X509_cmp_current_time(time) < 0;
}

std::string joined(const json &texts) {
  std::string line;
  for (const json &text : texts)
    line += (line.empty() ? "" : ", ") + text.get<std::string>();
  return line;
}

std::string scope_text(const json &scope) {
  if (!scope.is_object())
    return text_line(1, "scope", scope);
  std::string text;
  if (!scope["distribution_point"].empty())
    text += text_line(1, "distribution point", joined(scope["distribution_point"]));
  if (!scope["only"].empty())
    text += text_line(1, "only for", joined(scope["only"]) + " certificates");
  if (!scope["reasons"].is_null())
    text += text_line(1, "reasons", joined(scope["reasons"]));
  if (scope["indirect"])
    text += text_line(1, "indirect", "yes, it lists certificates of other issuers too");
  return text;
}

std::string update_text(const json &crl) {
  std::string next = crl["next_update"].is_null() ? "none" : crl["next_update"].get<std::string>();
  std::string this_update = crl["this_update"].get<std::string>();
  return text_line(1, "this update", this_update + (crl["future"] ? " (in the future)" : "")) +
         text_line(1, "next update", next + (crl["expired"] ? " (in the past)" : ""));
}

}  // namespace

json crl_json(X509_CRL *crl) {
  const ASN1_TIME *this_update = X509_CRL_get0_lastUpdate(crl);
  const ASN1_TIME *next_update = X509_CRL_get0_nextUpdate(crl);
  return {{"issuer", tools::name_text(X509_CRL_get_issuer(crl))},
          {"this_update", time_json(this_update)},
          {"next_update", time_json(next_update)},
          {"future", X509_cmp_current_time(this_update) > 0},
          {"expired", is_past(next_update)},
          {"number", number_json(crl, NID_crl_number)},
          {"delta_of", number_json(crl, NID_delta_crl)},
          {"scope", scope_json(crl)},
          {"freshest_crl", freshest_json(crl)},
          {"authority_key_id", key_id_json(crl)},
          {"unknown_extensions", unknown_extensions(crl)},
          {"signature_algorithm", algorithm_text(crl)}};
}

std::string crl_text(const json &crl) {
  std::string text = text_line(1, "issuer", name_or_note(crl["issuer"])) + update_text(crl);
  text += text_line(1, "number", crl["number"]);
  text += text_line(1, "delta CRL of", crl["delta_of"]);
  text += scope_text(crl["scope"]);
  const json &freshest = crl["freshest_crl"];
  text += text_line(1, "its delta CRL", freshest.is_array() ? json(joined(freshest)) : freshest);
  text += text_line(1, "key of the signer", crl["authority_key_id"]);
  for (const json &extension : crl["unknown_extensions"])
    text +=
        text_line(1, "unknown",
                  extension["oid"].get<std::string>() +
                      (extension["critical"] ? ", critical: the library refuses this CRL" : ""));
  return text + text_line(1, "algorithm", crl["signature_algorithm"]);
}

json entries_json(X509_CRL *crl) {
  json entries = json::array();
  STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
  for (int i = 0; i < sk_X509_REVOKED_num(list); i++) {
    const X509_REVOKED *entry = sk_X509_REVOKED_value(list, i);
    enumerated_ptr reason(static_cast<ASN1_ENUMERATED *>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    names_ptr issuer(static_cast<GENERAL_NAMES *>(
        X509_REVOKED_get_ext_d2i(entry, NID_certificate_issuer, nullptr, nullptr)));
    ERR_clear_error();
    std::vector<std::string> reasons = tools::crl_reasons();
    long number = reason ? ASN1_ENUMERATED_get(reason.get()) : -1;
    json name = nullptr;
    if (number >= 0)
      name = static_cast<size_t>(number) < reasons.size() ? reasons[static_cast<size_t>(number)]
                                                          : std::to_string(number);
    entries.push_back({{"serial", tools::serial_text(X509_REVOKED_get0_serialNumber(entry))},
                       {"revoked_at", time_json(X509_REVOKED_get0_revocationDate(entry))},
                       {"reason", name},
                       {"issuer", issuer ? joined(json(tools::general_names_text(issuer.get())))
                                         : tools::name_text(X509_CRL_get_issuer(crl))}});
  }
  return entries;
}

std::string entry_text(const json &entry) {
  return text_line(1, "since", entry["revoked_at"]) +
         text_line(1, "reason", entry["reason"].is_null() ? json("none given") : entry["reason"]) +
         text_line(1, "certificate of", name_or_note(entry["issuer"]));
}

bool is_indirect(X509_CRL *crl) {
  json scope = scope_json(crl);
  return scope.is_object() && scope["indirect"].get<bool>();
}

}  // namespace pkictl
