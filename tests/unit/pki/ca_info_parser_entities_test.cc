// Entities and document types: nothing is expanded, opened or fetched because of them.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/test_server.h"

namespace {

using support::element;

// A file that tells whether it was opened.
class watched_file {
 public:
  explicit watched_file(const std::string &content) {
    char name[] = "/tmp/libpki-entity-XXXXXX";
    close(mkstemp(name));
    path = name;
    std::ofstream(path) << content;
    notify_ = inotify_init1(IN_NONBLOCK);
    inotify_add_watch(notify_, path.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~watched_file() {
    close(notify_);
    unlink(path.c_str());
  }
  watched_file(const watched_file &) = delete;
  watched_file &operator=(const watched_file &) = delete;
  bool was_opened() const {
    char events[512];
    return read(notify_, events, sizeof events) > 0;
  }
  std::string path;

 private:
  int notify_;
};

std::string with_doctype(const std::string &doctype, const std::string &content) {
  return "<!DOCTYPE QRNPkiConfig " + doctype + ">" + support::ca_info_doc(content);
}

std::string scep_url(const std::string &url) {
  return element("CertReqMethod", element("SCEP", "", "url=\"" + url + "\""));
}

class CaInfoEntities : public support::ca_info_test {
 protected:
  void TearDown() override {
    if (!file.empty())
      unlink(file.c_str());
    support::ca_info_test::TearDown();
  }

  int parse_with(const std::string &declarations, const std::string &content) {
    return parse("<?xml version=\"1.0\"?><!DOCTYPE QRNPkiConfig [" + declarations + "]>" +
                 support::ca_info_doc(content));
  }
  // A file that a document would like to see in the issuer name.
  std::string secret_file() {
    char path[] = "/tmp/libpki-entity-XXXXXX";
    close(mkstemp(path));
    file = path;
    std::ofstream(file) << "CN=from the file";
    return file;
  }

  std::string file;
  support::test_server server{{support::ok("CN=from the network")}};
};

TEST_F(CaInfoEntities, XmlsOwnEntitiesAreFine) {
  EXPECT_EQ(parse_body(element("IssuerName", "CN=&lt;&gt;&amp;&quot;&apos;&#65;")), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=<>&\"'A");
}

TEST_F(CaInfoEntities, UndeclaredEntityIsMalformed) {
  EXPECT_EQ(parse_body(element("IssuerName", "CN=&x;")), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoEntities, DeclaredEntityIsRefusedInText) {
  EXPECT_EQ(parse_with("<!ENTITY x 'CN=a'>", element("IssuerName", "&x;")),
            PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoEntities, DeclaredEntityIsRefusedInAnAttribute) {
  EXPECT_EQ(parse_with("<!ENTITY x 'http://a/'>",
                       element("CertReqMethod", element("SCEP", "", "url=\"&x;\""))),
            PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoEntities, EntityThatBringsElementsIsRefused) {
  EXPECT_EQ(parse_with("<!ENTITY x '<IssuerName>CN=no</IssuerName>'>", "&x;"),
            PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoEntities, DeclarationThatNothingUsesIsIgnored) {
  EXPECT_EQ(parse_with("<!ENTITY x 'text'>", element("IssuerName", "CN=a")), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoEntities, EntityBombIsRefused) {
  std::string declarations = "<!ENTITY e0 'CN=aaaaaaaaaaaaaaaaaaaa'>";
  for (int i = 1; i <= 20; i++) {
    std::string before = "&e" + std::to_string(i - 1) + ";";
    declarations += "<!ENTITY e" + std::to_string(i) + " '";
    for (int j = 0; j < 10; j++)
      declarations += before;
    declarations += "'>";
  }
  EXPECT_EQ(parse_with(declarations, element("IssuerName", "&e20;")), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(
      parse_with(declarations, element("CertReqMethod", element("SCEP", "", "url=\"&e20;\""))),
      PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoEntities, EntityThatHoldsItselfIsRefused) {
  EXPECT_EQ(parse_with("<!ENTITY a '&b;'><!ENTITY b '&a;'>", element("IssuerName", "&a;")),
            PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoEntities, ParameterEntityBombIsRefused) {
  std::string declarations = "<!ENTITY % p0 'aaaaaaaaaa'>";
  for (int i = 1; i <= 20; i++) {
    std::string before = "&#37;p" + std::to_string(i - 1) + ";";
    declarations += "<!ENTITY % p" + std::to_string(i) + " '" + before + before + "'>";
  }
  EXPECT_EQ(parse_with(declarations + "%p20;", element("IssuerName", "CN=a")),
            PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoEntities, FileEntityIsNotRead) {
  std::string declaration = "<!ENTITY f SYSTEM \"file://" + secret_file() + "\">";
  EXPECT_EQ(parse_with(declaration, element("IssuerName", "&f;")), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(log_dump().find("from the file"), std::string::npos);
}

TEST_F(CaInfoEntities, FileEntityIsNotReadIntoAnAttribute) {
  std::string declaration = "<!ENTITY f SYSTEM \"" + secret_file() + "\">";
  EXPECT_EQ(parse_with(declaration, element("CertReqMethod", element("SCEP", "", "url=\"&f;\""))),
            PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoEntities, NetworkEntityIsNotFetched) {
  std::string declaration = "<!ENTITY n SYSTEM \"" + server.url("/entity") + "\">";
  EXPECT_EQ(parse_with(declaration, element("IssuerName", "&n;")), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(CaInfoEntities, NetworkParameterEntityIsNotFetched) {
  std::string declaration = "<!ENTITY % n SYSTEM \"" + server.url("/entity") + "\"> %n;";
  EXPECT_EQ(parse_with(declaration, element("IssuerName", "CN=a")), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(CaInfoEntities, ExternalDocumentTypeIsNotFetched) {
  for (const std::string &id : {"SYSTEM \"" + server.url("/type.dtd") + "\"",
                                "PUBLIC \"-//x//y\" \"" + server.url("/type.dtd") + "\""}) {
    EXPECT_EQ(parse(with_doctype(id, element("IssuerName", "CN=x&a;y"))),
              PKI_XML_CA_PTR_PARSE_ERROR);
    EXPECT_EQ(parse(with_doctype(id, element("IssuerName", "CN=a"))), PKI_OK) << id;
    EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  }
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(CaInfoEntities, ExternalDocumentTypeOnDiskIsNotRead) {
  std::string path = secret_file();
  std::ofstream(path) << "<!ENTITY x 'CN=from the file'>";
  EXPECT_EQ(parse("<!DOCTYPE QRNPkiConfig SYSTEM \"" + path + "\">" +
                  support::ca_info_doc(element("IssuerName", "&x;"))),
            PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

// With an external document type the entity might be declared there, so XML itself lets it pass.
TEST_F(CaInfoEntities, UndeclaredEntityDoesNotShortenATextOrAnAttribute) {
  for (const char *doctype : {"SYSTEM \"file:///nonexistent.dtd\"",
                              "[<!ENTITY % p SYSTEM \"file:///nonexistent\"> %p;]"}) {
    EXPECT_EQ(parse(with_doctype(doctype, element("IssuerName", "CN=x&a;y"))),
              PKI_XML_CA_PTR_PARSE_ERROR);
    ca.reset(alloc_ca_info());
    EXPECT_EQ(parse(with_doctype(doctype, scep_url("x&a;y"))), PKI_XML_CA_PTR_PARSE_ERROR);
  }
}

TEST_F(CaInfoEntities, NoFileIsOpened) {
  watched_file watched("<!ENTITY a \"text\">");
  for (const std::string &url : {"file://" + watched.path, watched.path}) {
    const std::string system = "SYSTEM \"" + url + "\"";
    for (const std::string &doctype :
         {"[<!ENTITY a " + system + ">]", "[<!ENTITY % a " + system + "> %a;]", system})
      EXPECT_EQ(parse(with_doctype(doctype, element("IssuerName", "CN=x&a;y"))),
                PKI_XML_CA_PTR_PARSE_ERROR)
          << doctype;
    EXPECT_EQ(parse(with_doctype(system, element("IssuerName", "CN=x"))), PKI_OK);
  }
  EXPECT_FALSE(watched.was_opened());
  std::ifstream(watched.path).get();
  EXPECT_TRUE(watched.was_opened()) << "the watch does not work";
}

TEST_F(CaInfoEntities, InclusionOfAFileIsAnUnknownElement) {
  watched_file watched("CN=secret");
  EXPECT_EQ(
      parse_body(element("IssuerName",
                         "CN=a<xi:include xmlns:xi=\"http://www.w3.org/2001/XInclude\" href=\"" +
                             watched.path + "\" parse=\"text\"/>")),
      PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  EXPECT_FALSE(watched.was_opened());
}

TEST_F(CaInfoEntities, StylesheetsAndInclusionsAreNotFetched) {
  EXPECT_EQ(parse("<?xml-stylesheet href=\"" + server.url("/style") + "\"?>" +
                  support::ca_info_doc(
                      "<xi:include xmlns:xi=\"http://www.w3.org/2001/XInclude\" href=\"" +
                      server.url("/include") + "\"/>")),
            PKI_OK);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(CaInfoEntities, AttributeDefaultsOfADocumentTypeAreNotTaken) {
  EXPECT_NE(parse_with("<!ATTLIST SCEP url CDATA 'http://elsewhere/'>",
                       element("CertReqMethod", element("SCEP"))),
            PKI_OK);
}

}  // namespace
