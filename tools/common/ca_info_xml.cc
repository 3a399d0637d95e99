#include "tools/common/ca_info_xml.h"

#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strings.h>

#include <climits>
#include <cstdlib>

#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace tools {

namespace {

using doc_ptr = std::unique_ptr<xmlDoc, free_with<xmlFreeDoc>>;
using parser_ptr = std::unique_ptr<xmlParserCtxt, free_with<xmlFreeParserCtxt>>;

const xmlChar *xml_text(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}
const xmlChar *xml_text(const std::string &text) {
  return xml_text(text.c_str());
}

std::string from_xml(const xmlChar *text) {
  return text ? reinterpret_cast<const char *>(text) : "";
}

// ---- writing ----

const xmlChar *checked(const std::string &text, const std::string &where) {
  std::string visible = text;
  std::erase(visible, '\n');
  if (printable(visible) != visible)
    throw usage_failure("the text for " + where + " holds characters that XML cannot carry");
  return xml_text(text);
}

xmlNode *add_element(xmlNode *parent, const char *name) {
  xmlNode *node = xmlNewChild(parent, nullptr, xml_text(name), nullptr);
  if (!node)
    throw failure("out of memory");
  return node;
}

xmlNode *add_text_element(xmlNode *parent, const char *name, const std::string &text) {
  xmlNode *node = add_element(parent, name);
  xmlNodeAddContent(node, checked(text, name));
  return node;
}

xmlNode *add_attribute_element(xmlNode *parent, const char *name, const char *attribute,
                               const std::string &value) {
  xmlNode *node = add_element(parent, name);
  if (!xmlNewProp(node, xml_text(attribute), checked(value, name)))
    throw failure("out of memory");
  return node;
}

// Line feeds around the base64 text, and lines of 64: decoders want lines.
void add_certificate(xmlNode *parent, const std::string &der) {
  add_text_element(parent, "X509Certificate", "\n" + base64_lines(der));
}

void add_enrollment(xmlNode *root, const ca_description &ca) {
  if (ca.scep_url.empty())
    return;
  xmlNode *methods = add_element(root, "CertReqMethod");
  xmlNode *scep = add_attribute_element(methods, "SCEP", "url", ca.scep_url);
  if (!ca.scep_cert.empty())
    add_certificate(scep, ca.scep_cert);
  if (!ca.digest.empty())
    add_attribute_element(scep, "Digest", "alg", ca.digest);
  if (!ca.cipher.empty())
    add_attribute_element(scep, "Cipher", "alg", ca.cipher);
}

void add_look_up(xmlNode *root, const ca_description &ca) {
  if (ca.scep_get_cert_url.empty() && ca.ldap_url.empty())
    return;
  xmlNode *methods = add_element(root, "CertLookupMethod");
  if (!ca.scep_get_cert_url.empty()) {
    xmlNode *scep = add_attribute_element(methods, "SCEPGetCert", "url", ca.scep_get_cert_url);
    if (!ca.scep_get_cert_cert.empty())
      add_certificate(scep, ca.scep_get_cert_cert);
  }
  if (!ca.ldap_url.empty())
    add_attribute_element(methods, "LDAPGetCert", "url", ca.ldap_url);
}

void add_status(xmlNode *root, const ca_description &ca) {
  if (!ca.ocsp_url.empty())
    add_attribute_element(add_element(root, "CertStatusQueryMethod"), "OCSP", "url", ca.ocsp_url);
}

void add_certificates(xmlNode *root, const char *name, const std::vector<std::string> &certs) {
  if (certs.empty())
    return;
  xmlNode *list = add_element(root, name);
  for (const std::string &cert : certs)
    add_certificate(list, cert);
}

std::string dump(xmlDoc *doc, int format) {
  xmlChar *text = nullptr;
  int length = 0;
  const char *encoding = doc->encoding ? reinterpret_cast<const char *>(doc->encoding) : "UTF-8";
  xmlDocDumpFormatMemoryEnc(doc, &text, &length, encoding, format);
  if (!text)
    throw failure("cannot write the document as XML");
  std::string xml(text, text + length);
  xmlFree(text);
  return xml;
}

// ---- reading ----

std::string parse_reason(const xmlParserCtxt *parser) {
  const xmlError &error = parser->lastError;
  std::string text = error.message ? trim(error.message) : "no XML";
  return "line " + std::to_string(error.line) + ": " + printable(text);
}

doc_ptr parse(const std::string &xml, std::string *reason) {
  parser_ptr parser(xmlNewParserCtxt());
  if (!parser || xml.size() > INT_MAX) {
    *reason = "out of memory";
    return nullptr;
  }
  int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  doc_ptr doc(xmlCtxtReadMemory(parser.get(), xml.data(), static_cast<int>(xml.size()), nullptr,
                                nullptr, options));
  if (!doc)
    *reason = parse_reason(parser.get());
  return doc;
}

// Devices compare names with their prefix and without regard to letter case.
bool is_named(const xmlNode *node, const char *name) {
  return node->type == XML_ELEMENT_NODE && !(node->ns && node->ns->prefix) &&
         strcasecmp(from_xml(node->name).c_str(), name) == 0;
}

xmlNode *root_of(xmlDoc *doc) {
  return xmlDocGetRootElement(doc);
}

std::vector<xmlNode *> find_expires(xmlDoc *doc) {
  std::vector<xmlNode *> found;
  for (xmlNode *node = root_of(doc)->children; node; node = node->next)
    if (is_named(node, "Expires"))
      found.push_back(node);
  return found;
}

bool is_blank_text(const xmlNode *node) {
  return node && xmlIsBlankNode(node) == 1;
}

// Moves `node` behind all of its siblings, together with the white space that indents it.
void move_last(xmlNode *node) {
  xmlNode *parent = node->parent;
  xmlNode *indent = is_blank_text(node->prev) ? node->prev : nullptr;
  xmlUnlinkNode(node);
  if (indent)
    xmlUnlinkNode(indent);
  xmlNode *tail = is_blank_text(parent->last) ? parent->last : nullptr;
  if (tail)
    xmlAddPrevSibling(tail, node);
  else
    xmlAddChild(parent, node);
  if (indent)
    xmlAddPrevSibling(node, indent);
}

}  // namespace

