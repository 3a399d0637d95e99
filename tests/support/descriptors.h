// How many descriptors this process has open.
#ifndef TESTS_SUPPORT_DESCRIPTORS_H
#define TESTS_SUPPORT_DESCRIPTORS_H

#include <filesystem>
#include <iterator>

namespace support {

inline long open_descriptors() {
  std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

}  // namespace support

#endif
