#include "tools/pkilab/scep_command_line.h"

#include <CLI/CLI.hpp>

#include "tools/common/command_line.h"
#include "tools/common/scep_message.h"
#include "tools/pkilab/scep_options.h"

namespace pkilab {

namespace {

// Names and what they stand for, for CLI11 to choose from.
std::map<std::string, int> fail_info_choices() {
  std::map<std::string, int> choices;
  for (const std::string &name : tools::scep_fail_info_names())
    choices.emplace(name, static_cast<int>(choices.size()));
  return choices;
}

misdeed find_misdeed(const std::string &name) {
  std::string names;
  for (const misdeed_row &row : misdeed_rows()) {
    if (row.name == name)
      return row.what;
    names += (names.empty() ? "" : ",") + std::string(row.name);
  }
  throw CLI::ValidationError("--scep-misbehave", name + " not in {" + names + "}");
}

void add_algorithm(CLI::App *serve, const char *option, std::string *name, const char *help) {
  serve
      ->add_option_function<std::string>(
          option, [name](const std::string &given) { *name = given == "none" ? "" : given; }, help)
      ->type_name("NAME")
      ->default_str(*name)
      ->group("SCEP");
}

}  // namespace

void add_scep_options(CLI::App *serve, lab_options *options) {
  scep_options *scep = &options->scep;
  add_algorithm(serve, "--scep-digest", &options->algorithms.digest,
                "Digest that the document names, as OpenSSL calls it; none leaves it out");
  add_algorithm(serve, "--scep-cipher", &options->algorithms.cipher,
                "Cipher that the document names, as OpenSSL calls it; none leaves it out");
  serve
      ->add_option("--scep-pending", scep->pending,
                   "Answer PENDING so many times before a request is decided")
      ->check(tools::check_number)
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str()
      ->group("SCEP");
  serve
      ->add_option_function<std::string>(
          "--scep-refuse",
          [scep](const std::string &name) { scep->refuse = fail_info_choices().at(name); },
          "Refuse every request with this reason")
      ->type_name("REASON")
      ->check(CLI::IsMember(tools::scep_fail_info_names()))
      ->group("SCEP");
  serve
      ->add_option_function<std::vector<std::string>>(
          "--scep-misbehave",
          [scep](const std::vector<std::string> &names) {
            for (const std::string &name : names)
              scep->misdeeds.insert(find_misdeed(name));
          },
          "Answer badly in this way; may be given several times")
      ->type_name("NAME")
      ->type_size(1)
      ->expected(1, 100)
      ->group("SCEP");
  serve
      ->add_option("--scep-save", scep->save_folder,
                   "Folder that receives every SCEP message and answer, for pkictl scep decode")
      ->type_name("DIR")
      ->group("SCEP");
}

}  // namespace pkilab
