#include "tools/pkilab/ca_info.h"

#include <map>
#include <memory>
#include <mutex>

#include "tools/common/ca_info_xml.h"
#include "tools/common/cert_text.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"

namespace pkilab {

namespace {

// Signed documents by the address they speak of: a signature costs far more than an answer.
class signed_documents {
 public:
  signed_documents(const ca &keys, const scep_algorithms &algorithms)
      : keys_(keys), algorithms_(algorithms) {}

  std::string get(const std::string &authority, bool by_stranger) {
    std::lock_guard lock(mutex_);
    std::string &document = documents_[{authority, by_stranger}];
    if (document.empty()) {
      EVP_PKEY *key = by_stranger ? keys_.stranger_key() : keys_.document_key();
      document = tools::sign_document(ca_info_xml(keys_, authority, algorithms_), key);
    }
    return document;
  }

 private:
  const ca &keys_;
  scep_algorithms algorithms_;
  std::mutex mutex_;
  std::map<std::pair<std::string, bool>, std::string> documents_;
};

response document_response(std::string document) {
  response answer;
  answer.content_type = "application/pkcs7-mime";
  answer.body = std::move(document);
  return answer;
}

response file_response(const std::string &file) {
  if (tools::file_exists(file))
    return document_response(tools::read_file(file));
  response answer = text_response(404, "there is no " + file + " yet");
  answer.note = "there is no " + file;
  return answer;
}

}  // namespace

std::string ca_info_xml(const ca &keys, const std::string &authority,
                        const scep_algorithms &algorithms) {
  X509 *issuing = keys.issuing().cert.get();
  std::string base = "http://" + authority;
  tools::ca_description description;
  description.issuer_name = tools::name_text(X509_get_subject_name(issuing));
  description.scep_url = base + "/scep";
  description.scep_cert = tools::cert_der(issuing);
  description.digest = algorithms.digest;
  description.cipher = algorithms.cipher;
  description.scep_get_cert_url = base + "/scep";
  description.scep_get_cert_cert = description.scep_cert;
  description.ocsp_url = base + "/ocsp";
  description.roots = {tools::cert_der(keys.root().cert.get()), description.scep_cert};
  description.additional_certs = {tools::cert_der(keys.additional().cert.get())};
  description.expires = "Thu, 01 Jan 2037 00:00:00 GMT";
  return tools::to_xml(description);
}

void add_ca_info_room(route_table *routes, const ca &keys, const std::string &document_file,
                      const scep_algorithms &algorithms) {
  auto documents = std::make_shared<signed_documents>(keys, algorithms);
  routes->add({"GET", "/ca-info", "the signed CA-info document",
               [documents, document_file](const request &asked) {
                 if (!document_file.empty() && !asked.by_stranger)
                   return file_response(document_file);
                 return document_response(documents->get(asked.authority, asked.by_stranger));
               }});
}

}  // namespace pkilab
