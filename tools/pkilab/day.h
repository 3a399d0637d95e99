#ifndef TOOLS_PKILAB_DAY_H
#define TOOLS_PKILAB_DAY_H

namespace pkilab {

// In seconds.
constexpr long day = 24L * 60 * 60;

}  // namespace pkilab

#endif
