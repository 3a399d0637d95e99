#include "tools/pkilab/crl_command_line.h"

#include <CLI/CLI.hpp>

#include "tools/common/failure.h"

namespace pkilab {

namespace {

void take_words(const std::vector<std::string> &words, crl_options *options) {
  try {
    for (const std::string &word : words)
      set_crl_option(word, options);
  } catch (const tools::usage_failure &error) {
    throw CLI::ValidationError("--crl-answer", error.what());
  }
}

void take_dp_query(const std::string &query, lab_options *options) {
  try {
    crl_options tried;
    set_crl_options(query, &tried);
  } catch (const tools::usage_failure &error) {
    throw CLI::ValidationError("--crl-dp", error.what());
  }
  options->scep.crl_query = query;
}

}  // namespace

void add_crl_command_line(CLI::App *serve, lab_options *options) {
  serve
      ->add_option_function<std::vector<std::string>>(
          "--crl-answer",
          [options](const std::vector<std::string> &words) { take_words(words, &options->crl); },
          "Make every CRL in this way; may be given several times")
      ->type_name("NAME[=VALUE]")
      ->type_size(1)
      ->expected(1, 100)
      ->group("CRL");
  serve
      ->add_option_function<std::string>(
          "--crl-dp", [options](const std::string &query) { take_dp_query(query, options); },
          "Certificates that SCEP issues name the CA's CRL in the lab, with QUERY if given")
      ->type_name("[QUERY]")
      ->expected(0, 1)
      ->group("CRL");
}

}  // namespace pkilab
