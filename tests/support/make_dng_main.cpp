// kovathumb_make_dng OUT.dng [PREVIEW.jpg W H]: writes a small DNG, with
// the JPEG as its embedded preview when given. For samples and tests.
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "support/dng.h"

int main(int argc, char** argv) {
  if (argc != 2 && argc != 5) {
    std::cerr << "usage: kovathumb_make_dng OUT.dng [PREVIEW.jpg W H]\n";
    return 2;
  }
  std::ostringstream jpeg;
  if (argc == 5) jpeg << std::ifstream(argv[2], std::ios::binary).rdbuf();
  std::ofstream out(argv[1], std::ios::binary);
  out << kovathumb::test::MakeDng(256, 192, jpeg.str(), argc == 5 ? std::atoi(argv[3]) : 0, argc == 5 ? std::atoi(argv[4]) : 0);
  return out ? 0 : 1;
}
