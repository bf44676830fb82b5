// Figures that stand for themselves: one row each with median, spread and the mark it is held
// against, as a table for people and as JSON for programs.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "bench/Report.h"

namespace bench {

struct Figure {
  std::string name;
  std::string unit;
  std::string mark;  // ">= 300000"; empty when there is none
  Samples samples;
};

void printFigures(std::FILE* out, const std::vector<Figure>& figures);
// A list of {"name", "unit", "median", "min", "max", "runs", "mark"}.
// Errors: std::runtime_error when the file cannot be written.
void writeFiguresJson(const std::string& path, const std::vector<Figure>& figures);

}  // namespace bench
