#pragma once

namespace tavrick {

// The process: it looks at the command line, and either runs one diagnostic routine and ends,
// or makes the coordinator, starts it 3.0 seconds later and runs until asked to terminate.
class TavrickApp {
public:
    static int main(int argc, char** argv);
};

} // namespace tavrick
