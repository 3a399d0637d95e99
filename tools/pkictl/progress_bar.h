// How far a long read has come, for the person who waits.
#ifndef TOOLS_PKICTL_PROGRESS_BAR_H
#define TOOLS_PKICTL_PROGRESS_BAR_H

#include <chrono>
#include <cstdint>
#include <string>

namespace pkictl {

// A line on stderr that is drawn over and over, and gone at the end. Nothing where stderr is no
// terminal.
class progress_bar {
 public:
  // `total` octets are to come; 0: nobody knows how many.
  explicit progress_bar(uint64_t total);
  ~progress_bar();
  progress_bar(const progress_bar &) = delete;
  progress_bar &operator=(const progress_bar &) = delete;

  void advance(uint64_t octets);

 private:
  using clock = std::chrono::steady_clock;

  void draw(clock::time_point now);
  void write_line(const std::string &text);

  bool shown_;
  uint64_t total_;
  uint64_t done_ = 0;
  size_t width_ = 0;  // of what stands there
  clock::time_point begin_ = clock::now();
  clock::time_point next_ = begin_;
};

}  // namespace pkictl

#endif
