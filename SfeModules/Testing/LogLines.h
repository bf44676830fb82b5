// The lines that go to the process log while this lives, from all threads.
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Base/Gemlog/Gemlog.h"

namespace SfeModules {

class LogLines : public google::LogSink {
 public:
  LogLines() { google::AddLogSink(this); }
  ~LogLines() override { google::RemoveLogSink(this); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  // How many lines contain `text`.
  size_t with(std::string_view text) const {
    const std::lock_guard guard(mutex_);
    size_t count = 0;
    for (const std::string& line : lines_) {
      count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
  }

  // The number of the first line that contains `text`; the number of lines when there is none.
  size_t at(std::string_view text) const {
    const std::lock_guard guard(mutex_);
    size_t i = 0;
    while (i < lines_.size() && lines_[i].find(text) == std::string::npos) {
      ++i;
    }
    return i;
  }

  void send(google::LogSeverity /*severity*/,
            const char* /*path*/,
            const char* /*file*/,
            int /*line*/,
            const google::LogMessageTime& /*time*/,
            const char* message,
            size_t length) override {
    const std::lock_guard guard(mutex_);
    lines_.emplace_back(message, length);
  }

 private:
  using google::LogSink::send;

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Raises the level of the module's text trace while it lives.
class TraceLevel {
 public:
  explicit TraceLevel(int level) { Gemlog::setLevel("Mfib", level); }
  ~TraceLevel() { Gemlog::setLevel("Mfib", Gemlog::kDefaultLevel); }
  TraceLevel(const TraceLevel&) = delete;
  TraceLevel& operator=(const TraceLevel&) = delete;
};

}  // namespace SfeModules
