#include "sfectl/TopScreen.h"

#define NCURSES_NOMACROS
#include <curses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

constexpr short kAlarmPair = 1;

}  // namespace

struct TopScreen::State {
  SCREEN* screen = nullptr;
  bool colour = false;

  attr_t attributes(TopLine::Style style) const {
    switch (style) {
      case TopLine::Style::kTitle:
        return A_REVERSE;
      case TopLine::Style::kAlarm:
        return A_BOLD | (colour ? static_cast<attr_t>(COLOR_PAIR(kAlarmPair)) : A_NORMAL);
      case TopLine::Style::kPlain:
        break;
    }
    return A_NORMAL;
  }
};

TopScreen::TopScreen(bool colour) : state_(new State) {
  state_->screen = newterm(nullptr, stdout, stdin);
  if (state_->screen == nullptr) {
    delete state_;
    const char* term = std::getenv("TERM");
    throw RuntimeError("the terminal '" + printable(term == nullptr ? "" : term) +
                       "' (TERM) is not known; --batch needs none");
  }
  set_term(state_->screen);
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  if (colour && has_colors()) {
    start_color();
    use_default_colors();
    init_pair(kAlarmPair, COLOR_RED, -1);
    state_->colour = true;
  }
}

TopScreen::~TopScreen() {
  endwin();
  delscreen(state_->screen);
  delete state_;
}

size_t TopScreen::lines() const {
  return static_cast<size_t>(getmaxy(stdscr));
}

void TopScreen::draw(const std::vector<TopLine>& lines) {
  erase();
  const int width = getmaxx(stdscr);
  for (int y = 0; y < getmaxy(stdscr) && y < static_cast<int>(lines.size()); ++y) {
    const TopLine& line = lines[y];
    const attr_t attributes = state_->attributes(line.style);
    attron(attributes);
    mvaddnstr(y, 0, line.text.c_str(), width);
    if (line.style == TopLine::Style::kTitle) {
      hline(' ' | attributes, width);
      mvaddnstr(y, 0, line.text.c_str(), width);
    }
    attroff(attributes);
  }
  refresh();
}

void TopScreen::resized() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
    resizeterm(size.ws_row, size.ws_col);
    clearok(curscr, TRUE);
  }
}

TopScreen::Key TopScreen::key() {
  switch (getch()) {
    case ERR:
      return Key::kNone;
    case 'q':
      return Key::kQuit;
    case 's':
      return Key::kNextOrder;
    case 'p':
      return Key::kPackets;
    case 'b':
      return Key::kBits;
    case 'd':
      return Key::kDrops;
    case 'n':
      return Key::kName;
    case KEY_UP:
      return Key::kUp;
    case KEY_DOWN:
      return Key::kDown;
    case KEY_PPAGE:
      return Key::kPageUp;
    case KEY_NPAGE:
      return Key::kPageDown;
    default:
      return Key::kOther;
  }
}

}  // namespace Sfectl
