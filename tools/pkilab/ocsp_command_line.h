// The options of the OCSP room.
#ifndef TOOLS_PKILAB_OCSP_COMMAND_LINE_H
#define TOOLS_PKILAB_OCSP_COMMAND_LINE_H

#include "tools/pkilab/lab.h"

namespace CLI {
class App;
}

namespace pkilab {

// Adds --ocsp-*, which write into `options`. Both must outlive the parsing.
void add_ocsp_command_line(CLI::App *serve, lab_options *options);

}  // namespace pkilab

#endif
