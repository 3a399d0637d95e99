#include "crl_model.h"

#include <algorithm>

#include "support/crl_der.h"

namespace fuzz {

namespace {

constexpr uint32_t longest_content = 10000;
constexpr uint32_t longest_header = 140;

struct refused {};

struct header {
  size_t start = 0;
  unsigned char tag = 0;
  uint32_t length = 0;
};

class reading {
 public:
  explicit reading(const std::string &octets) : octets_(octets) {}

  crl_reading run(uint32_t left) {
    left = next(&left, std::min(left, longest_content)).length;
    size_t tbs_start = at_;
    tbs_left_ = next(&left, longest_content).length;
    left -= tbs_left_;
    std::string head = read_head();
    std::string rest = read_times() + read_optional_parts();
    made_.digested = octets_.substr(tbs_start, at_ - tbs_start);
    std::string tail = element(&left, longest_content);
    tail += element(&left, longest_content);
    made_.strict = support::der_tlv(0x30, support::der_tlv(0x30, head + rest) + tail);
    return made_;
  }

 private:
  unsigned char take() {
    if (at_ >= octets_.size())
      throw refused();
    return static_cast<unsigned char>(octets_[at_++]);
  }

  // RFC 5280's DER, and what is tolerated: any number of length octets, of which the last four
  // count.
  header next(uint32_t *remaining, uint32_t limit) {
    header read = {at_, take(), 0};
    limit = std::min(limit, longest_header);
    if ((read.tag & 0x1f) == 0x1f)
      while ((take() & 0x80) != 0)
        if (at_ - read.start >= limit)
          throw refused();
    read.length = take();
    if (read.length == 0x80)
      throw refused();
    if (read.length > 0x80) {
      uint32_t count = read.length & 0x7f;
      if (at_ - read.start + count > limit)
        throw refused();
      for (read.length = 0; count > 0; count--)
        read.length = read.length << 8 | take();
    }
    auto size = static_cast<uint32_t>(at_ - read.start);
    if (size > limit || size > *remaining || read.length > *remaining - size)
      throw refused();
    *remaining -= size;
    return read;
  }

  std::string content(const header &of, uint32_t *remaining, uint32_t limit) {
    if (of.length > limit || of.length > octets_.size() - at_)
      throw refused();
    *remaining -= of.length;
    at_ += of.length;
    return octets_.substr(at_ - of.length, of.length);
  }

  std::string element(uint32_t *remaining, uint32_t limit) {
    size_t start = at_;
    header read = next(remaining, limit);
    content(read, remaining, limit);
    return octets_.substr(start, at_ - start);
  }

  // Version and algorithm.
  std::string read_head() {
    std::string first = element(&tbs_left_, longest_content);
    if ((first[0] & 0xdf) != 0x02) {
      made_.algorithm = first;
      return first;
    }
    made_.algorithm = element(&tbs_left_, longest_content);
    return first + made_.algorithm;
  }

  // Issuer and thisUpdate.
  std::string read_times() {
    std::string both = element(&tbs_left_, longest_content);
    return both + element(&tbs_left_, longest_content);
  }

  std::string read_optional_parts() {
    std::string parts;
    if (tbs_left_ == 0)
      return parts;
    header read = next(&tbs_left_, longest_content);
    if ((read.tag & 0xdf) == 0x17 || (read.tag & 0xdf) == 0x18) {
      content(read, &tbs_left_, longest_content);
      parts += octets_.substr(read.start, at_ - read.start);
      if (tbs_left_ == 0)
        return parts;
      read = next(&tbs_left_, longest_content);
    }
    if (read.tag == 0x30) {
      tbs_left_ -= read.length;
      parts += read_entries(read.length);
      if (tbs_left_ == 0)
        return parts;
      read = next(&tbs_left_, longest_content);
    }
    if (read.tag != 0xa0)
      throw refused();
    return parts + support::der_tlv(0xa0, content(read, &tbs_left_, longest_content));
  }

  std::string read_entries(uint32_t left) {
    std::string entries;
    while (left > 0)
      entries += element(&left, longest_content);
    return support::der_tlv(0x30, entries);
  }

  const std::string &octets_;
  size_t at_ = 0;
  uint32_t tbs_left_ = 0;
  crl_reading made_;
};

// Looks at headers down to those of the entries.
class ber_search {
 public:
  explicit ber_search(const std::string &octets) : octets_(octets) {}

  bool found_within(size_t at, size_t end, int depth) {
    while (at + 2 <= end) {
      auto tag = static_cast<unsigned char>(octets_[at]);
      auto length = static_cast<unsigned char>(octets_[at + 1]);
      if (length == 0x80 || tag == 0x10)
        return true;
      size_t start = at + 2, size = length;
      if (length > 0x80) {
        size = 0;
        for (int count = length & 0x7f; count > 0 && start < end; count--)
          size = size << 8 | static_cast<unsigned char>(octets_[start++]);
      }
      if (size > end - start)
        return false;
      if ((tag & 0x20) != 0 && depth < 3 && found_within(start, start + size, depth + 1))
        return true;
      at = start + size;
    }
    return false;
  }

 private:
  const std::string &octets_;
};

}  // namespace

std::optional<crl_reading> read_crl(const std::string &octets, uint32_t announced) {
  try {
    return reading(octets).run(announced);
  } catch (const refused &) {
    return std::nullopt;
  }
}

bool has_ber_frame(const std::string &octets) {
  return ber_search(octets).found_within(0, octets.size(), 0);
}

}  // namespace fuzz
