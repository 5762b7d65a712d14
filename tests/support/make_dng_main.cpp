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
  std::string jpeg;
  unsigned w = 0, h = 0;
  if (argc == 5) {
    std::ifstream in(argv[2], std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    jpeg = s.str();
    w = static_cast<unsigned>(std::atoi(argv[3]));
    h = static_cast<unsigned>(std::atoi(argv[4]));
  }
  std::ofstream out(argv[1], std::ios::binary);
  out << kovathumb::test::MakeDng(256, 192, jpeg, w, h);
  return out ? 0 : 1;
}
