// qv-index: turns desktop search indexing of a mounted volume on or off, and
// tells whether it is on. Indexers are kept out by marker files at the
// volume's root (see disk/FileSystemIndexing.h).
//
//   qv-index -i on|off <mount>
//   qv-index -s <mount>
//
// Exit status: 0 done; 1 the markers couldn't be written or removed; 2 usage;
// 3 <mount> is not the root of a mounted volume.
#include <cstdio>
#include <string>

#include "disk/FileSystemIndexing.h"
#include "disk/FileSystemVolumes.h"

namespace {

enum Exit { Ok = 0, Failed = 1, Usage = 2, NotAVolume = 3 };

int usage() {
    std::fputs("usage: qv-index -i on|off <mount>\n       qv-index -s <mount>\n", stderr);
    return Usage;
}

void printState(const std::string& mount) {
    std::printf("%s:\n\tIndexing %s.\n", mount.c_str(), qv::QVIndexingEnabled(mount) ? "enabled" : "disabled");
}

} // namespace

int main(int argc, char** argv) {
    std::string mount;
    int wanted = -1;  // -1: only report; 0 off; 1 on
    if (argc == 3 && std::string(argv[1]) == "-s") {
        mount = argv[2];
    } else if (argc == 4 && std::string(argv[1]) == "-i") {
        const std::string state = argv[2];
        if (state != "on" && state != "off") return usage();
        wanted = state == "on" ? 1 : 0;
        mount = argv[3];
    } else {
        return usage();
    }

    // Markers belong at a volume's root only: written into the empty folder of
    // a volume that isn't mounted they would litter the user's folder.
    qv::QVError error;
    if (!qv::isVolumeAtURL(mount, &error)) {
        std::fprintf(stderr, "qv-index: %s: %s\n", mount.c_str(),
                     error.empty() ? "not the root of a mounted volume" : error.description.c_str());
        return NotAVolume;
    }
    if (wanted >= 0 && !qv::QVSetIndexingEnabled(mount, wanted == 1, &error)) {
        std::fprintf(stderr, "qv-index: %s\n", error.description.c_str());
        return Failed;
    }
    printState(mount);
    return Ok;
}
