// Source -> Mfib -> Sink on one worker, beside the cost of copying alone and of the graph without
// the module, in the same run; then what happens beside plain forwarding.

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Bess/Cores.h"
#include "bench/Matrix.h"
#include "bench/Options.h"
#include "bench/Report.h"
#include "bench/Rig.h"
#include "bench/Scenarios.h"

namespace {

void append(std::vector<bench::Row>& rows, std::vector<bench::Row> more) {
  for (bench::Row& row : more) {
    rows.push_back(std::move(row));
  }
}

int run(const bench::Options& options) {
  constexpr size_t kCoresForTwo = 2;
  const bool two = options.scenarios && bess::usableCores().size() >= kCoresForTwo;
  const bench::Rig rig(options.hugeMb, two ? 2 : 1);
  std::vector<bench::Row> rows;
  if (options.matrix) {
    append(rows, bench::runMatrix(options));
  }
  if (options.scenarios) {
    append(rows, bench::runScenarios(options));
  }
  if (two) {
    append(rows, bench::runTwoWorkers(options));
  }
  bench::report(rows, options.json);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
    std::fputs(bench::kUsage, stdout);
    return 0;
  }
  bench::Options options;
  try {
    options = bench::parseOptions(argc, argv);
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "%s: %s\n%s", argv[0], error.what(), bench::kUsage);
    return 2;
  }
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}
