#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help")) {
        std::puts("usage: qv <command>");
        return argc < 2 ? 2 : 0;
    }
    return 2;
}
