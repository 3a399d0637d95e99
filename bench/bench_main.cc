// The library and the board are set up once for all benchmarks.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  char name[] = "/tmp/libpki-bench-XXXXXX";
  if (!mkdtemp(name)) {
    std::perror("bench_libpki: no folder for the board's files");
    return 1;
  }
  std::string folder = name;
  std::ofstream(folder + "/serialnumber") << "SN-0001\n";
  setenv("BOARD_INFO_DIR", folder.c_str(), 1);
  libpki_init();
  benchmark::RunSpecifiedBenchmarks();
  std::filesystem::remove_all(folder);
  return 0;
}
