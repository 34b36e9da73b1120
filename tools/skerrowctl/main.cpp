// skerrowctl: the command-line client of the Skerrow backup engine.
#include <iostream>
#include <string>
#include <vector>

#include "tools/skerrowctl/Commands.h"

int main(int argc, char** argv) {
  return skerrowctl::run(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
