#include "tools/pkilab/ocsp_command_line.h"

#include <CLI/CLI.hpp>

#include "tools/common/failure.h"

namespace pkilab {

namespace {

void take_words(const std::vector<std::string> &words, ocsp_options *options) {
  try {
    for (const std::string &word : words)
      set_ocsp_option(word, options);
  } catch (const tools::usage_failure &error) {
    throw CLI::ValidationError("--ocsp-answer", error.what());
  }
}

void take_aia_query(const std::string &query, lab_options *options) {
  try {
    ocsp_options tried;
    set_ocsp_options(query, &tried);
  } catch (const tools::usage_failure &error) {
    throw CLI::ValidationError("--ocsp-aia", error.what());
  }
  options->scep.ocsp_query = query;
}

}  // namespace

void add_ocsp_command_line(CLI::App *serve, lab_options *options) {
  serve
      ->add_option_function<std::vector<std::string>>(
          "--ocsp-answer",
          [options](const std::vector<std::string> &words) { take_words(words, &options->ocsp); },
          "Answer every OCSP request in this way; may be given several times")
      ->type_name("NAME[=VALUE]")
      ->type_size(1)
      ->expected(1, 100)
      ->group("OCSP");
  serve
      ->add_option_function<std::string>(
          "--ocsp-aia", [options](const std::string &query) { take_aia_query(query, options); },
          "Certificates that SCEP issues name the lab's OCSP responder, with QUERY if given")
      ->type_name("[QUERY]")
      ->expected(0, 1)
      ->group("OCSP");
}

}  // namespace pkilab
