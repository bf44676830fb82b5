#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sfectl/Errors.h"
#include "sfectl/Show.h"
#include "sfectl/StateText.h"

namespace Sfectl {
namespace {

constexpr unsigned kMostDetailed = 9;
constexpr uint64_t kNsPerSecond = 1'000'000'000;

struct TraceWords {
  std::optional<unsigned> level;
  std::string function;
  std::optional<uint32_t> count;
};

// Nanoseconds since 1970 as "2026-01-31T23:59:59.000000001Z".
std::string timeText(uint64_t unixNs) {
  const auto seconds = static_cast<time_t>(unixNs / kNsPerSecond);
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  std::array<char, 64> text{};
  const size_t used = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &calendar);
  std::snprintf(text.data() + used, text.size() - used, ".%09uZ",
                static_cast<unsigned>(unixNs % kNsPerSecond));
  return text.data();
}

// Traces hold addresses as the bytes that they are: what is no text is shown as \xNN.
std::string readable(std::string_view message) {
  std::string text;
  for (const char c : message) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      text += c;
      continue;
    }
    constexpr std::string_view kDigits = "0123456789abcdef";
    text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
  }
  return text;
}

void showTrace(Session& session, const TraceWords& words) {
  std::string arg;
  if (words.level) {
    arg += "level=" + std::to_string(*words.level) + " ";
  }
  if (!words.function.empty()) {
    if (words.function.find_first_of(" \t\r\n") != std::string::npos) {
      throw UsageError("--function: '" + printable(words.function) + "' has a blank in it");
    }
    arg += "function=" + words.function + " ";
  }
  if (words.count) {
    arg += "count=" + std::to_string(*words.count);
  }
  const StateText text = StateText::fetch(session.client(), "", "trace", arg);
  const size_t time = text.column("time_ns");
  const size_t thread = text.column("thread");
  const size_t level = text.column("level");
  const size_t function = text.column("function");
  const size_t message = text.column("text");
  Report report({{"TIME", "time"},
                 {"THREAD", "thread"},
                 {"LEVEL", "level"},
                 {"FUNCTION", "function"},
                 {"TEXT", "text"}});
  for (size_t i = 0; i < text.size(); ++i) {
    const StateText::Row row = text.row(i);
    const Json writer = row[thread].empty() ? Json() : Json(text.number(row, thread));
    report.add({timeText(text.number(row, time)), writer, text.number(row, level),
                std::string(row[function]), readable(row[message])});
  }
  session.print(report);
}

}  // namespace

void addShowTrace(CLI::App& show, Session& session) {
  auto words = std::make_shared<TraceWords>();
  auto* command = show.add_subcommand("trace", "The newest traces of all threads, in time order");
  command
      ->add_option("--level", words->level, "Only up to this level: 3 life, 6 commands, 7 detail")
      ->check(CLI::Range(0U, kMostDetailed));
  command->add_option("--function", words->function, "Only functions whose name contains this");
  command->add_option("--count", words->count, "Only so many, the newest");
  session.bind(command, [words](Session& s) { showTrace(s, *words); });
}

}  // namespace Sfectl
