#include "suite.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace pkits {

namespace {

constexpr char installed_folder[] =
    "/usr/lib/python3/dist-packages/cryptography_vectors/x509/PKITS_data";

std::vector<std::string> split(const std::string &text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);)
    parts.push_back(part);
  return parts;
}

std::vector<std::string> words(const std::string &text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// The rows of a table, with continuation lines joined; the last field may be left out.
std::vector<std::vector<std::string>> read_table(const std::string &file, size_t fields) {
  std::ifstream in(PKITS_TABLES + ("/" + file));
  std::vector<std::string> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#')
      continue;
    if (line[0] != ' ')
      rows.push_back(line);
    else if (!rows.empty())
      rows.back() += rows.back().ends_with('|') ? line.substr(1) : line;
  }
  std::vector<std::vector<std::string>> table;
  for (const std::string &row : rows) {
    table.push_back(split(row, '|'));
    if (table.back().size() > fields || table.back().size() + 1 < fields)
      throw std::runtime_error(file + ": fields are missing in: " + row);
    table.back().resize(fields);
  }
  return table;
}

std::vector<test_case> read_cases() {
  auto brought = read_table("cases.txt", 4);
  auto expected = read_table("expected.txt", 7);
  if (brought.empty() || brought.size() != expected.size())
    throw std::runtime_error("cases.txt and expected.txt have not the same cases");
  std::vector<test_case> cases;
  for (size_t i = 0; i < brought.size(); i++) {
    const auto &left = brought[i];
    const auto &right = expected[i];
    if (left[0] != right[0] || left[1] != right[1])
      throw std::runtime_error("cases.txt and expected.txt differ at " + left[0]);
    cases.push_back({left[0], left[1], words(left[2]), words(left[3]), right[2], right[3], right[4],
                     right[5], right[6]});
  }
  return cases;
}

using directory = std::map<std::string, std::vector<std::string>>;

// "certificateRevocationList;binary:< file:///tmp/crls/GoodCACRL.crl" gives "GoodCACRL".
std::string listed_crl(const std::string &line) {
  constexpr char place[] = "RevocationList;binary:< file:///tmp/crls/";
  size_t at = line.find(place);
  size_t end = line.rfind(".crl");
  if (at == std::string::npos || end == std::string::npos)
    return "";
  at += sizeof place - 1;
  return line.substr(at, end - at);
}

directory read_directory() {
  directory read;
  std::ifstream in(folder() + "/pkits.ldif");
  std::string entry;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (line.starts_with("dn: "))
      entry = line.substr(4);
    std::string crl = listed_crl(line);
    auto &known = read[entry];
    if (!crl.empty() && std::find(known.begin(), known.end(), crl) == known.end())
      known.push_back(crl);
  }
  return read;
}

std::string text_of(const X509_NAME *name) {
  BIO *out = BIO_new(BIO_s_mem());
  X509_NAME_print_ex(out, name, 0, XN_FLAG_RFC2253);
  char *text = nullptr;
  long length = BIO_get_mem_data(out, &text);
  std::string copy(text, static_cast<size_t>(length));
  BIO_free(out);
  return copy;
}

std::string octets_of(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

void PrintTo(const test_case &shown, std::ostream *out) {
  *out << shown.number << " " << shown.name;
}

const std::vector<test_case> &all_cases() {
  static const std::vector<test_case> cases = [] {
    try {
      return read_cases();
    } catch (const std::exception &problem) {
      std::cerr << problem.what() << "\n";
      std::exit(1);
    }
  }();
  return cases;
}

std::string folder() {
  const char *chosen = getenv("PKITS_DATA");
  return chosen ? chosen : installed_folder;
}

bool is_installed() {
  return std::filesystem::exists(folder() + "/certs/" + trust_anchor + ".crt");
}

support::cert read_cert(const std::string &name) {
  std::string octets = octets_of(folder() + "/certs/" + name + ".crt");
  auto at = reinterpret_cast<const unsigned char *>(octets.data());
  return {d2i_X509(nullptr, &at, static_cast<long>(octets.size())), X509_free};
}

support::crl read_crl(const std::string &name) {
  std::string octets = crl_octets(name);
  auto at = reinterpret_cast<const unsigned char *>(octets.data());
  return {d2i_X509_CRL(nullptr, &at, static_cast<long>(octets.size())), X509_CRL_free};
}

std::string crl_octets(const std::string &name) {
  return octets_of(folder() + "/crls/" + name + ".crl");
}

std::vector<std::string> crls_in_directory(const X509_NAME *entry) {
  static const directory all = read_directory();
  auto found = all.find(text_of(entry));
  return found == all.end() ? std::vector<std::string>() : found->second;
}

}  // namespace pkits
