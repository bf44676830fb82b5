#include <csignal>
#include <iostream>

#include "sfectl/Cli.h"

int main(int argc, char** argv) {
  // A reader that goes away ends the output, not the program: the stream reports it.
  std::signal(SIGPIPE, SIG_IGN);
  return Sfectl::run(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
