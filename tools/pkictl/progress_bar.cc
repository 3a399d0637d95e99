#include "tools/pkictl/progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace pkictl {

namespace {

constexpr int cells = 30;
constexpr auto pause = std::chrono::milliseconds(100);
constexpr double octets_a_megabyte = 1e6;

std::string megabytes(double octets) {
  char text[64];
  snprintf(text, sizeof text, "%.1f MB", octets / octets_a_megabyte);
  return text;
}

std::string bar(uint64_t done, uint64_t total) {
  uint64_t part = std::min(done, total);
  auto full = static_cast<size_t>(part * cells / total);
  return "[" + std::string(full, '#') + std::string(cells - full, ' ') + "] " +
         std::to_string(part * 100 / total) + " %  ";
}

}  // namespace

progress_bar::progress_bar(uint64_t total) : shown_(isatty(STDERR_FILENO) == 1), total_(total) {}

progress_bar::~progress_bar() {
  if (width_ == 0)
    return;
  draw(clock::now());
  write_line("\r" + std::string(width_, ' ') + "\r");
}

void progress_bar::advance(uint64_t octets) {
  done_ += octets;
  if (!shown_)
    return;
  clock::time_point now = clock::now();
  if (now < next_)
    return;
  next_ = now + pause;
  draw(now);
}

void progress_bar::draw(clock::time_point now) {
  double seconds = std::chrono::duration<double>(now - begin_).count();
  std::string line = total_ > 0 ? bar(done_, total_) : "";
  line += megabytes(static_cast<double>(done_));
  if (seconds > 0)
    line += ", " + megabytes(static_cast<double>(done_) / seconds) + "/s";
  size_t length = line.size();
  line.resize(std::max(length, width_), ' ');
  width_ = length;
  write_line("\r" + line);
}

// What does not get there is not missed.
void progress_bar::write_line(const std::string &text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0)
    shown_ = false;
}

}  // namespace pkictl
