#include "app/QuellixApp.h"
#include "app/QuellixMain.h"

int main(int argc, char** argv) {
  return quellix::QuellixMain::main(argc, argv, &quellix::QuellixApp::run);
}
