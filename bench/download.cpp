// Downloads the companion's executable to the path given, exactly as the launcher does.
#include "companion/ServiceClient.h"

int main(int argc, char **argv) {
    if (argc == 2)
        downloadSetup("KR", argv[1]);
    return argc == 2 ? 0 : 2;
}
