#include "Tavrick/TavrickApp.h"

int main(int argc, char** argv) {
    return tavrick::TavrickApp::main(argc, argv);
}
