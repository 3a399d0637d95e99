// The options of the CRL room.
#ifndef TOOLS_PKILAB_CRL_COMMAND_LINE_H
#define TOOLS_PKILAB_CRL_COMMAND_LINE_H

#include "tools/pkilab/lab.h"

namespace CLI {
class App;
}

namespace pkilab {

// Adds --crl-*, which write into `options`. Both must outlive the parsing.
void add_crl_command_line(CLI::App *serve, lab_options *options);

}  // namespace pkilab

#endif
