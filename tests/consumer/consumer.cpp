// Loads a dictionary directory with the installed library and prints how many
// modules it describes; exits 1 when it does not load.
#include <BinaryLogXmlReader.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    Tav::BinaryLogXmlReader reader(argv[1], false, 0, 0);
    if (!reader.isGood()) {
        return 1;
    }
    printf("modules=%zu levels=%zu\n", reader.moduleDetailsMap.size(), reader.logLevelNames.size());
    return 0;
}
