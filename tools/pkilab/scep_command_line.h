// The options of the SCEP room.
#ifndef TOOLS_PKILAB_SCEP_COMMAND_LINE_H
#define TOOLS_PKILAB_SCEP_COMMAND_LINE_H

#include <string>

#include "tools/pkilab/lab.h"

namespace CLI {
class App;
}

namespace pkilab {

// Adds --scep-*, which write into `options`. Both must outlive the parsing.
void add_scep_options(CLI::App *serve, lab_options *options);

}  // namespace pkilab

#endif
