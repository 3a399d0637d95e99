#include "der_tree.h"

#include <cstdint>
#include <optional>
#include <utility>

#include "support/crl_der.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace fuzz {

namespace {

constexpr int deepest = 24;
constexpr unsigned char bit_string = 0x03;
constexpr unsigned char octet_string = 0x04;

unsigned char octet(const std::string &octets, size_t at) {
  return static_cast<unsigned char>(octets[at]);
}

// Lengths of up to four octets; nothing indefinite.
std::optional<size_t> read_length(const std::string &octets, size_t *at) {
  if (*at >= octets.size())
    return std::nullopt;
  size_t length = octet(octets, (*at)++);
  if (length < 0x80)
    return length;
  size_t count = length & 0x7f;
  if (count == 0 || count > 4 || count > octets.size() - *at)
    return std::nullopt;
  for (length = 0; count > 0; count--)
    length = length << 8 | octet(octets, (*at)++);
  return length;
}

std::optional<der_nodes> parse_all(const std::string &octets, int depth);

void look_inside(der_node *node, int depth) {
  unsigned char tag = octet(node->tag, 0);
  if (node->content.empty() || depth >= deepest)
    return;
  std::string inner = node->content;
  if (tag == bit_string) {
    node->prefix = inner.substr(0, 1);
    inner.erase(0, 1);
  } else if ((tag & 0x20) == 0 && tag != octet_string) {
    return;
  }
  auto children = parse_all(inner, depth + 1);
  if (children && !children->empty())
    node->children = std::move(*children);
  else
    node->prefix.clear();
}

std::optional<der_node> parse_one(const std::string &octets, size_t *at, int depth) {
  der_node node;
  size_t start = *at;
  if ((octet(octets, (*at)++) & 0x1f) == 0x1f)
    while (*at < octets.size() && (octet(octets, (*at)++) & 0x80) != 0)
      continue;
  node.tag = octets.substr(start, *at - start);
  auto length = read_length(octets, at);
  if (!length || *length > octets.size() - *at)
    return std::nullopt;
  node.content = octets.substr(*at, *length);
  *at += *length;
  look_inside(&node, depth);
  return node;
}

std::optional<der_nodes> parse_all(const std::string &octets, int depth) {
  der_nodes nodes;
  for (size_t at = 0; at < octets.size();) {
    auto node = parse_one(octets, &at, depth);
    if (!node)
      return std::nullopt;
    nodes.push_back(std::move(*node));
  }
  return nodes;
}

void write_node(std::string *out, const der_node &node) {
  std::string content =
      node.children.empty() ? node.content : node.prefix + write_der(node.children);
  if (!node.tag.empty())
    *out += node.tag + (node.length.empty() ? support::der_length(content.size()) : node.length);
  *out += content;
}

struct place {
  der_nodes *list;
  size_t at;
  [[nodiscard]] der_node &node() const { return (*list)[at]; }
};

void collect(der_nodes *list, std::vector<place> *places) {
  for (size_t i = 0; i < list->size(); i++) {
    places->push_back({list, i});
    collect(&(*list)[i].children, places);
  }
}

std::ptrdiff_t offset(size_t at) {
  return static_cast<std::ptrdiff_t>(at);
}

void change_tag(random_source &random, der_node *node) {
  static const unsigned char usual[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0a, 0x0c,
                                        0x10, 0x13, 0x17, 0x18, 0x22, 0x24, 0x30, 0x31,
                                        0x37, 0x38, 0x80, 0x81, 0x86, 0xa0, 0xa1, 0xa4};
  switch (below(random, 8)) {
    case 0:
      node->tag = std::string(1, static_cast<char>(random()));
      break;
    case 1:  // the form with a number of its own
      node->tag = std::string(1 + below(random, 6), '\xff') + static_cast<char>(random() & 0x7f);
      break;
    default:
      node->tag = std::string(1, static_cast<char>(usual[below(random, sizeof usual)]));
  }
}

size_t content_size(const der_node &node) {
  return node.children.empty() ? node.content.size()
                               : node.prefix.size() + write_der(node.children).size();
}

void change_length(random_source &random, der_node *node) {
  static const uint64_t odd[] = {0,          1,          0x7f,       0x80,       0xff,       500,
                                 501,        2000,       9999,       10000,      10001,      0xffff,
                                 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff, 0x100000000};
  uint64_t size = content_size(*node);
  switch (below(random, 7)) {
    case 0:
      node->length = "\x80";
      break;
    case 1:  // zeros in front
      node->length = support::der_length(size, static_cast<int>(2 + below(random, 7)));
      break;
    case 2:  // what is in front does not count in 32 bits
      node->length = support::der_length(size | uint64_t(1 + below(random, 255)) << 32, 5);
      break;
    case 3: {
      size_t count = 100 + below(random, 28);
      node->length = std::string(1, static_cast<char>(0x80 | count)) + std::string(count, '\0');
      break;
    }
    case 4:
      node->length = support::der_length(odd[below(random, sizeof odd / sizeof *odd)]);
      break;
    case 5:
      node->length = support::der_length(size + 1 + below(random, 40));
      break;
    default:
      node->length = support::der_length(size > 0 ? size - 1 - below(random, size) : 1);
  }
}

void change_content(random_source &random, der_node *node) {
  if (!node->children.empty())
    return;
  size_t size = node->content.size();
  size_t room = size + 1 + below(random, 24);
  node->content.resize(room);
  size = LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(node->content.data()), size, room);
  node->content.resize(size);
}

