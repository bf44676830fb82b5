// The terminal as a whole, for as long as it lives; afterwards it is as it was before.
//
// Threads    : main.
// Errors     : RuntimeError for a terminal that is not known.
// Invariants :
//   (1) the destructor gives the terminal back, also when an exception ends the command.
#pragma once

#include <cstddef>
#include <vector>

#include "sfectl/TopView.h"

namespace Sfectl {

class TopScreen {
 public:
  enum class Key {
    kNone,
    kQuit,
    kNextOrder,
    kPackets,
    kBits,
    kDrops,
    kName,
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kOther
  };

  // Without colour what is to be seen is bold or reverse only.
  explicit TopScreen(bool colour);
  ~TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;

  size_t lines() const;
  // Cuts what is too long.
  void draw(const std::vector<TopLine>& lines);
  // The terminal has another size.
  void resized();
  // The next key that was pressed; does not wait.
  Key key();

 private:
  struct State;
  State* state_;
};

}  // namespace Sfectl
