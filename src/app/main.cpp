#include "app/QuellixMain.h"

int main(int argc, char** argv) {
  return quellix::QuellixMain::main(argc, argv);
}
