// What the board library does not give, and why.
#ifndef TOOLS_PKICTL_BOARD_PROBLEM_H
#define TOOLS_PKICTL_BOARD_PROBLEM_H

#include <string>

namespace pkictl {

enum class board_wants { serial_number, secret };  // the second: both

// Asks the board library again: which file, why, and what to do. Where it works this time, `heard`
// of the first is all that is known.
std::string board_problem(board_wants wanted, const std::string &heard = "");

}  // namespace pkictl

#endif
