#include <iostream>
int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "Missing target for [" << argv[0] << "]" << std::endl;
    return 1;
  }
  return 0;
}
