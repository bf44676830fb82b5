#include "bench/Figures.h"

#include <memory>
#include <stdexcept>

namespace bench {

void printFigures(std::FILE* out, const std::vector<Figure>& figures) {
  std::fprintf(out, "%-48s %14s %31s  %-10s %s\n", "", "median", "min..max", "unit", "mark");
  for (const Figure& figure : figures) {
    const Samples& samples = figure.samples;
    std::fprintf(out, "%-48s %14.2f %14.2f..%-15.2f  %-10s %s\n", figure.name.c_str(),
                 samples.median(), samples.min(), samples.max(), figure.unit.c_str(),
                 figure.mark.c_str());
  }
}

void writeFiguresJson(const std::string& path, const std::vector<Figure>& figures) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"),
                                                             &std::fclose);
  if (file == nullptr) {
    throw std::runtime_error("cannot write " + path);
  }
  std::FILE* const out = file.get();
  std::fprintf(out, "[");
  for (const Figure& figure : figures) {
    const Samples& samples = figure.samples;
    std::fprintf(out,
                 "%s\n  {\"name\": \"%s\", \"unit\": \"%s\", \"median\": %.3f, \"min\": %.3f, "
                 "\"max\": %.3f, \"runs\": %zu, \"mark\": \"%s\"}",
                 &figure == figures.data() ? "" : ",", figure.name.c_str(), figure.unit.c_str(),
                 samples.median(), samples.min(), samples.max(), samples.count(),
                 figure.mark.c_str());
  }
  std::fprintf(out, "\n]\n");
}

}  // namespace bench
