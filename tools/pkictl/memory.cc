#include "tools/pkictl/memory.h"

#include <charconv>
#include <fstream>

#include "tools/pkictl/report.h"

namespace pkictl {

json peak_memory_json() {
  const std::string label = "VmHWM:";
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    size_t digits = line.find_first_of("0123456789");
    long kib = 0;
    if (line.starts_with(label) && digits != std::string::npos &&
        std::from_chars(line.data() + digits, line.data() + line.size(), kib).ec == std::errc())
      return kib;
  }
  return nullptr;
}

std::string memory_text(int depth, const json &peak_kib, const json &crl_kib) {
  if (peak_kib.is_null())
    return "";
  std::string of_crl =
      crl_kib.is_null() ? "" : "; " + crl_kib.dump() + " KiB of it came with the CRL";
  return text_line(depth, "memory",
                   peak_kib.dump() + " KiB at the most, of the whole process" + of_crl);
}

}  // namespace pkictl
