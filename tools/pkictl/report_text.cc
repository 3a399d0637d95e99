#include "tools/common/text.h"
#include "tools/pkictl/report.h"

namespace pkictl {

std::string text_line(int depth, const std::string &name, const json &value) {
  if (value.is_null())
    return "";
  std::string padded = std::string(static_cast<size_t>(depth) * 2, ' ') + name;
  padded.resize(std::max<size_t>(padded.size() + 1, 20), ' ');
  std::string text = value.is_string() ? value.get<std::string>() : value.dump();
  return padded + tools::printable(text) + "\n";
}

json name_or_note(const json &name) {
  return name.is_string() && name.get<std::string>().empty() ? json("(no name)") : name;
}

std::string cert_text(int depth, const std::string &name, const json &cert) {
  if (cert.is_null())
    return "";
  std::string validity =
      cert["not_before"].get<std::string>() + " to " + cert["not_after"].get<std::string>();
  std::string text = text_line(depth, name, name_or_note(cert["subject"]));
  if (cert["issuer"] != cert["subject"])
    text += text_line(depth + 1, "issuer", cert["issuer"]);
  return text + text_line(depth + 1, "serial", cert["serial"]) +
         text_line(depth + 1, "valid", validity) + text_line(depth + 1, "SHA-256", cert["sha256"]);
}

namespace {

std::string mechanism_name(const json &method) {
  return method["mechanism"].is_string() ? method["mechanism"].get<std::string>()
                                         : "mechanism " + method["mechanism"].dump();
}

std::string method_lines(const json &method) {
  std::string text = text_line(2, mechanism_name(method), method.value("url", json("")));
  text += text_line(3, "digest", method.value("digest", json(nullptr)));
  text += text_line(3, "cipher", method.value("cipher", json(nullptr)));
  return text + cert_text(3, "certificate", method.value("ca_cert", json(nullptr)));
}

json count_or_none(const json &list) {
  return list.empty() ? json("none") : json(list.size());
}

// A line each, under the same title.
std::string method_summary(const std::string &title, const json &methods) {
  std::string text = methods.empty() ? text_line(1, title, "none") : "";
  for (const json &method : methods) {
    json url = method.value("url", json(nullptr));
    text += text_line(
        1, title, mechanism_name(method) + (url.is_string() ? " " + url.get<std::string>() : ""));
  }
  return text;
}

std::string method_list(const std::string &title, const json &methods) {
  std::string text = text_line(1, title, count_or_none(methods));
  for (const json &method : methods)
    text += method_lines(method);
  return text;
}

std::string cert_list(const std::string &title, const json &certs) {
  std::string text = text_line(1, title, count_or_none(certs));
  for (const json &cert : certs)
    text += cert_text(2, "-", cert);
  return text;
}

}  // namespace

std::string ca_summary(const json &ca) {
  std::string text = ca["label"].get<std::string>() + "\n";
  text += text_line(1, "document", ca["url"]);
  text += text_line(1, "issuer", ca["issuer"].is_null() ? json("none") : ca["issuer"]);
  text += text_line(1, "expires", ca["expires"]);
  text += text_line(1, "trusted roots", count_or_none(ca["trusted_roots"]));
  text += text_line(1, "additional", count_or_none(ca["additional_certs"]));
  text += method_summary("enrollment", ca["cert_req_methods"]);
  return text + method_summary("status", ca["cert_status_methods"]);
}

std::string ca_text(const json &ca) {
  std::string text = "CA\n";
  text += text_line(1, "label", ca["label"]);
  text += text_line(1, "document", ca["url"]);
  text += text_line(1, "issuer", ca["issuer"].is_null() ? json("none") : ca["issuer"]);
  text += text_line(1, "expires", ca["expires"]);
  text += method_list("enrollment", ca["cert_req_methods"]);
  text += method_list("look-up", ca["cert_lookup_methods"]);
  text += method_list("status", ca["cert_status_methods"]);
  text += cert_list("trusted roots", ca["trusted_roots"]);
  text += cert_list("additional", ca["additional_certs"]);
  return text;
}

}  // namespace pkictl
