// SFE_TRACE: one statement, two sinks. The values go to the ring trace (Base/Flit) always, and as
// text to the text trace (Base/Gemlog) when the facility's level is at least the statement's.
//
//     SFE_TRACE("Mfib", 6, "iif: ", arg.iif(), ", source: ", arg.source());
//     SFE_TRACE("SfeFuse", 3, "Adding ", name, " to the fuse registry. ");
//     SFE_TRACE_AS("void fuseInit()", "SfeFuse", 3, "");
//
// After facility and level come labels (string literals) and values by turns, at most 8 values; a
// label may end the statement. Values: integers, enumerations, strings (std::string, string_view,
// const char*, Orp::String). The text is the signature of the calling function, ": ", then labels
// and values; numbers are decimal, strings are taken as they are (the ring keeps their first 64
// bytes).
//
// Levels     : 3 life cycle, 6 the entry of a command, 7 detail of one item.
// Threads    : any.
// Cost       : with the text level off that of the ring write. A statement's first run also
// registers it (a lock).
//              The values are evaluated once, always.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Base/Flit/Encode.h"
#include "Base/Flit/Flit.h"
#include "Base/Gemlog/Gemlog.h"

#define SFE_TRACE_AS(signature, facility, level, ...)                                   \
  do {                                                                                  \
    static constinit ::Trace::Point sfeTracePoint(signature, facility, level,           \
                                                  ::Gemlog::Where{__FILE__, __LINE__}); \
    sfeTracePoint.write(__VA_ARGS__);                                                   \
  } while (false)

#define SFE_TRACE(facility, level, ...) \
  SFE_TRACE_AS(__PRETTY_FUNCTION__, facility, level, __VA_ARGS__)

namespace Trace {

template <class T>
struct IsLiteral : std::false_type {};
template <size_t N>
struct IsLiteral<const char (&)[N]> : std::true_type {};

// The static part of one trace statement.
class Point {
 public:
  constexpr Point(const char* signature,
                  const char* facility,
                  int level,
                  const Gemlog::Where& where)
      : signature_(signature), facilityName_(facility), level_(level), where_(where) {}

  template <class... A>
  void write(A&&... args) {
    static_assert(sizeof...(A) >= 1, "a trace has a label at least");
    static_assert(sizeof...(A) / 2 <= Flit::kMaxArgs, "too many values in one trace");
    writeAs(std::make_index_sequence<(sizeof...(A) + 1) / 2>(),
            std::make_index_sequence<sizeof...(A) / 2>(),
            std::forward_as_tuple(std::forward<A>(args)...));
  }

 private:
  // L: 0..labels-1, at the even places of `args`; V: 0..values-1, at the odd places.
  template <size_t... L, size_t... V, class Args>
  void writeAs(std::index_sequence<L...> /*labels*/,
               std::index_sequence<V...> /*values*/,
               const Args& args) {
    static_assert((IsLiteral<std::tuple_element_t<2 * L, Args>>::value && ...),
                  "the first and every second argument of a trace is a string literal");
    // Not static: a static of a template would pin the library that instantiates it in memory.
    constexpr std::array<Flit::ArgKind, sizeof...(V)> kKinds = {
        Flit::argKind<std::remove_cvref_t<std::tuple_element_t<2 * V + 1, Args>>>()...};

    uint32_t id = id_.load(std::memory_order_acquire);
    if (id == 0) [[unlikely]] {
      const std::array<std::string_view, sizeof...(L)> labels = {std::get<2 * L>(args)...};
      id = enrol(labels, kKinds);
    }

    uint64_t words[1 + (Flit::maxWords(kKinds[V]) + ... + 0)];
    unsigned used = 0;
    ((used += Flit::encodeArg(words + used, std::get<2 * V + 1>(args))), ...);
    Flit::append(id, words, used);

    if (facility_.load(std::memory_order_relaxed)->enabled(level_)) [[unlikely]] {
      writeText(args);
    }
  }

  template <class Args>
  [[gnu::noinline, gnu::cold]] void writeText(const Args& args) const {
    std::string text(signature_);
    text += ": ";
    std::apply([&text](const auto&... arg) { (Flit::appendText(text, arg), ...); }, args);
    Gemlog::write(text, where_);
  }

  // Registers the point with both sinks. Several threads may come here for one point; all get the
  // same answer.
  [[gnu::cold]] uint32_t enrol(std::span<const std::string_view> labels,
                               std::span<const Flit::ArgKind> kinds);

  const char* const signature_;
  const char* const facilityName_;
  const int level_;
  const Gemlog::Where where_;

  // Written by enrol(), id_ last.
  std::atomic<Gemlog::Facility*> facility_{nullptr};
  std::atomic<uint32_t> id_{0};
};

}  // namespace Trace
