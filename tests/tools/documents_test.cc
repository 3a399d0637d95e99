// What the documents for people say holds.
#include <gtest/gtest.h>

#include <sstream>

#include "lab_fixture.h"
#include "run_tool.h"
#include "tools/common/ca_info_reader.h"
#include "tools/common/ca_info_xml.h"
#include "tools/pkilab/misbehave.h"

namespace {

std::string document(const std::string &name) {
  std::string text = tool_test::read_file(std::string(SOURCE_DIR) + "/docs/" + name);
  EXPECT_NE(text, "") << name;
  return text;
}

// The complete example of docs/ca-info.md.
std::string documents_example() {
  std::string text = document("ca-info.md");
  size_t begin = text.find("```xml\n") + 7;
  return text.substr(begin, text.find("```\n", begin) - begin);
}

TEST(CaInfoDocument, CompleteExampleIsTakenWhole) {
  tools::read_ca_info read = tools::read_document(documents_example());
  ASSERT_EQ(read.code, 0);
  EXPECT_EQ(OPENSSL_sk_num(read.info->cert_req_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(read.info->cert_lookup_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(read.info->cert_status_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(read.info->trusted_roots), 1);
  EXPECT_EQ(OPENSSL_sk_num(read.additional_certs.get()), 1);
}

TEST(CaInfoDocument, CompleteExampleNeedsNoMoveBeforeItIsSigned) {
  EXPECT_FALSE(tools::prepare_document(documents_example(), "example").expires_moved);
}

TEST(CaInfoDocument, ExampleWithExpiresFirstIsRefusedAsThePageSays) {
  std::string xml = documents_example();
  std::string expires = "  <Expires>Thu, 01 Jan 2037 00:00:00 GMT</Expires>\n";
  xml.erase(xml.find(expires), expires.size());
  xml.insert(xml.find("  <IssuerName>"), expires);
  EXPECT_EQ(tools::read_document(xml).code, 37);
  EXPECT_EQ(tools::read_document(tools::prepare_document(xml, "example").xml).code, 0);
}

TEST(CaInfoDocument, OneLongBase64LineIsRefusedAsThePageSays) {
  std::string xml = documents_example();
  size_t begin = xml.find("<TrustedRoots>");
  begin = xml.find("<X509Certificate>", begin) + 17;
  size_t end = xml.find("</X509Certificate>", begin);
  std::string base64 = xml.substr(begin, end - begin);
  std::erase(base64, '\n');
  std::erase(base64, ' ');
  xml.replace(begin, end - begin, base64);
  EXPECT_EQ(tools::read_document(xml).code, 33);
}

TEST(PkilabDocument, NamesEveryMisbehaviour) {
  std::string text = document("pkilab.md");
  std::istringstream list(pkilab::misbehaviour_list());
  int count = 0;
  for (std::string word; list >> word;) {
    if (!word.starts_with("/misbehave/"))
      continue;
    std::string path = word.substr(std::string("/misbehave/").size());
    EXPECT_NE(text.find("| `" + path + "` | "), std::string::npos) << path;
    count++;
  }
  EXPECT_GT(count, 10);
}

}  // namespace