std::string to_xml(const ca_description &ca) {
  doc_ptr doc(xmlNewDoc(xml_text("1.0")));
  xmlNode *root = doc ? xmlNewNode(nullptr, xml_text("QRNPkiConfig")) : nullptr;
  if (!root)
    throw failure("out of memory");
  xmlDocSetRootElement(doc.get(), root);
  if (!ca.issuer_name.empty())
    add_text_element(root, "IssuerName", ca.issuer_name);
  add_enrollment(root, ca);
  add_look_up(root, ca);
  add_status(root, ca);
  add_certificates(root, "TrustedRoots", ca.roots);
  add_certificates(root, "AdditionalCerts", ca.additional_certs);
  if (!ca.expires.empty())
    add_text_element(root, "Expires", ca.expires);
  return prepare_document(dump(doc.get(), 1), "the document").xml;
}

prepared_document prepare_document(const std::string &xml, const std::string &name) {
  std::string reason;
  doc_ptr doc = parse(xml, &reason);
  if (!doc)
    throw failure(name + " is not well-formed XML: " + reason);
  if (!is_named(root_of(doc.get()), "QRNPkiConfig"))
    throw failure(name + " has the root element " + printable(from_xml(root_of(doc.get())->name)) +
                  "; a CA-info document has QRNPkiConfig");
  std::vector<xmlNode *> expires = find_expires(doc.get());
  if (expires.size() > 1)
    throw failure(name + " has several Expires elements; keep one, since a device stops reading" +
                  " at the first");
  if (expires.empty() || !xmlNextElementSibling(expires[0]))
    return {xml, false};
  move_last(expires[0]);
  return {dump(doc.get(), 0), true};
}

std::string expires_text(const std::string &xml) {
  std::string reason;
  doc_ptr doc = parse(xml, &reason);
  std::vector<xmlNode *> expires = doc ? find_expires(doc.get()) : std::vector<xmlNode *>();
  if (expires.empty())
    return "";
  xmlChar *content = xmlNodeGetContent(expires.back());
  std::string text = trim(from_xml(content));
  xmlFree(content);
  return text;
}

std::string sign_document(const std::string &xml, EVP_PKEY *key) {
  unsigned char *der = nullptr;
  int length = 0;
  int code = sign_bytes(xml.data(), static_cast<int>(xml.size()), key, &der, &length);
  if (code != 0)
    throw library_failure(code, std::string("cannot sign the document: ") +
                                    pki_strerror(static_cast<unsigned>(code)));
  std::string bytes(der, der + length);
  free(der);
  return bytes;
}

}  // namespace tools
