#include "Tavrick/TavrickApp.h"

namespace tavrick {

int TavrickApp::main(int, char**) {
    return 0;
}

} // namespace tavrick
