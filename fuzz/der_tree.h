// DER as a tree that can be changed and written again. What is no DER stays as it is.
#ifndef FUZZ_DER_TREE_H
#define FUZZ_DER_TREE_H

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace fuzz {

using random_source = std::minstd_rand;

size_t below(random_source &random, size_t limit);

struct der_node {
  std::string tag;     // its octets; empty: `content` stands for itself
  std::string length;  // instead of the right one
  std::string content;
  std::vector<der_node> children;  // instead of the content, behind `prefix`
  std::string prefix;              // the unused bits of a BIT STRING
};
using der_nodes = std::vector<der_node>;

der_nodes parse_der(const std::string &octets);
std::string write_der(const der_nodes &nodes);

// One change: an element goes, comes twice or elsewhere, has another tag, length or content, or one
// of `interesting`, which are encodings, comes in. Lengths further out follow.
void change_der(random_source &random, der_nodes *nodes,
                const std::vector<std::string> &interesting);

// An element of `from` comes into `into`.
void cross_der(random_source &random, der_nodes *into, const der_nodes &from);

}  // namespace fuzz

#endif
