#include "tools/pkictl/verdict.h"

#include "tools/common/failure.h"
#include "tools/pkictl/library.h"

namespace pkictl {

int fail_with_two(const context &where, const std::function<int()> &run) {
  try {
    return run();
  } catch (const tools::library_failure &error) {
    if (where.json)
      where.out->write_json({{"error", failure_json(error.code(), error.what())}});
    throw tools::usage_failure(error.what());
  } catch (const tools::failure &error) {
    if (where.json)
      where.out->write_json({{"error", {{"text", error.what()}, {"message", error.what()}}}});
    throw tools::usage_failure(error.what());
  }
}

}  // namespace pkictl
