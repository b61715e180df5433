// The floor of a C++ program's start-up: the C++ runtime's streams, shared or linked in.
#include <iostream>

int main() {
    std::cout << "hello\n";
    return 0;
}
