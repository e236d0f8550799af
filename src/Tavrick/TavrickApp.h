#pragma once

namespace tavrick {

class TavrickApp {
public:
    static int main(int argc, char** argv);
};

} // namespace tavrick
