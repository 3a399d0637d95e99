#include "tools/pkictl/cost.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <fstream>

#include "tools/pkictl/report.h"

namespace pkictl {

namespace {

// The most memory that the process had, or null.
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

std::string time_text(const json &cost) {
  char text[80];
  double seconds = cost["seconds"].get<double>();
  if (cost.contains("octets_per_second"))
    snprintf(text, sizeof text, "%.3f s, %.1f MB/s", seconds,
             cost["octets_per_second"].get<double>() / 1e6);
  else
    snprintf(text, sizeof text, "%.3f s", seconds);
  return text;
}

std::string memory_text(const json &cost) {
  json of_crl = cost.value("crl_memory_kib", json(nullptr));
  return cost["peak_memory_kib"].dump() + " KiB at the most, of the whole process" +
         (of_crl.is_null() ? "" : "; " + of_crl.dump() + " KiB of it came with the CRL");
}

}  // namespace

void add_cost_option(CLI::App *command, bool *wanted) {
  command->add_flag("--cost", *wanted, "Print the time and memory that it took");
}

cost_meter::cost_meter()
    : peak_before_(peak_memory_json()), begin_(std::chrono::steady_clock::now()) {}

json cost_meter::read() const {
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin_;
  return {{"seconds", took.count()}, {"peak_memory_kib", peak_memory_json()}};
}

json cost_meter::read_with_crl(uint64_t octets) const {
  json cost = read();
  double seconds = cost["seconds"].get<double>();
  const json &peak = cost["peak_memory_kib"];
  json of_crl = nullptr;
  if (!peak.is_null() && !peak_before_.is_null())
    of_crl = peak.get<long>() - peak_before_.get<long>();
  cost["octets_per_second"] = seconds > 0 ? static_cast<double>(octets) / seconds : 0.0;
  cost["crl_memory_kib"] = of_crl;
  return cost;
}

std::string cost_text(int depth, const json &cost) {
  if (cost.is_null())
    return "";
  std::string text = text_line(depth, "time", time_text(cost));
  return cost["peak_memory_kib"].is_null() ? text
                                           : text + text_line(depth, "memory", memory_text(cost));
}

}  // namespace pkictl
