// The floor of a C program's start-up: the C library alone.
#include <stdio.h>

int main(void) {
    puts("hello");
    return 0;
}
