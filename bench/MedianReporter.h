#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

// Prints as usual and keeps each benchmark's median time per iteration in nanoseconds, keyed
// by "function" or "function/args", so ratios can be reported after the run.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        const double scale = run.time_unit == benchmark::kMicrosecond   ? 1e3
                             : run.time_unit == benchmark::kMillisecond ? 1e6
                                                                        : 1.0;
        std::string key = run.run_name.function_name;
        if (!run.run_name.args.empty()) {
          key += "/" + run.run_name.args;
        }
        nanoseconds[key] = run.GetAdjustedRealTime() * scale;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  std::map<std::string, double> nanoseconds;
};

}  // namespace bench
