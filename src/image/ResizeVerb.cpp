// resize: the virtual disk and its file system change together, offline.
// Growing raises the disk first and then the file system; shrinking shrinks
// the file system first and then the disk, so that the file system never
// reaches beyond its disk. -limits reports what is possible.

#include <cstdio>
#include <sstream>

#include "image/Helpers.h"
#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VerbSupport.h"
#include "toolkit/Log.h"

namespace qv::image {

namespace {

uint64_t roundUpToSector(uint64_t n) { return (n + kSectorSize - 1) / kSectorSize * kSectorSize; }

// What the file system on `disk` can shrink to, in bytes (resize2fs's estimate).
bool minimumSize(const std::string& disk, uint64_t* bytes, QVError* error) {
    FileSystemState state;
    if (!readFileSystemState(disk, &state, error)) return false;
    ProgramResult r = runProgram(kResize2fs, {"-P", disk});
    if (!r.ok()) return fail(error, QVImageExitFailure, "cannot estimate the smallest size: " + r.summary());
    const std::string marker = "Estimated minimum size of the filesystem:";
    const size_t at = r.out.find(marker);
    if (at == std::string::npos)
        return fail(error, QVImageExitFailure, "cannot estimate the smallest size: " + r.summary());
    std::istringstream in(r.out.substr(at + marker.size()));
    uint64_t blocks = 0;
    if (!(in >> blocks) || blocks == 0) return fail(error, QVImageExitFailure, "cannot estimate the smallest size");
    *bytes = std::max(kMinImageSize, roundUpToSector(blocks * state.blockSize));
    return true;
}

int printLimits(const ParsedArguments& args, QVError* error) {
    if (args.value("-size")) return refuse(error, QVImageExitUsage, "-limits takes no -size");
    SecureBytes password;
    if (!readPasswordIfGiven(args, false, &password, error)) return exitStatusOf(error);
    ImageBundle image;
    if (!image.open(args.positional, error)) return exitStatusOf(error);
    const uint64_t current = image.info().size;
    uint64_t minimum = current;
    if (!password.empty()) {
        SecureBytes key;
        if (!image.unwrapKey(password, &key, error)) return exitStatusOf(error);
        password.clear();
        // The file system is measured only when no one else serves the disk;
        // otherwise (or without a password) nothing smaller than now is promised.
        QVError ignored;
        if (image.lock(&ignored)) {
            TemporaryDevice device;
            if (!device.start(image, key, 0, error)) return exitStatusOf(error);
            uint64_t fsMinimum = 0;
            if (!minimumSize(device.disk(), &fsMinimum, error)) return exitStatusOf(error);
            if (!device.stop(error)) return exitStatusOf(error);
            minimum = std::min(fsMinimum, current);
        }
    }
    std::printf("%llu\t%llu\t%llu\n", static_cast<unsigned long long>(minimum / 512),
                static_cast<unsigned long long>(current / 512), static_cast<unsigned long long>(kMaxImageSize / 512));
    if (std::fflush(stdout) != 0) return refuse(error, QVImageExitFailure, "cannot write to standard output");
    return QVImageExitOK;
}

int grow(ImageBundle& image, SecureBytes& key, uint64_t size, QVError* error) {
    if (!ensureRoomToChange(image, "grow", error)) return exitStatusOf(error);
    const ImageInfo old = image.info();
    ImageInfo bigger = old;
    bigger.size = size;
    if (!image.writeInfo(bigger, error)) return exitStatusOf(error);
    // Back to the old size when the file system did not grow: it still ends there.
    auto undo = [&]() {
        QVError ignored;
        if (image.writeInfo(old, &ignored)) image.trimBandsTo(old.size, &ignored);
        return exitStatusOf(error);
    };
    {
        TemporaryDevice device;
        if (!device.start(image, key, size, error)) return undo();
        if (!checkFileSystem(image, device.disk(), true, error)) return undo();
        ProgramResult r = runProgram(kResize2fs, {device.disk(), QVFormat("%lluK", static_cast<unsigned long long>(size / 1024))});
        if (!r.ok()) {
            fail(error, QVImageExitFailure, "resize2fs failed: " + r.summary());
            QVError ignored;
            device.stop(&ignored);
            return undo();
        }
        if (!device.stop(error)) return exitStatusOf(error);
    }
    return QVImageExitOK;
}

int shrink(ImageBundle& image, SecureBytes& key, uint64_t size, QVError* error) {
    {
        TemporaryDevice device;
        if (!device.start(image, key, 0, error)) return exitStatusOf(error);
        // Refused before anything is touched when the files don't fit.
        uint64_t minimum = 0;
        if (!minimumSize(device.disk(), &minimum, error)) return exitStatusOf(error);
        if (size < minimum)
            return refuse(error, QVImageExitFailure,
                          "the volume needs at least " + humanSize(minimum) + "; it can't shrink to " +
                              humanSize(size));
        if (!checkFileSystem(image, device.disk(), true, error)) return exitStatusOf(error);
        ProgramResult r = runProgram(kResize2fs, {device.disk(), QVFormat("%lluK", static_cast<unsigned long long>(size / 1024))});
        if (!r.ok()) return refuse(error, QVImageExitFailure, "resize2fs failed: " + r.summary());
        if (!device.stop(error)) return exitStatusOf(error);
    }
    ImageInfo smaller = image.info();
    smaller.size = size;
    if (!image.writeInfo(smaller, error) || !image.trimBandsTo(size, error)) return exitStatusOf(error);
    return QVImageExitOK;
}

} // namespace

int runResize(const std::vector<std::string>& words, const VerbContext&, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-stdinpass", "-limits"}, {"-size"}, &args, error)) return exitStatusOf(error);
    if (args.has("-limits")) return printLimits(args, error);
    const std::string* sizeWord = args.value("-size");
    if (!sizeWord) return refuse(error, QVImageExitUsage, "give -size <n> or -limits");
    uint64_t size = 0;
    if (!parseImageSize(*sizeWord, &size, error)) return exitStatusOf(error);
    ImageBundle image;
    SecureBytes key;
    if (!openLockedWithKey(args, &image, &key, error)) return exitStatusOf(error);
    const uint64_t current = image.info().size;
    if (size == current) return QVImageExitOK;
    return size > current ? grow(image, key, size, error) : shrink(image, key, size, error);
}

} // namespace qv::image