// As raw octets, or as the tree that they make.
der_nodes pick(random_source &random, const std::vector<std::string> &interesting) {
  if (interesting.empty())
    return {};
  return parse_der(interesting[below(random, interesting.size())]);
}

void insert(const place &where, const der_nodes &nodes) {
  where.list->insert(where.list->begin() + offset(where.at), nodes.begin(), nodes.end());
}

void repeat(random_source &random, const place &where) {
  static const size_t counts[] = {1, 1, 1, 2, 3, 8, 65};
  der_node copy = where.node();
  size_t count = counts[below(random, sizeof counts / sizeof *counts)];
  where.list->insert(where.list->begin() + offset(where.at), count, copy);
}

void change_at(random_source &random, const place &here, const der_node &other,
               const std::vector<std::string> &interesting) {
  switch (below(random, 12)) {
    case 0:
      here.list->erase(here.list->begin() + offset(here.at));
      break;
    case 1:
      repeat(random, here);
      break;
    case 2:
      std::swap(here.node(), (*here.list)[below(random, here.list->size())]);
      break;
    case 3:
      change_tag(random, &here.node());
      break;
    case 4:
      change_length(random, &here.node());
      break;
    case 5:
    case 6:
      change_content(random, &here.node());
      break;
    case 7:
    case 8:
      insert(here, pick(random, interesting));
      break;
    case 9:
      here.node() = other;
      break;
    case 10:
      insert(here, {other});
      break;
    default:
      if (der_nodes inner = here.node().children; !inner.empty() && below(random, 2)) {
        here.list->erase(here.list->begin() + offset(here.at));
        here.list->insert(here.list->begin() + offset(here.at), inner.begin(), inner.end());
      } else {
        der_node around;
        around.tag = "\x30";
        around.children = {here.node()};
        here.node() = around;
      }
  }
}

}  // namespace

size_t below(random_source &random, size_t limit) {
  return random() % limit;
}

der_nodes parse_der(const std::string &octets) {
  der_nodes nodes;
  size_t at = 0;
  while (at < octets.size()) {
    size_t start = at;
    auto node = parse_one(octets, &at, 0);
    if (!node) {
      at = start;
      break;
    }
    nodes.push_back(std::move(*node));
  }
  if (at < octets.size()) {
    nodes.emplace_back();
    nodes.back().content = octets.substr(at);
  }
  return nodes;
}

std::string write_der(const der_nodes &nodes) {
  std::string out;
  for (const der_node &node : nodes)
    write_node(&out, node);
  return out;
}

void change_der(random_source &random, der_nodes *nodes,
                const std::vector<std::string> &interesting) {
  std::vector<place> places;
  collect(nodes, &places);
  if (places.empty()) {
    *nodes = pick(random, interesting);
    return;
  }
  const place here = places[below(random, places.size())];
  const der_node other = places[below(random, places.size())].node();
  change_at(random, here, other, interesting);
}

void cross_der(random_source &random, der_nodes *into, const der_nodes &from) {
  std::vector<place> places, sources;
  der_nodes copy = from;
  collect(into, &places);
  collect(&copy, &sources);
  if (places.empty() || sources.empty())
    return;
  const place here = places[below(random, places.size())];
  const der_node &other = sources[below(random, sources.size())].node();
  if (below(random, 2))
    here.node() = other;
  else
    insert(here, {other});
}

}  // namespace fuzz
